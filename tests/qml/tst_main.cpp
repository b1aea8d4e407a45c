#include "fileio.h"
#include "updatescreentest.h"

#include <QQmlComponent>
#include <QQmlContext>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <thread>

/// The workflow of the update screen: which calls it makes, in which order, and what it shows
/// meanwhile. The bridge's answers are the test's.
class TestMain : public UpdateScreenTest {
    Q_OBJECT

private slots:
    void recordingBridgeHasTheSignaturesOfTheRealOne();
    void initialProperties();
    void propertyTypes_data();
    void propertyTypes();

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
    QTest::newRow("step") << QStringLiteral("step") << QStringLiteral("int");
    QTest::newRow("ipkList") << QStringLiteral("ipkList") << QStringLiteral("QVariant");
    QTest::newRow("ipkPkgName") << QStringLiteral("ipkPkgName") << QStringLiteral("QVariant");
    QTest::newRow("ipkListState") << QStringLiteral("ipkListState") << QStringLiteral("QVariant");
    QTest::newRow("thisIndex") << QStringLiteral("thisIndex") << QStringLiteral("int");
    QTest::newRow("formOta") << QStringLiteral("formOta") << QStringLiteral("bool");
    QTest::newRow("isStart") << QStringLiteral("isStart") << QStringLiteral("bool");
}

void TestMain::propertyTypes()
{
    QFETCH(QString, property);
    QFETCH(QString, type);
    load();
    const QMetaObject *meta = m_screen->window()->metaObject();
    const int index = meta->indexOfProperty(property.toLatin1().constData());
    QVERIFY(index >= 0);
    QCOMPARE(QString::fromLatin1(meta->property(index).typeName()), type);
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
    m_bridge->setLists(kStaged, {stagedPackages(2)});
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
            .arg(QString::fromLatin1(call), QString::fromLatin1(state));
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
            QCOMPARE(rows.at(i).state, done ? QStringLiteral("ok") : QStringLiteral("wait"));
            QCOMPARE(rows.at(i).stateColor,
                     QColor(done ? QStringLiteral("green") : QStringLiteral("yellow")));
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
        QCOMPARE(m_screen->rows().at(i).state,
                 i < index ? QStringLiteral("ok") : QStringLiteral("wait"));
    QCOMPARE(m_screen->value("udisk", "enabled"), QVariant(false));
    QCOMPARE(m_screen->value("successTip", "visible"), QVariant(false));
    QCOMPARE(m_screen->value("threadTimer", "running"), QVariant(false));

    m_screen->clickButton();
    QCOMPARE(m_bridge->calls(), QStringList());
}

void TestMain::failedCopyInstallsUndefined()
{
    const QString undefined = QStringLiteral("undefined");
    m_bridge->setLists(kStick, {stickPackages(1)});
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
    m_bridge->setLists(kStick, {{}, {}, stickPackages(1)});
    m_bridge->setLists(kStaged, {{}, {}, {}, stagedPackages(1)});
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
    m_bridge->setLists(kStick,
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
    m_bridge->setLists(kStick, {stickPackages(20)});
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
    m_bridge->setLists(kStick, {stickPackages(9), stickPackages(2), {}, stickPackages(5)});
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
