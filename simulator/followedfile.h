#ifndef BOARDSIM_FOLLOWEDFILE_H
#define BOARDSIM_FOLLOWEDFILE_H

#include <QByteArray>
#include <QString>

namespace boardsim {

/// Marks the file as one that is being written, for FollowedFile; until it is closed, however the
/// process ends.
void markAsWritten(int descriptor);

/// A file that may be growing, or a stream.
class FollowedFile {
public:
    FollowedFile() = default;
    ~FollowedFile();
    FollowedFile(const FollowedFile &) = delete;
    FollowedFile &operator=(const FollowedFile &) = delete;

    /// "-" is standard input. False on failure, see errorText().
    [[nodiscard]] bool open(const QString &path);

    /// To wait for, of a stream; -1 of a file, which can always be read.
    int streamDescriptor() const { return m_isStream ? m_descriptor : -1; }

    enum class Input {
        Bytes,
        Nothing, ///< for now: somebody writes the file
        End,
        Failed, ///< see errorText()
    };
    /// A part of what is there. Blocks on a stream that has nothing.
    [[nodiscard]] Input read(QByteArray &bytes);

    QString name() const { return m_name; }
    QString errorText() const { return m_errorText; }

private:
    QString m_name;
    int m_descriptor = -1;
    bool m_isStream = false;
    QString m_errorText;
    qint64 m_size = 0; // read so far
};

} // namespace boardsim

#endif // BOARDSIM_FOLLOWEDFILE_H
