#include "updatescreentest.h"

#include <QtTest>

/// The part of the control board in the workflow of the update screen.
class TestMainBoard : public UpdateScreenTest {
    Q_OBJECT

private slots:
    void silentBoardLeavesTipsAndProgress();
    void v4AnywhereInTheVersionTakesTheFirmware_data();
    void v4AnywhereInTheVersionTakesTheFirmware();
    void otherBoardsAreHandedOver_data();
    void otherBoardsAreHandedOver();
    void negativeFirmwareResultIsShown_data();
    void negativeFirmwareResultIsShown();
    void negativeHandOverResultIsShown();
    void startResultIsIgnored();
    void positiveStatusIsSuccess_data();
    void positiveStatusIsSuccess();
    void finishShowsSuccess();

    void boardImageRunsTheBoardAtOnce();
    void boardImageFailureLeavesTheButton();
    void controlBoardRunsTwice();

private:
    /// Installs one package, and with it updates a board of this version.
    void installOne(const QString &version);
};

void TestMainBoard::installOne(const QString &version)
{
    m_bridge->version = version;
    loadInstalling(1);
    installPackages(0, 0);
}

void TestMainBoard::silentBoardLeavesTipsAndProgress()
{
    loadInstalling(2);
    installPackages(0, 0);
    m_bridge->takeCalls();
    installPackages(1, 1);
    QCOMPARE(m_bridge->calls(), QStringList({QStringLiteral("getMcuVersion()")}));
    compareTips(kStarted);
    QCOMPARE(m_screen->value("progress", "value").toDouble(), 2.0);
    QCOMPARE(m_screen->value("progress", "to").toDouble(), 3.0);
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(false));
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(false));
}

void TestMainBoard::v4AnywhereInTheVersionTakesTheFirmware_data()
{
    QTest::addColumn<QString>("version");
    QTest::newRow("at the start") << QStringLiteral("V4.1.3");
    QTest::newRow("in the middle") << QStringLiteral("ABC-V41");
    QTest::newRow("at the end") << QStringLiteral("K7 V4");
    QTest::newRow("twice") << QStringLiteral("V4V4");
}

void TestMainBoard::v4AnywhereInTheVersionTakesTheFirmware()
{
    QFETCH(QString, version);
    installOne(version);
    QCOMPARE(m_bridge->calls(),
             QStringList({
                 QStringLiteral("getMcuVersion()"),
                 exeCall("rm /root/*.txt"),
                 QStringLiteral("startMcuSoftwareUpdate()"),
                 QStringLiteral("updateMcu()"),
                 exeCall("rm /root/mcu/*"),
             }));
}

void TestMainBoard::otherBoardsAreHandedOver_data()
{
    QTest::addColumn<QString>("version");
    QTest::newRow("V3") << QStringLiteral("V3.2.1");
    QTest::newRow("lower case") << QStringLiteral("v4.1.3");
    QTest::newRow("apart") << QStringLiteral("V.4");
    QTest::newRow("one blank") << QStringLiteral(" ");
}

void TestMainBoard::otherBoardsAreHandedOver()
{
    QFETCH(QString, version);
    installOne(version);
    QCOMPARE(m_bridge->calls(),
             QStringList({
                 QStringLiteral("getMcuVersion()"),
                 exeCall("/root/Hmi -path=/root"),
                 exeCall("rm /root/mcu/*"),
             }));
    compareTips(kSuccess);
}

void TestMainBoard::negativeFirmwareResultIsShown_data()
{
    QTest::addColumn<int>("result");
    QTest::newRow("-1") << -1;
    QTest::newRow("-27") << -27;
}

void TestMainBoard::negativeFirmwareResultIsShown()
{
    QFETCH(int, result);
    m_bridge->updateResult = result;
    installOne(QStringLiteral("V4.1.3"));
    QCOMPARE(m_bridge->calls().last(), QStringLiteral("updateMcu()"));
    QCOMPARE(m_screen->text("tip_en"),
             QStringLiteral("Update Control Software Filed,Error Code[%1]").arg(result));
    QCOMPARE(m_screen->text("tip_cn"),
             QStringLiteral("升级主控板软件失败, 错误码[%1]").arg(result));
    QCOMPARE(m_screen->color("tip_en"), QColor(Qt::red));
    QCOMPARE(m_screen->color("tip_cn"), QColor(Qt::red));
    QCOMPARE(m_screen->pixelSize("tip_en"), 14);
    QCOMPARE(m_screen->value("progress", "value").toDouble(), 1.0);
    QCOMPARE(m_screen->value("progress", "to").toDouble(), 2.0);
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(false));
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(false));
}

void TestMainBoard::negativeHandOverResultIsShown()
{
    m_bridge->setStatus(QStringLiteral("/root/Hmi -path=/root"), -1);
    installOne(QStringLiteral("V3.2.1"));
    QCOMPARE(m_bridge->calls().last(), exeCall("/root/Hmi -path=/root"));
    compareTips(kBoardFailed);
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(false));
}

void TestMainBoard::startResultIsIgnored()
{
    m_bridge->startResult = -3;
    installOne(QStringLiteral("V4.1.3"));
    QVERIFY(m_bridge->calls().contains(QStringLiteral("updateMcu()")));
    compareTips(kSuccess);
}

void TestMainBoard::positiveStatusIsSuccess_data()
{
    QTest::addColumn<QString>("version");
    QTest::newRow("hand-over that exits with 1") << QStringLiteral("V3.2.1");
    QTest::newRow("firmware result of 1") << QStringLiteral("V4.1.3");
}

void TestMainBoard::positiveStatusIsSuccess()
{
    QFETCH(QString, version);
    m_bridge->updateResult = 1;
    m_bridge->setStatus(QStringLiteral("/root/Hmi -path=/root"), 256);
    installOne(version);
    compareTips(kSuccess);
    QCOMPARE(m_bridge->calls().last(), exeCall("rm /root/mcu/*"));
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(true));
}

void TestMainBoard::finishShowsSuccess()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    loadInstalling(2);
    QCOMPARE(m_screen->pixelSize("tip_en"), 14);
    QCOMPARE(m_screen->pixelSize("tip_cn"), 14);
    installPackages(0, 1);
    compareTips(kSuccess);
    QCOMPARE(m_screen->pixelSize("tip_en"), 16);
    QCOMPARE(m_screen->pixelSize("tip_cn"), 16);
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(true));
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(false));
    QCOMPARE(m_screen->value("progress", "value"), m_screen->value("progress", "to"));
}

void TestMainBoard::boardImageRunsTheBoardAtOnce()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    m_bridge->setLists(kBoardImages, {{QStringLiteral("/mnt/update_ipk/app.bin")}});
    load();
    m_bridge->takeCalls();
    QColor before;
    m_bridge->onCall = [&](const QString &call) {
        if (call == exeCall("mkdir -p /root/ota")) {
            compareTips(kNoPackage);
            before = m_screen->color("tip_en");
        }
    };

    m_screen->clickButton();
    QCOMPARE(m_bridge->calls(),
             QStringList({
                 listCall(kStaged),
                 listCall(kStick),
                 listCall(kBoardImages),
                 exeCall("mkdir -p /root/ota"),
                 exeCall("cp /mnt/update_ipk/app.bin /root/ota/app.bin"),
                 exeCall("sync"),
                 QStringLiteral("getMcuVersion()"),
                 exeCall("rm /root/*.txt"),
                 QStringLiteral("startMcuSoftwareUpdate()"),
                 QStringLiteral("updateMcu()"),
             }));
    QCOMPARE(before, QColor(Qt::yellow));
    compareTips(kSuccess);
    // The run as a whole is not finished by it.
    QCOMPARE(m_screen->pixelSize("tip_en"), 14);
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(false));
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(true));
    QCOMPARE(m_screen->value("progress", "value").toDouble(), 0.0);
}

void TestMainBoard::boardImageFailureLeavesTheButton()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    m_bridge->updateResult = -1;
    m_bridge->setLists(kBoardImages, {{QStringLiteral("/mnt/update_ipk/app.bin")}});
    load();
    m_screen->clickButton();
    compareTips(kBoardFailed);
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(true));

    m_bridge->version.clear(); // a board that is gone leaves the texts of the new start
    m_screen->clickButton();
    compareTips(kNoPackage);
}

void TestMainBoard::controlBoardRunsTwice()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    m_bridge->setLists(kBoardImages, {{QStringLiteral("/mnt/update_ipk/app.bin")}});
    m_bridge->setLists(kStick, {stickPackages(1)});
    m_bridge->setLists(kStaged, {{}, {}, stagedPackages(1)});
    load();
    m_bridge->takeCalls();

    m_screen->clickButton();
    QVERIFY(m_screen->value("threadTimer", "running").toBool());
    compareTips(kSuccess);
    QVERIFY(awaitInstall(stagedPackages(1).first(), 0));
    installPackages(0, 0);
    const QStringList board{QStringLiteral("getMcuVersion()"), exeCall("rm /root/*.txt"),
                            QStringLiteral("startMcuSoftwareUpdate()"),
                            QStringLiteral("updateMcu()")};
    QCOMPARE(
        m_bridge->calls(),
        QStringList({listCall(kStaged), listCall(kStick), listCall(kBoardImages),
                     exeCall("mkdir -p /root/ota"),
                     exeCall("cp /mnt/update_ipk/app.bin /root/ota/app.bin"), exeCall("sync")})
            + board
            + QStringList({exeCall("mkdir /tmp/ota"),
                           exeCall("cp /mnt/nand_disk/update_ipk/*.ipk /tmp/ota/ -rf"),
                           listCall(kStaged), installCall(QStringLiteral("/tmp/ota/0.ipk"), 0)})
            + board + QStringList({exeCall("rm /root/mcu/*")}));
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(true));
}

QTEST_MAIN(TestMainBoard)
#include "tst_main_board.moc"
