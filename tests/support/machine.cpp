#include "machine.h"

#include <QDir>
#include <QFile>
#include <QtGlobal>

#include <unistd.h>

namespace {

constexpr char kDevice[] = "/dev/ttymxc1";
constexpr char kDirectory[] = "/root/mcu";

void requireMachine()
{
    if (!onSimulatedMachine())
        qFatal("fixed paths are not touched on the host");
}

} // namespace

bool onSimulatedMachine()
{
    return qEnvironmentVariableIsSet("UPDATE_ASSISTANT_SANDBOX");
}

BoardLine::BoardLine()
{
    requireMachine();
    unlink(kDevice); // left by a process that was killed
    if (symlink(path().constData(), kDevice) != 0)
        qFatal("the board's device cannot be linked");
}

BoardLine::~BoardLine()
{
    unlink(kDevice);
}

FirmwareDir::FirmwareDir()
{
    requireMachine();
    if (!QDir().mkpath(QString::fromLatin1(kDirectory)))
        qFatal("no firmware directory");
}

FirmwareDir::~FirmwareDir()
{
    QDir(QString::fromLatin1(kDirectory)).removeRecursively();
}

QString FirmwareDir::path(const QString &name) const
{
    return QString::fromLatin1(kDirectory) + QLatin1Char('/') + name;
}

void FirmwareDir::put(const QString &name, const QByteArray &content) const
{
    QFile file(path(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(file.fileName()));
}

void FirmwareDir::link(const QString &name, const QByteArray &target) const
{
    if (symlink(target.constData(), QFile::encodeName(path(name)).constData()) != 0)
        qFatal("cannot link %s", qPrintable(name));
}
