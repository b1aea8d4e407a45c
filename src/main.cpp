#include "launch.h"
#include "paths.h"
#include "qtversion.h"

#include <QFile>

int main(int argc, char **argv)
{
    enableHighDpiScaling();
    const QString pidFilePath = QString::fromLatin1(kPidFile);
    stopPreviousInstance(pidFilePath);
    QFile pidFile(pidFilePath);
    recordProcessId(pidFile);
    return argc < 2 ? runUpdateAssistant(argc, argv) : runStatusScreen(argc, argv);
}
