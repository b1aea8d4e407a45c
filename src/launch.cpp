#include "launch.h"

#include "apptransform.h"
#include "fileio.h"
#include "paths.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickItem>
#include <QQuickView>
#include <QUrl>

#include <cstdlib>
#include <unistd.h>

namespace {

constexpr QSize kPortraitDisplay(800, 1280);
constexpr QSizeF kLandscapeScene(1280.0, 800.0);

QUrl screenUrl(const char *screen)
{
    return QUrl(QString::fromLatin1(screen), QUrl::TolerantMode);
}

void setStatusMode(const QQuickView &view, const QString &mode)
{
    if (!view.rootObject())
        return;
    if (auto *infoTip = view.rootObject()->findChild<QObject *>(QStringLiteral("infoTip")))
        infoTip->setProperty("mode", QVariant(mode));
}

} // namespace

bool isFileExist(QString path)
{
    return QFileInfo(path).isFile();
}

bool killPid(QString pidFilePath)
{
    QFile file(pidFilePath);
    if (!file.open(QIODevice::ReadOnly))
        return true;
    // Deliberate: text that is not a number gives 0, and `kill -9 0` kills the caller's process
    // group. The id is not compared with our own. The machine relies on the shell's `kill` alone.
    // (tst_launch::killPidOfGarbageKillsTheGroup)
    const int pid = file.readAll().toInt(nullptr, 10);
    file.close();
    static_cast<void>(std::system(QStringLiteral("kill -9 %1").arg(pid).toLocal8Bit().constData()));
    return true;
}

void stopPreviousInstance(const QString &pidFilePath)
{
    if (!isFileExist(pidFilePath))
        return;
    qDebug() << "enter kill";
    killPid(pidFilePath);
}

void recordProcessId(QFile &pidFile)
{
    // Deliberate: no truncation, so the last digits of a longer old id remain after the new id.
    // The next start reads all of them. (tst_launch::shorterPidKeepsTheOldTail)
    if (!pidFile.open(QIODevice::ReadWrite | QIODevice::Text))
        return;
    const auto pid = static_cast<qint64>(getpid());
    pidFile.write(QStringLiteral("%1").arg(pid).toLocal8Bit().constData());
    pidFile.close();
}

int runUpdateAssistant(int &argc, char **argv)
{
    QGuiApplication app(argc, argv);
    QQmlApplicationEngine engine;
    // Deliberate: declared after its parent, so that it is destroyed first; otherwise the engine
    // would delete it as its child. The engine may evaluate the kernelData binding once more
    // without it and print a TypeError, which is harmless.
    // (tests/faults: window-closed-when-idle)
    FileIO fileIO(&engine);
    engine.rootContext()->setContextProperty(QStringLiteral("fileIO"), &fileIO);
    engine.load(screenUrl(kUpdateScreen));
    if (engine.rootObjects().isEmpty())
        return -1;
    return QGuiApplication::exec();
}

int runStatusScreen(int &argc, char **argv)
{
    QGuiApplication app(argc, argv);
    QQuickView view;
    view.setSource(screenUrl(kStatusScreen));
    // QGuiApplication has removed its own options from argv. When no argument is left, argv[1] is
    // null and the mode is empty.
    setStatusMode(view, QString::fromUtf8(argv[1]));
    view.show();
    return QGuiApplication::exec();
}

int showTip(char ** /*argv*/)
{
    QQuickView view;
    view.setSource(screenUrl(kStatusScreen));
    view.resize(kPortraitDisplay);
    AppTransform transform(kLandscapeScene);
    transform.appendToItem(view.rootObject());
    setStatusMode(view, QStringLiteral("0000"));
    view.show();
    return 0;
}
