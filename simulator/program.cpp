#include "program.h"

#include <QFileInfo>
#include <QJsonDocument>

#include <cerrno>
#include <cstdio>

namespace boardsim {

int fail(const char *program, ExitStatus status, const QString &text)
{
    std::fprintf(stderr, "%s: %s\n", program, qPrintable(text));
    return status;
}

bool isInWritableDirectory(const QString &path)
{
    const QFileInfo directory(QFileInfo(path).absolutePath());
    return directory.isDir() && directory.isWritable();
}

bool openOutput(QFile &file, const QString &path)
{
    if (path == QLatin1String("-"))
        return file.open(stdout, QIODevice::WriteOnly);
    file.setFileName(path);
    return file.open(QIODevice::WriteOnly);
}

LineSink sinkTo(QFile &file, bool &hasFailed)
{
    return [&](const QByteArray &line) {
        file.write(line + '\n');
        const bool isWritten = file.flush(); // somebody follows the file
        hasFailed = hasFailed || (!isWritten && errno != EPIPE);
    };
}

sigset_t blockEndSignals()
{
    sigset_t endSignals;
    sigemptyset(&endSignals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&endSignals, signal);
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return endSignals;
}

bool writeSummary(const QString &path, const Report &report)
{
    QFile file(path);
    const QByteArray text = QJsonDocument(toJson(report)).toJson();
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size() && file.flush();
}

} // namespace boardsim
