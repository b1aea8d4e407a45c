#include "quiet.h"

#include "log.h"

#include <QtGlobal>

#include <cstdio>
#include <cstdlib>

void beQuiet()
{
    if (!std::freopen("/dev/null", "w", stdout))
        std::abort();
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    SetLogFunc(nullptr);
}
