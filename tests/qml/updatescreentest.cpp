#include "updatescreentest.h"

#include <QtTest>

QString installCommand(const QString &path)
{
    return QStringLiteral("opkg install --force-downgrade --force-reinstall --force-overwrite ")
        + path;
}

QString listCall(const char *pattern)
{
    return QStringLiteral("getIpkList(\"%1\")").arg(QString::fromLatin1(pattern));
}

QString exeCall(const char *command)
{
    return QStringLiteral("exe(\"%1\")").arg(QString::fromLatin1(command));
}

QString installCall(const QString &path, int index)
{
    return QStringLiteral("threadExe(\"%1\", %2)").arg(installCommand(path)).arg(index);
}

namespace {

QStringList packages(const QString &directory, int count)
{
    QStringList paths;
    for (int i = 0; i < count; ++i)
        paths.append(QStringLiteral("%1/%2.ipk").arg(directory).arg(i));
    return paths;
}

} // namespace

QStringList UpdateScreenTest::stagedPackages(int count)
{
    return packages(QStringLiteral("/tmp/ota"), count);
}

QStringList UpdateScreenTest::stickPackages(int count)
{
    return packages(QStringLiteral("/mnt/nand_disk/update_ipk"), count);
}

void UpdateScreenTest::load()
{
    m_screen = std::make_unique<UpdateScreen>(*m_bridge);
}

void UpdateScreenTest::loadInstalling(int count)
{
    m_bridge->setLists(kStaged, {stagedPackages(count)});
    load();
    QVERIFY(awaitInstall(stagedPackages(1).first(), 0));
    m_bridge->takeCalls();
}

void UpdateScreenTest::installPackages(int first, int last)
{
    for (int i = first; i <= last; ++i)
        emit m_bridge->threadExeFinish(0, i);
}

bool UpdateScreenTest::awaitInstall(const QString &path, int index) const
{
    constexpr int kHangMs = 10000;
    return QTest::qWaitFor([&] { return m_bridge->calls().contains(installCall(path, index)); },
                           kHangMs);
}

void UpdateScreenTest::compareTips(const Tips &tips) const
{
    const QColor color(QString::fromLatin1(tips.color));
    QCOMPARE(m_screen->text("tip_en"), QString::fromUtf8(tips.english));
    QCOMPARE(m_screen->text("tip_cn"), QString::fromUtf8(tips.chinese));
    QCOMPARE(m_screen->color("tip_en"), color);
    QCOMPARE(m_screen->color("tip_cn"), color);
}

void UpdateScreenTest::init()
{
    m_bridge = std::make_unique<RecordingBridge>();
    m_console = std::make_unique<MessageCapture>();
}

void UpdateScreenTest::cleanup()
{
    m_screen.reset();
    const QStringList messages = m_console->messages();
    m_console.reset();
    m_bridge.reset();
    for (const QString &message : messages) {
        if (!message.startsWith(QLatin1String("ota====="))
            && !message.startsWith(QLatin1String("result: ")))
            QFAIL(qPrintable(QStringLiteral("unexpected message: ") + message));
    }
}
