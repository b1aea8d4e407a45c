#include "launch.h"
#include "paths.h"

#include <QCoreApplication>
#include <QFile>

int main(int argc, char **argv)
{
    QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling, true);
    const QString pidFilePath = QString::fromLatin1(kPidFile);
    stopPreviousInstance(pidFilePath);
    QFile pidFile(pidFilePath);
    recordProcessId(pidFile);
    return argc < 2 ? runUpdateAssistant(argc, argv) : runStatusScreen(argc, argv);
}
