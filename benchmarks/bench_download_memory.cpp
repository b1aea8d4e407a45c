#include "fileio.h"
#include "scriptedhttpserver.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>

// Shows that a download's memory does not grow with its size: a small and a large file, each
// fetched by the bridge over loopback in a process of its own, and the ratio of their peaks.

namespace {

constexpr qint64 kMegabyte = 1000 * 1000;
constexpr char kPath[] = "/file";

/// Peak resident memory of this process in kilobytes, 0 when the system does not tell.
int peakMemoryKb()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toInt();
    }
    return 0;
}

/// Fetches `url` into a file and prints the peak memory. Returns the exit code.
int fetch(const QUrl &url)
{
    const QTemporaryDir folder;
    const QString destination = folder.filePath(QStringLiteral("file"));
    FileIO bridge;
    bridge.componentComplete();
    bridge.setDestination(QUrl::fromLocalFile(destination));
    QObject::connect(&bridge, &FileIO::finished, qApp, &QCoreApplication::quit);
    QObject::connect(&bridge, &FileIO::error, qApp, [](int code, const QString &text) {
        std::fprintf(stderr, "error %d: %s\n", code, qPrintable(text));
        QCoreApplication::exit(1);
    });
    bridge.setUrl(url);
    bridge.setRunning(true);
    const int result = QCoreApplication::exec();
    std::printf("%d %lld\n", peakMemoryKb(), static_cast<long long>(QFileInfo(destination).size()));
    return result;
}

/// Peak memory, in kilobytes, of a process that fetches `bytes`; 0 when that failed.
int peakMemoryOf(qint64 bytes)
{
    // The server stays in this process, so that the other one's memory is the bridge's alone.
    ScriptedHttpServer server;
    server.on(kPath, HttpScript::head(bytes).fill(bytes));
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QCoreApplication::applicationFilePath(),
                  {QStringLiteral("--fetch"), server.url(kPath).toString()});
    if (!process.waitForFinished(-1) || process.exitCode() != 0)
        return 0;
    const QList<QByteArray> figures = process.readAllStandardOutput().trimmed().split(' ');
    return figures.size() == 2 && figures.at(1).toLongLong() == bytes ? figures.at(0).toInt() : 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Compares the peak memory of a 1 MB and a large download over loopback."));
    parser.addHelpOption();
    const QCommandLineOption large(QStringLiteral("large"),
                                   QStringLiteral("Size of the large one."), QStringLiteral("MB"),
                                   QStringLiteral("1000"));
    const QCommandLineOption fetchOnly(QStringLiteral("fetch"),
                                       QStringLiteral("Fetch URL and print the peak memory (kB)."),
                                       QStringLiteral("URL"));
    parser.addOptions({large, fetchOnly});
    parser.process(app);
    if (parser.isSet(fetchOnly))
        return fetch(QUrl(parser.value(fetchOnly)));

    const qint64 largeMegabytes = parser.value(large).toLongLong();
    const int smallPeak = peakMemoryOf(kMegabyte);
    const int largePeak = peakMemoryOf(largeMegabytes * kMegabyte);
    if (smallPeak == 0 || largePeak == 0) {
        std::fprintf(stderr, "a download failed\n");
        return 1;
    }
    std::printf(
        "ratio %.3f  peak memory of a %lld MB download (%d kB) to a 1 MB download (%d kB)\n",
        static_cast<double>(largePeak) / smallPeak, static_cast<long long>(largeMegabytes),
        largePeak, smallPeak);
    return 0;
}
