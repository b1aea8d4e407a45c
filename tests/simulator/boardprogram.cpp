#include "boardprogram.h"

#include <QFile>
#include <QtGlobal>

#include <csignal>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kPatienceMs = 30000;

/// The words of the command line. If the program is for another processor, the command that runs
/// one comes first.
QList<QByteArray> commandLine(const QStringList &arguments)
{
    QList<QByteArray> words = qgetenv("UPDATE_ASSISTANT_EMULATOR").split(' ');
    words.removeAll(QByteArray());
    words.append(QByteArrayLiteral(BOARD_PROGRAM));
    for (const QString &argument : arguments)
        words.append(QFile::encodeName(argument));
    return words;
}

} // namespace

BoardProgram::BoardProgram(const QStringList &arguments)
    : m_errors(std::tmpfile())
{
    QList<QByteArray> words = commandLine(arguments);
    std::vector<char *> pointers;
    for (QByteArray &word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);

    int ends[2];
    if (!m_errors || pipe(ends) != 0)
        qFatal("no pipe to the program");
    m_pipe = ends[0];
    m_pid = fork();
    if (m_pid < 0)
        qFatal("cannot fork");
    if (m_pid == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(fileno(m_errors), STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        execvp(pointers.front(), pointers.data());
        _exit(127);
    }
    close(ends[1]);
}

BoardProgram::~BoardProgram()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_pipe);
    std::fclose(m_errors);
}

QString BoardProgram::waitUntilReady()
{
    while (!m_output.contains('\n')) {
        if (!readMore())
            return {};
    }
    const QByteArray line = takeLine();
    return line.startsWith("ready ") ? QString::fromLatin1(line.mid(6).trimmed()) : QString();
}

bool BoardProgram::waitForOutput(const QByteArray &text)
{
    for (;;) {
        while (m_output.contains('\n')) {
            if (takeLine().contains(text))
                return true;
        }
        if (!readMore())
            return false;
    }
}

void BoardProgram::sendSignal(int signal)
{
    if (m_pid > 0)
        kill(m_pid, signal);
}

bool BoardProgram::waitUntilAsleep()
{
    for (char state = 0; state != 'Z'; usleep(1000)) {
        QFile file(QStringLiteral("/proc/%1/stat").arg(m_pid));
        const QByteArray text = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        state = text.mid(text.lastIndexOf(')') + 2, 1).append('Z').at(0);
        if (state == 'S')
            return true;
    }
    return false;
}

bool BoardProgram::diesOf(int signal)
{
    sendSignal(signal);
    int status = 0;
    for (int i = 0; i < kPatienceMs / 10; ++i, usleep(10000)) {
        if (waitpid(m_pid, &status, WNOHANG) != m_pid)
            continue;
        m_pid = 0;
        return WIFSIGNALED(status) && WTERMSIG(status) == signal;
    }
    return false;
}

int BoardProgram::waitForEnd()
{
    while (readMore()) { }
    pollfd end{m_pipe, POLLIN, 0};
    if (m_pid <= 0 || poll(&end, 1, 0) != 1)
        return -1;
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int BoardProgram::end()
{
    sendSignal(SIGTERM);
    return waitForEnd();
}

QByteArray BoardProgram::errorOutput()
{
    std::rewind(m_errors);
    QByteArray text;
    char block[4096];
    for (std::size_t count; (count = std::fread(block, 1, sizeof block, m_errors)) > 0;)
        text.append(block, static_cast<int>(count));
    return text;
}

/// Waits for more output. False at its end, and when none comes in time.
bool BoardProgram::readMore()
{
    pollfd more{m_pipe, POLLIN, 0};
    if (poll(&more, 1, kPatienceMs) != 1)
        return false;
    char block[4096];
    const ssize_t count = read(m_pipe, block, sizeof block);
    if (count <= 0)
        return false;
    m_output.append(block, static_cast<int>(count));
    return true;
}

QByteArray BoardProgram::takeLine()
{
    const int length = m_output.indexOf('\n') + 1;
    QByteArray line = m_output.left(length);
    m_output.remove(0, length);
    return line;
}
