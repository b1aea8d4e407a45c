#include "updatescreentest.h"

#include <QQmlContext>
#include <QtTest>

/// What starts an update, and how.
class TestMainStart : public UpdateScreenTest {
    Q_OBJECT

private slots:
    void nothingAnywhereWaitsForTheButton();
    void buttonIsDisabledWhileTheScreenListsThePackages();
    void stagedPackagesInstallByThemselves();
    void firstPackageIsNotInstalledBeforeTheTimer();
    void timerFiresOnceAfterHalfASecond();
    void stickPackagesWaitForTheButton();
    void buttonCopiesTheStickAndInstallsTheCopies();
    void stagedPackagesAreNotCopiedAgain();

    void secondStartGoesOnFromTheFirst();
};

void TestMainStart::nothingAnywhereWaitsForTheButton()
{
    load();
    QCOMPARE(m_bridge->calls(), QStringList({listCall(kStaged), listCall(kStick)}));
    QCOMPARE(m_screen->rootValue("formOta"), QVariant(false));
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(true));
    QCOMPARE(m_screen->value("threadTimer", "running"), QVariant(false));
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(false));
    QCOMPARE(m_screen->value("progress", "value").toDouble(), 0.0);
    QCOMPARE(m_screen->rowTexts(), QStringList());
    compareTips(kNoTips);
}

void TestMainStart::buttonIsDisabledWhileTheScreenListsThePackages()
{
    m_bridge->setLists(kStaged, {stagedPackages(1)});
    QStringList seen;
    m_bridge->onCall = [&](const QString &) {
        const QObject *window = QGuiApplication::allWindows().value(0);
        const auto button = qmlContext(window)->contextProperty(QStringLiteral("udisk"));
        seen.append(QStringLiteral("button %1, console lines %2")
                        .arg(button.value<QObject *>()->property("enabled").toString())
                        .arg(m_console->messages().size()));
    };
    load();
    // By the second call the screen has reported what it found and started.
    QCOMPARE(seen.mid(0, 2),
             QStringList({QStringLiteral("button false, console lines 0"),
                          QStringLiteral("button true, console lines 1")}));
}

void TestMainStart::stagedPackagesInstallByThemselves()
{
    m_bridge->setLists(kStaged, {stagedPackages(1)});
    load();
    QCOMPARE(m_screen->rootValue("formOta"), QVariant(true));
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(false));
    compareTips(kStarted);
    QVERIFY(awaitInstall(stagedPackages(1).first(), 0));
    QCOMPARE(m_bridge->calls(),
             QStringList({
                 listCall(kStaged), // at completion
                 listCall(kStaged), // at the start
                 listCall(kStaged), // by the timer
                 installCall(QStringLiteral("/tmp/ota/0.ipk"), 0),
             }));
}

void TestMainStart::firstPackageIsNotInstalledBeforeTheTimer()
{
    m_bridge->setLists(kStaged, {stagedPackages(1)});
    bool timerWasRunning = true;
    m_bridge->onCall = [&](const QString &call) {
        if (call.startsWith(QLatin1String("threadExe")))
            timerWasRunning = m_screen->value("threadTimer", "running").toBool();
    };
    load();
    QVERIFY(m_screen->value("threadTimer", "running").toBool());
    QVERIFY(awaitInstall(stagedPackages(1).first(), 0));
    QVERIFY(!timerWasRunning);
}

void TestMainStart::timerFiresOnceAfterHalfASecond()
{
    load();
    QCOMPARE(m_screen->value("threadTimer", "interval"), QVariant(500));
    QCOMPARE(m_screen->value("threadTimer", "repeat"), QVariant(false));
    QCOMPARE(m_screen->value("threadTimer", "triggeredOnStart"), QVariant(false));
}

void TestMainStart::stickPackagesWaitForTheButton()
{
    m_bridge->setLists(kStick, {stickPackages(2)});
    load();
    QCOMPARE(m_bridge->calls(), QStringList({listCall(kStaged), listCall(kStick)}));
    QCOMPARE(m_screen->rootValue("formOta"), QVariant(false));
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(true));
    QCOMPARE(m_screen->value("threadTimer", "running"), QVariant(false));
    QCOMPARE(m_screen->rowTexts(),
             QStringList({QStringLiteral("0.ipk wait"), QStringLiteral("1.ipk wait")}));
    compareTips(kNoTips);
}

void TestMainStart::buttonCopiesTheStickAndInstallsTheCopies()
{
    m_bridge->setLists(kStick, {stickPackages(2)});
    m_bridge->setLists(kStaged, {{}, {}, stagedPackages(2)});
    load();
    m_bridge->takeCalls();

    m_screen->clickButton();
    QCOMPARE(m_bridge->takeCalls(),
             QStringList({listCall(kStaged), listCall(kStick), listCall(kBoardImages)}));
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(false));
    compareTips(kStarted);

    QVERIFY(awaitInstall(stagedPackages(1).first(), 0));
    QCOMPARE(m_bridge->calls(),
             QStringList({
                 exeCall("mkdir /tmp/ota"),
                 exeCall("cp /mnt/nand_disk/update_ipk/*.ipk /tmp/ota/ -rf"),
                 listCall(kStaged),
                 installCall(QStringLiteral("/tmp/ota/0.ipk"), 0),
             }));
    QCOMPARE(m_screen->rootValue("ipkList").toStringList(), stagedPackages(2));
}

void TestMainStart::stagedPackagesAreNotCopiedAgain()
{
    m_bridge->setLists(kStick, {stickPackages(2)});
    loadInstalling(1);
    installPackages(0, 0);
    for (const QString &call : m_bridge->calls())
        QVERIFY2(!call.contains(QLatin1String("/tmp/ota ")), qPrintable(call));
    QVERIFY(!m_bridge->calls().contains(exeCall("mkdir /tmp/ota")));
    QVERIFY(!m_bridge->calls().contains(listCall(kStick)));
}

void TestMainStart::secondStartGoesOnFromTheFirst()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    loadInstalling(2);
    installPackages(0, 1);
    m_bridge->takeCalls();
    // The staging directory was emptied meanwhile, and a stick with more packages put in.
    m_bridge->setLists(kStaged, {{}});
    m_bridge->setLists(kStick, {stickPackages(3)});
    QVERIFY(QMetaObject::invokeMethod(m_screen->window(), "startOta"));

    QCOMPARE(m_screen->rootValue("formOta"), QVariant(true));
    QCOMPARE(m_screen->rootValue("step"), QVariant(1));
    QCOMPARE(m_screen->rowTexts(),
             QStringList({QStringLiteral("0.ipk ok"), QStringLiteral("1.ipk ok"),
                          QStringLiteral("2.ipk wait")}));
    QCOMPARE(m_screen->value("progress", "value").toDouble(), 3.0);
    QCOMPARE(m_screen->value("progress", "to").toDouble(), 4.0);
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(true));
    QCOMPARE(m_screen->pixelSize("tip_en"), 16);
    compareTips(kStarted);

    double progressAtInstall = 0;
    m_bridge->onCall = [&](const QString &) {
        progressAtInstall = m_screen->value("progress", "value").toDouble();
    };
    QVERIFY(awaitInstall(QStringLiteral("undefined"), 0));
    QCOMPARE(progressAtInstall, 3.0);
    QCOMPARE(m_bridge->calls(),
             QStringList({listCall(kStaged), listCall(kStick), listCall(kStaged),
                          installCall(QStringLiteral("undefined"), 0)}));
    QCOMPARE(m_screen->value("progress", "value").toDouble(), 0.0);
}

QTEST_MAIN(TestMainStart)
#include "tst_main_start.moc"
