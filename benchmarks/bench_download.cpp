#include "fileio.h"
#include "peakmemory.h"

#include <QCoreApplication>

#include <cstdio>

// bench_download URL FILE: downloads a file with the bridge and prints the peak memory of this
// process in kilobytes.
int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_download URL FILE\n");
        return 2;
    }
    FileIO bridge;
    bridge.componentComplete();
    bridge.setDestination(QUrl::fromLocalFile(QString::fromLocal8Bit(argv[2])));
    QObject::connect(&bridge, &FileIO::finished, &app, &QCoreApplication::quit);
    QObject::connect(&bridge, &FileIO::error, &app, [](int code, const QString &text) {
        std::fprintf(stderr, "error %d: %s\n", code, qPrintable(text));
        QCoreApplication::exit(1);
    });
    bridge.setUrl(QUrl(QString::fromLocal8Bit(argv[1])));
    bridge.setRunning(true);
    const int result = QCoreApplication::exec();
    std::printf("%d\n", peakMemoryKb());
    return result;
}
