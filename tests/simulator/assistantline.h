#ifndef ASSISTANTLINE_H
#define ASSISTANTLINE_H

#include <QByteArray>
#include <QString>

/// The assistant's end of the line, as a test holds it.
class AssistantLine {
public:
    /// Opens `device`; isOpen() tells whether that failed.
    explicit AssistantLine(const QString &device);
    ~AssistantLine();
    AssistantLine(const AssistantLine &) = delete;
    AssistantLine &operator=(const AssistantLine &) = delete;

    bool isOpen() const { return m_descriptor >= 0; }
    void close();

    /// Sends all of it in one write. False when not all of it was taken.
    bool send(const QByteArray &bytes);

    /// Sends it until the line takes no more for a while. Returns how many bytes it has taken.
    int fill(const QByteArray &bytes);

    /// Waits for `count` bytes; fewer when the line is hung up or nothing comes for ten seconds.
    QByteArray receive(int count);

    /// Sends and waits for an answer of `count` bytes.
    QByteArray exchange(const QByteArray &bytes, int count);

    /// Waits until the other side has hung up. False when it has not within ten seconds.
    bool waitForHangUp();

private:
    bool waitForInput();

    int m_descriptor;
};

#endif // ASSISTANTLINE_H
