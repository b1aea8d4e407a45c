#include "program.h"

#include <QFileInfo>
#include <QJsonDocument>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace boardsim {

int fail(const char *program, ExitStatus status, const QString &text)
{
    std::fprintf(stderr, "%s: %s\n", program, qPrintable(text));
    return status;
}

QString cannotWrite(const QString &path, const QString &why)
{
    return QStringLiteral("cannot write %1: %2").arg(path, why);
}

int failToWrite(const char *program, const QString &path, const QString &why)
{
    return fail(program, Failed, cannotWrite(path, why));
}

QString faultOfDirectory(const QString &path)
{
    const QByteArray directory =
        QFile::encodeName(QFileInfo(path).absolutePath() + QLatin1Char('/'));
    return access(directory.constData(), W_OK) == 0 ? QString()
                                                    : QString::fromLocal8Bit(std::strerror(errno));
}

bool openOutput(QFile &file, const QString &path)
{
    if (path == QLatin1String("-"))
        return file.open(stdout, QIODevice::WriteOnly);
    file.setFileName(path);
    return file.open(QIODevice::WriteOnly);
}

LineSink sinkTo(QFile &file, QString &fault)
{
    return [&](const QByteArray &line) {
        file.write(line + '\n');
        const bool isWritten = file.flush(); // somebody follows the file
        if (!isWritten && errno != EPIPE)
            fault = file.errorString();
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

QString writeWhole(const QString &path, const QByteArray &content)
{
    QFile file(path);
    const bool isWritten =
        file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && file.flush();
    return isWritten ? QString() : file.errorString();
}

QString writeSummary(const QString &path, const Report &report)
{
    return writeWhole(path, QJsonDocument(toJson(report)).toJson());
}

} // namespace boardsim
