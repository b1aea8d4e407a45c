#include "fileio.h"
#include "updatescreentest.h"

#include <QQmlComponent>
#include <QQmlContext>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <thread>

namespace {

QString latin1(const char *text)
{
    return QString::fromLatin1(text);
}

} // namespace

/// The workflow of the update screen: which calls it makes, in which order, and what it shows
/// meanwhile. The bridge's answers are the test's.
class TestMain : public UpdateScreenTest {
    Q_OBJECT

private slots:
    void recordingBridgeHasTheSignaturesOfTheRealOne();
    void initialProperties();
    void propertyTypes_data();
    void propertyTypes();

    void nothingAnywhereWaitsForTheButton();
    void buttonIsDisabledWhileTheScreenListsThePackages();
    void stagedPackagesInstallByThemselves();
    void firstPackageIsNotInstalledBeforeTheTimer();
    void timerFiresOnceAfterHalfASecond();
    void stickPackagesWaitForTheButton();
    void buttonCopiesTheStickAndInstallsTheCopies();
    void stagedPackagesAreNotCopiedAgain();

    void wholeRunInOrder();
    void screenIsUpToDateAtEachCall();
    void resultFromAWorkerThreadIsHandledOnTheGuiThread();
    void progressGrowsByOneAPackage();
    void rowsTurnOkInOrder();
    void consoleLines();

    void failedPackageEndsTheRun_data();
    void failedPackageEndsTheRun();
    void failedCopyInstallsUndefined();
    void noPackageLeavesTheButtonForAnotherTry();
    void buttonIsDeadWhileInstalling();

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

    void secondStartGoesOnFromTheFirst();
    void listShowsFileNamesOnly();
    void namesAreAssignedAtOnce();
    void oneWaitStateAPackage();
    void shrinkingListPrintsNoWarning();
    void threeHundredPackages();
};

void TestMain::recordingBridgeHasTheSignaturesOfTheRealOne()
{
    const QMetaObject &recorder = RecordingBridge::staticMetaObject;
    const QMetaObject &real = FileIO::staticMetaObject;
    for (int i = recorder.methodOffset(); i < recorder.methodCount(); ++i) {
        const QMetaMethod method = recorder.method(i);
        const int index = real.indexOfMethod(method.methodSignature().constData());
        QVERIFY2(index >= 0, method.methodSignature().constData());
        QCOMPARE(real.method(index).methodType(), method.methodType());
        QCOMPARE(real.method(index).returnType(), method.returnType());
    }
    for (int i = recorder.propertyOffset(); i < recorder.propertyCount(); ++i) {
        const QMetaProperty property = recorder.property(i);
        const int index = real.indexOfProperty(property.name());
        QVERIFY2(index >= 0, property.name());
        QCOMPARE(real.property(index).userType(), property.userType());
        QCOMPARE(real.property(index).notifySignal().methodSignature(),
                 property.notifySignal().methodSignature());
    }
}

void TestMain::initialProperties()
{
    QQmlEngine engine;
    engine.rootContext()->setContextProperty(QStringLiteral("fileIO"), m_bridge.get());
    QQmlComponent component(&engine, QUrl(QStringLiteral("qrc:/main.qml")));
    const std::unique_ptr<QObject> root(component.beginCreate(engine.rootContext()));
    QVERIFY2(root, qPrintable(component.errorString()));

    QCOMPARE(root->property("step"), QVariant(-1));
    QVERIFY(!root->property("ipkList").isValid());
    QVERIFY(!root->property("ipkPkgName").isValid());
    QCOMPARE(root->property("thisIndex"), QVariant(0));
    QCOMPARE(root->property("formOta"), QVariant(false));
    QCOMPARE(root->property("isStart"), QVariant(false));
    QCOMPARE(m_bridge->calls(), QStringList());

    component.completeCreate();
    QCOMPARE(root->property("ipkListState").toList(), QVariantList());
    QCOMPARE(root->property("ipkPkgName").toList(), QVariantList());
}

void TestMain::propertyTypes_data()
{
    QTest::addColumn<QString>("property");
    QTest::addColumn<QString>("type");
    QTest::newRow("step") << latin1("step") << latin1("int");
    QTest::newRow("ipkList") << latin1("ipkList") << latin1("QVariant");
    QTest::newRow("ipkPkgName") << latin1("ipkPkgName") << latin1("QVariant");
    QTest::newRow("ipkListState") << latin1("ipkListState") << latin1("QVariant");
    QTest::newRow("thisIndex") << latin1("thisIndex") << latin1("int");
    QTest::newRow("formOta") << latin1("formOta") << latin1("bool");
    QTest::newRow("isStart") << latin1("isStart") << latin1("bool");
}

void TestMain::propertyTypes()
{
    QFETCH(QString, property);
    QFETCH(QString, type);
    load();
    const QMetaObject *meta = m_screen->window()->metaObject();
    const int index = meta->indexOfProperty(property.toLatin1().constData());
    QVERIFY(index >= 0);
    QCOMPARE(latin1(meta->property(index).typeName()), type);
}

void TestMain::nothingAnywhereWaitsForTheButton()
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

void TestMain::buttonIsDisabledWhileTheScreenListsThePackages()
{
    m_bridge->setLists(latin1(kStaged), {stagedPackages(1)});
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

void TestMain::stagedPackagesInstallByThemselves()
{
    m_bridge->setLists(latin1(kStaged), {stagedPackages(1)});
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

void TestMain::firstPackageIsNotInstalledBeforeTheTimer()
{
    m_bridge->setLists(latin1(kStaged), {stagedPackages(1)});
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

void TestMain::timerFiresOnceAfterHalfASecond()
{
    load();
    QCOMPARE(m_screen->value("threadTimer", "interval"), QVariant(500));
    QCOMPARE(m_screen->value("threadTimer", "repeat"), QVariant(false));
    QCOMPARE(m_screen->value("threadTimer", "triggeredOnStart"), QVariant(false));
}

void TestMain::stickPackagesWaitForTheButton()
{
    m_bridge->setLists(latin1(kStick), {stickPackages(2)});
    load();
    QCOMPARE(m_bridge->calls(), QStringList({listCall(kStaged), listCall(kStick)}));
    QCOMPARE(m_screen->rootValue("formOta"), QVariant(false));
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(true));
    QCOMPARE(m_screen->value("threadTimer", "running"), QVariant(false));
    QCOMPARE(m_screen->rowTexts(),
             QStringList({QStringLiteral("0.ipk wait"), QStringLiteral("1.ipk wait")}));
    compareTips(kNoTips);
}

void TestMain::buttonCopiesTheStickAndInstallsTheCopies()
{
    m_bridge->setLists(latin1(kStick), {stickPackages(2)});
    m_bridge->setLists(latin1(kStaged), {{}, {}, stagedPackages(2)});
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

void TestMain::stagedPackagesAreNotCopiedAgain()
{
    m_bridge->setLists(latin1(kStick), {stickPackages(2)});
    loadInstalling(1);
    installPackages(0, 0);
    for (const QString &call : m_bridge->calls())
        QVERIFY2(!call.contains(QLatin1String("/tmp/ota ")), qPrintable(call));
    QVERIFY(!m_bridge->calls().contains(exeCall("mkdir /tmp/ota")));
    QVERIFY(!m_bridge->calls().contains(listCall(kStick)));
}

void TestMain::wholeRunInOrder()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    loadInstalling(3);
    installPackages(0, 2);
    QCOMPARE(m_bridge->calls(),
             QStringList({
                 exeCall("sync"),
                 installCall(QStringLiteral("/tmp/ota/1.ipk"), 1),
                 exeCall("sync"),
                 installCall(QStringLiteral("/tmp/ota/2.ipk"), 2),
                 QStringLiteral("getMcuVersion()"),
                 exeCall("rm /root/*.txt"),
                 QStringLiteral("startMcuSoftwareUpdate()"),
                 QStringLiteral("updateMcu()"),
                 exeCall("rm /root/mcu/*"),
             }));
}

void TestMain::screenIsUpToDateAtEachCall()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    QStringList seen;
    m_bridge->setLists(latin1(kStaged), {stagedPackages(2)});
    load();
    m_bridge->onCall = [&](const QString &call) {
        seen.append(
            QStringLiteral("%1: step %2, progress %3/%4, %5, %6 px, button %7, success %8")
                .arg(call.section(QLatin1Char('('), 0, 0), m_screen->rootValue("step").toString(),
                     m_screen->value("progress", "value").toString(),
                     m_screen->value("progress", "to").toString(), m_screen->color("tip_en").name(),
                     QString::number(m_screen->pixelSize("tip_cn")),
                     m_screen->value("udisk", "enabled").toString(),
                     m_screen->value("successTip", "visible").toString()));
    };
    QVERIFY(awaitInstall(stagedPackages(1).first(), 0));
    installPackages(0, 1);
    const auto during = [](const char *call, const char *state) {
        return QStringLiteral("%1: %2, button false, success false")
            .arg(latin1(call), latin1(state));
    };
    QCOMPARE(seen,
             QStringList({
                 during("getIpkList", "step -1, progress 0/3, #ffffff, 14 px"),
                 during("threadExe", "step -1, progress 0/3, #ffffff, 14 px"),
                 during("exe", "step 0, progress 1/3, #ffffff, 14 px"),
                 during("threadExe", "step 0, progress 1/3, #ffffff, 14 px"),
                 during("getMcuVersion", "step 1, progress 2/3, #ffffff, 14 px"),
                 during("exe", "step 1, progress 2/3, #ffffff, 14 px"),
                 during("startMcuSoftwareUpdate", "step 1, progress 2/3, #ffffff, 14 px"),
                 during("updateMcu", "step 1, progress 2/3, #ffffff, 14 px"),
                 during("exe", "step 1, progress 3/3, #008000, 16 px"),
             }));
}

void TestMain::resultFromAWorkerThreadIsHandledOnTheGuiThread()
{
    loadInstalling(2);
    bool onGuiThread = false;
    m_bridge->onCall = [&](const QString &) {
        onGuiThread = QThread::currentThread() == QCoreApplication::instance()->thread();
    };
    std::thread worker([this] { emit m_bridge->threadExeFinish(0, 0); });
    worker.join();
    QCOMPARE(m_bridge->calls(), QStringList()); // still in the event queue
    QVERIFY(awaitInstall(stagedPackages(2).last(), 1));
    QVERIFY(onGuiThread);
}

void TestMain::progressGrowsByOneAPackage()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    loadInstalling(3);
    QCOMPARE(m_screen->value("progress", "from").toDouble(), 0.0);
    QCOMPARE(m_screen->value("progress", "to").toDouble(), 4.0);
    QCOMPARE(m_screen->value("progress", "value").toDouble(), 0.0);
    QCOMPARE(m_screen->value("progress", "visualPosition").toDouble(), 0.0);
    installPackages(0, 0);
    QCOMPARE(m_screen->value("progress", "value").toDouble(), 1.0);
    QCOMPARE(m_screen->value("progress", "visualPosition").toDouble(), 0.25);
    installPackages(1, 1);
    QCOMPARE(m_screen->value("progress", "value").toDouble(), 2.0);
    QCOMPARE(m_screen->value("progress", "visualPosition").toDouble(), 0.5);
    installPackages(2, 2);
    QCOMPARE(m_screen->value("progress", "value").toDouble(), 4.0);
    QCOMPARE(m_screen->value("progress", "visualPosition").toDouble(), 1.0);
}

void TestMain::rowsTurnOkInOrder()
{
    loadInstalling(3);
    for (int installed = 0; installed <= 3; ++installed) {
        if (installed > 0)
            installPackages(installed - 1, installed - 1);
        QCOMPARE(m_screen->rootValue("step").toInt(), installed - 1);
        const QList<PackageRow> rows = m_screen->rows();
        QCOMPARE(rows.size(), 3);
        for (int i = 0; i < rows.size(); ++i) {
            const bool done = i < installed;
            QCOMPARE(rows.at(i).name, QStringLiteral("%1.ipk").arg(i));
            QCOMPARE(rows.at(i).nameColor, QColor(Qt::white));
            QCOMPARE(rows.at(i).state, done ? latin1("ok") : latin1("wait"));
            QCOMPARE(rows.at(i).stateColor, QColor(done ? latin1("green") : latin1("yellow")));
        }
    }
}

void TestMain::consoleLines()
{
    loadInstalling(2);
    installPackages(0, 0);
    emit m_bridge->threadExeFinish(256, 1);
    QCOMPARE(m_console->messages(),
             QStringList({
                 QStringLiteral("ota================= true"),
                 QStringLiteral("result: 0    index: 0  ipkList.length: 2"),
                 QStringLiteral("result: 256    index: 1  ipkList.length: 2"),
             }));
}

void TestMain::failedPackageEndsTheRun_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("result");
    QTest::newRow("first, exit code 1") << 0 << 256;
    QTest::newRow("second, exit code 255") << 1 << 65280;
    QTest::newRow("last, no shell") << 2 << -1;
    QTest::newRow("last, killed") << 2 << 9;
}

void TestMain::failedPackageEndsTheRun()
{
    QFETCH(int, index);
    QFETCH(int, result);
    m_bridge->version = QStringLiteral("V4.1.3");
    loadInstalling(3);
    installPackages(0, index - 1);
    m_bridge->takeCalls();

    emit m_bridge->threadExeFinish(result, index);
    compareTips(kPackageFailed);
    QCOMPARE(m_screen->pixelSize("tip_en"), 14);
    QCOMPARE(m_screen->rootValue("step").toInt(), index - 1);
    QCOMPARE(m_screen->value("progress", "value").toInt(), index);
    for (int i = 0; i < 3; ++i)
        QCOMPARE(m_screen->rows().at(i).state, i < index ? latin1("ok") : latin1("wait"));
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(false));
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(false));
    QCOMPARE(m_screen->value("threadTimer", "running"), QVariant(false));

    m_screen->clickButton();
    QCOMPARE(m_bridge->calls(), QStringList());
}

void TestMain::failedCopyInstallsUndefined()
{
    const QString undefined = QStringLiteral("undefined");
    m_bridge->setLists(latin1(kStick), {stickPackages(1)});
    load();
    m_screen->clickButton();
    m_bridge->takeCalls();
    QVERIFY(awaitInstall(undefined, 0));
    QCOMPARE(m_bridge->calls().mid(2), QStringList({listCall(kStaged), installCall(undefined, 0)}));

    emit m_bridge->threadExeFinish(65280, 0);
    compareTips(kPackageFailed);
    QCOMPARE(m_console->messages().last(),
             QStringLiteral("result: 65280    index: 0  ipkList.length: 0"));
}

void TestMain::noPackageLeavesTheButtonForAnotherTry()
{
    m_bridge->setLists(latin1(kStick), {{}, {}, stickPackages(1)});
    m_bridge->setLists(latin1(kStaged), {{}, {}, {}, stagedPackages(1)});
    load();
    m_bridge->takeCalls();

    m_screen->clickButton();
    QCOMPARE(m_bridge->calls(),
             QStringList({listCall(kStaged), listCall(kStick), listCall(kBoardImages)}));
    compareTips(kNoPackage);
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(true));
    QCOMPARE(m_screen->value("threadTimer", "running"), QVariant(false));

    m_screen->clickButton();
    compareTips(kStarted);
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(false));
    QVERIFY(awaitInstall(stagedPackages(1).first(), 0));
}

void TestMain::buttonIsDeadWhileInstalling()
{
    loadInstalling(1);
    m_screen->clickButton();
    QCOMPARE(m_bridge->calls(), QStringList());
    compareTips(kStarted);
}

void TestMain::silentBoardLeavesTipsAndProgress()
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

void TestMain::v4AnywhereInTheVersionTakesTheFirmware_data()
{
    QTest::addColumn<QString>("version");
    QTest::newRow("at the start") << latin1("V4.1.3");
    QTest::newRow("in the middle") << latin1("ABC-V41");
    QTest::newRow("at the end") << latin1("K7 V4");
    QTest::newRow("twice") << latin1("V4V4");
}

void TestMain::v4AnywhereInTheVersionTakesTheFirmware()
{
    QFETCH(QString, version);
    m_bridge->version = version;
    loadInstalling(1);
    installPackages(0, 0);
    QCOMPARE(m_bridge->calls(),
             QStringList({
                 QStringLiteral("getMcuVersion()"),
                 exeCall("rm /root/*.txt"),
                 QStringLiteral("startMcuSoftwareUpdate()"),
                 QStringLiteral("updateMcu()"),
                 exeCall("rm /root/mcu/*"),
             }));
}

void TestMain::otherBoardsAreHandedOver_data()
{
    QTest::addColumn<QString>("version");
    QTest::newRow("V3") << latin1("V3.2.1");
    QTest::newRow("lower case") << latin1("v4.1.3");
    QTest::newRow("apart") << latin1("V.4");
    QTest::newRow("one blank") << latin1(" ");
}

void TestMain::otherBoardsAreHandedOver()
{
    QFETCH(QString, version);
    m_bridge->version = version;
    loadInstalling(1);
    installPackages(0, 0);
    QCOMPARE(m_bridge->calls(),
             QStringList({
                 QStringLiteral("getMcuVersion()"),
                 exeCall("/root/Hmi -path=/root"),
                 exeCall("rm /root/mcu/*"),
             }));
    compareTips(kSuccess);
}

void TestMain::negativeFirmwareResultIsShown_data()
{
    QTest::addColumn<int>("result");
    QTest::newRow("-1") << -1;
    QTest::newRow("-27") << -27;
}

void TestMain::negativeFirmwareResultIsShown()
{
    QFETCH(int, result);
    m_bridge->version = QStringLiteral("V4.1.3");
    m_bridge->updateResult = result;
    loadInstalling(1);
    installPackages(0, 0);
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

void TestMain::negativeHandOverResultIsShown()
{
    m_bridge->version = QStringLiteral("V3.2.1");
    m_bridge->setStatus(QStringLiteral("/root/Hmi -path=/root"), -1);
    loadInstalling(1);
    installPackages(0, 0);
    QCOMPARE(m_bridge->calls().last(), exeCall("/root/Hmi -path=/root"));
    compareTips(kBoardFailed);
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(false));
}

void TestMain::startResultIsIgnored()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    m_bridge->startResult = -3;
    loadInstalling(1);
    installPackages(0, 0);
    QVERIFY(m_bridge->calls().contains(QStringLiteral("updateMcu()")));
    compareTips(kSuccess);
}

void TestMain::positiveStatusIsSuccess_data()
{
    QTest::addColumn<QString>("version");
    QTest::newRow("hand-over that exits with 1") << latin1("V3.2.1");
    QTest::newRow("firmware result of 1") << latin1("V4.1.3");
}

void TestMain::positiveStatusIsSuccess()
{
    QFETCH(QString, version);
    m_bridge->version = version;
    m_bridge->updateResult = 1;
    m_bridge->setStatus(QStringLiteral("/root/Hmi -path=/root"), 256);
    loadInstalling(1);
    installPackages(0, 0);
    compareTips(kSuccess);
    QCOMPARE(m_bridge->calls().last(), exeCall("rm /root/mcu/*"));
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(true));
}

void TestMain::finishShowsSuccess()
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

void TestMain::boardImageRunsTheBoardAtOnce()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    m_bridge->setLists(latin1(kBoardImages), {{QStringLiteral("/mnt/update_ipk/app.bin")}});
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

void TestMain::boardImageFailureLeavesTheButton()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    m_bridge->updateResult = -1;
    m_bridge->setLists(latin1(kBoardImages), {{QStringLiteral("/mnt/update_ipk/app.bin")}});
    load();
    m_screen->clickButton();
    compareTips(kBoardFailed);
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(true));

    m_bridge->version.clear(); // a board that is gone leaves the texts of the new start
    m_screen->clickButton();
    compareTips(kNoPackage);
}

void TestMain::controlBoardRunsTwice()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    m_bridge->setLists(latin1(kBoardImages), {{QStringLiteral("/mnt/update_ipk/app.bin")}});
    m_bridge->setLists(latin1(kStick), {stickPackages(1)});
    m_bridge->setLists(latin1(kStaged), {{}, {}, stagedPackages(1)});
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

void TestMain::secondStartGoesOnFromTheFirst()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    loadInstalling(2);
    installPackages(0, 1);
    m_bridge->takeCalls();
    // The staging directory was emptied meanwhile, and a stick with more packages put in.
    m_bridge->setLists(latin1(kStaged), {{}});
    m_bridge->setLists(latin1(kStick), {stickPackages(3)});
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

void TestMain::listShowsFileNamesOnly()
{
    const QTemporaryDir stick;
    const QStringList names{QStringLiteral("app_1.0.ipk"), QStringLiteral("b c.ipk"),
                            QStringLiteral("咖啡.ipk")};
    for (const QString &name : names) {
        QFile file(stick.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    // With paths, and without, as of a folder that is named like a package.
    FileIO bridge;
    m_bridge->setLists(latin1(kStick),
                       {bridge.getIpkList(stick.filePath(QStringLiteral("*.ipk")))
                        + bridge.getIpkList(stick.path())});
    load();
    QStringList rows;
    for (const QString &name : names)
        rows.append(QString::fromLatin1(name.toUtf8()) + QStringLiteral(" wait"));
    QCOMPARE(m_screen->rowTexts(), rows + rows);
}

void TestMain::namesAreAssignedAtOnce()
{
    m_bridge->setLists(latin1(kStick), {stickPackages(20)});
    load();
    QSignalSpy assignments(m_screen->window(), SIGNAL(ipkPkgNameChanged()));
    QVERIFY(assignments.isValid());
    QVERIFY(QMetaObject::invokeMethod(m_screen->window(), "getPkgs"));
    QCOMPARE(assignments.count(), 2); // emptied, filled
    QCOMPARE(m_screen->rows().size(), 20);
}

void TestMain::oneWaitStateAPackage()
{
    loadInstalling(3);
    const QStringList waiting{QStringLiteral("wait"), QStringLiteral("wait"),
                              QStringLiteral("wait")};
    QCOMPARE(m_screen->rootValue("ipkListState").toStringList(), waiting);
    installPackages(0, 2);
    QCOMPARE(m_screen->rootValue("ipkListState").toStringList(), waiting);
}

void TestMain::shrinkingListPrintsNoWarning()
{
    m_bridge->setLists(latin1(kStick), {stickPackages(9), stickPackages(2), {}, stickPackages(5)});
    load();
    for (const int expected : {2, 0, 5}) {
        QVERIFY(QMetaObject::invokeMethod(m_screen->window(), "getPkgs"));
        QCOMPARE(m_screen->rows().size(), expected);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
    }
    QCOMPARE(m_console->messages(), QStringList({QStringLiteral("ota================= false")}));
}

void TestMain::threeHundredPackages()
{
    m_bridge->version = QStringLiteral("V4.1.3");
    loadInstalling(300);
    QCOMPARE(m_screen->rows().size(), 300);
    installPackages(0, 299);
    QCOMPARE(m_bridge->calls().filter(QLatin1String("threadExe(")).size(), 299);
    QCOMPARE(m_screen->rowTexts().filter(QRegularExpression(QStringLiteral(" ok$"))).size(), 300);
    QCOMPARE(m_screen->value("progress", "visualPosition").toDouble(), 1.0);
    compareTips(kSuccess);
}

QTEST_MAIN(TestMain)
#include "tst_main.moc"
