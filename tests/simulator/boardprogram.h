#ifndef BOARDPROGRAM_H
#define BOARDPROGRAM_H

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <sys/types.h>

/// A program of the simulator, running; killed at the end of the object's life. Not by QProcess:
/// under an emulator that starts nothing, and takes every process for its child when it cleans up.
class BoardProgram {
public:
    explicit BoardProgram(const QStringList &arguments);
    ~BoardProgram();
    BoardProgram(const BoardProgram &) = delete;
    BoardProgram &operator=(const BoardProgram &) = delete;

    /// The device that it names in its ready line; empty when it ended instead.
    QString waitUntilReady();
    /// Waits for a line of output with this in it.
    bool waitForOutput(const QByteArray &text);
    void sendSignal(int signal);
    /// Waits until it sleeps, as in a call of the system. False when it has ended instead.
    bool waitUntilAsleep();
    /// Whether the signal, without any work left to do, is its end.
    bool diesOf(int signal);
    /// The exit status, or -1 when it crashes or does not end.
    int waitForEnd();
    /// Has it end as its user does.
    int end();

    /// What it has printed after the lines that were waited for. Once it has ended.
    QByteArray output() const { return m_output; }
    /// What it has printed as errors. Once it has ended.
    QByteArray errorOutput();

private:
    bool readMore();
    QByteArray takeLine();

    pid_t m_pid; ///< 0 once it was waited for
    int m_pipe;
    std::FILE *m_errors;
    QByteArray m_output;
};

#endif // BOARDPROGRAM_H
