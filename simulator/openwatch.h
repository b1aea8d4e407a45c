#ifndef BOARDSIM_OPENWATCH_H
#define BOARDSIM_OPENWATCH_H

#include <QString>

namespace boardsim {

/// Counts who opens and closes a device. Whoever had it open before is not counted.
class OpenWatch {
public:
    OpenWatch() = default;
    ~OpenWatch();
    OpenWatch(const OpenWatch &) = delete;
    OpenWatch &operator=(const OpenWatch &) = delete;

    /// Begins anew. Where the system has no watch left, the device counts as open.
    void watch(const QString &path);
    void close();

    /// Counts what has happened. True when the device was closed meanwhile, even if it is open
    /// again.
    bool update();

    bool isOpen() const { return m_descriptor < 0 || m_count > 0; }

    /// Can be read when update() has something to count; -1: not watched. Owned by this.
    int descriptor() const { return m_descriptor; }

private:
    int m_descriptor = -1;
    int m_count = 0;
};

} // namespace boardsim

#endif // BOARDSIM_OPENWATCH_H
