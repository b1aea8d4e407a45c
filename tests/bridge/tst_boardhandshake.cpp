#include "boardfaults.h"
#include "boardsimulator.h"
#include "capture.h"
#include "fileio.h"
#include "serialport.h"

#include <QtTest>

// The handshakes against the simulated board: neither side knows how the other builds its frames.

using namespace boardsim;

namespace {

constexpr Milliseconds kPatience{10000};

using Handshake = int (FileIO::*)();

/// A bridge on the line to a board.
struct Setup {
    explicit Setup(const Options &options)
        : board(options)
        , isReady(board.start()
                  && io.serialPort()->Open(board.slaveName().toLatin1().constData(), "115200"))
    {
    }

    int run(Handshake handshake)
    {
        const MessageCapture messages;
        DescriptorCapture out(1);
        const int result = (io.*handshake)();
        printed = out.take();
        debug = messages.messages();
        return result;
    }

    BoardSimulator board;
    FileIO io;
    bool isReady;
    QByteArray printed;
    QStringList debug;
};

} // namespace

class TestBoardHandshake : public QObject {
    Q_OBJECT

private slots:
    void boardAcceptsBothVersions();
    void v4TakesTheVersion_data();
    void v4TakesTheVersion();
    void v4RefusesTheAnswer_data();
    void v4RefusesTheAnswer();
    void v3IsContentWithAnyAnswer_data();
    void v3IsContentWithAnyAnswer();
    void refusedAnswerKeepsTheVersion();
    void splitAnswerOnAPacedLineIsTaken();
};

void TestBoardHandshake::boardAcceptsBothVersions()
{
    Setup setup(Options{});
    QVERIFY(setup.isReady);
    QCOMPARE(setup.run(&FileIO::handsharkeV3), 73);
    QCOMPARE(setup.run(&FileIO::handsharkeV4), 76);
    setup.board.stop();
    const Report report = setup.board.report();
    QCOMPARE(report.handshakesV3, 1);
    QCOMPARE(report.handshakesV4, 1);
    QVERIFY(report.violations.isEmpty());
    QCOMPARE(report.frames.size(), 4);
}

void TestBoardHandshake::v4TakesTheVersion_data()
{
    QTest::addColumn<QByteArray>("params");
    QTest::addColumn<QByteArrayList>("faults");
    QTest::addColumn<int>("count");
    QTest::addColumn<QString>("version");

    const auto row = [](const char *name, const QByteArray &params, const QByteArrayList &faults,
                        int count, const QString &version) {
        QTest::newRow(name) << params << faults << count << version;
    };
    const QByteArray usual = paramBlock("ABC_K7QX12");
    const auto tail = [](int count) {
        return QStringLiteral("K7QX12") + QString(count, QLatin1Char('x'));
    };
    row("usual", usual, {}, 76, QStringLiteral("K7QX12"));
    row("other model", paramBlock("ABC_Z1"), {}, 76, QStringLiteral("Z1"));
    row("second underscore", paramBlock("A_B_C"), {}, 76, QStringLiteral("B_C"));
    row("underscore last", paramBlock("ABC_"), {}, 76, QString());
    row("no parameters at all", {}, {}, 34, QString());
    row("only an underscore", "_", {}, 35, QString());
    row("no underscore", usual, {"no-underscore@handshake"}, 76, QString());
    row("no zero byte", usual, {"full-params@handshake"}, 76, tail(32));
    row("49 bytes", usual, {"full-params=49@handshake"}, 83, tail(39));
    row("50 bytes", usual, {"full-params=50@handshake"}, 84, tail(40));
    // Only the first 50 bytes are looked at.
    row("51 bytes", usual, {"full-params=51@handshake"}, 85, tail(40));
    row("66 bytes", usual, {"full-params=66@handshake"}, 100, tail(40));
    row("66 bytes without an underscore", usual,
        {"full-params=66@handshake", "no-underscore@handshake"}, 100, QString());
    row("underscore as byte 50", QByteArray(49, 'a') + "_bc", {}, 86, QString());
    row("underscore as byte 51", QByteArray(50, 'a') + "_bc", {}, 87, QString());
    row("too long", usual, {"garbage-after=0102@handshake"}, 78, QStringLiteral("K7QX12"));
    row("late", usual, {"slow=400@handshake"}, 76, QStringLiteral("K7QX12"));
    row("in single bytes", usual, {"split@handshake"}, 76, QStringLiteral("K7QX12"));
}

void TestBoardHandshake::v4TakesTheVersion()
{
    QFETCH(QByteArray, params);
    QFETCH(QByteArrayList, faults);
    QFETCH(int, count);
    QFETCH(QString, version);

    Options options;
    options.params = params;
    options.faults = boardFaults(faults);
    Setup setup(options);
    QVERIFY(setup.isReady);
    QCOMPARE(setup.run(&FileIO::handsharkeV4), count);
    QVERIFY(setup.printed.endsWith("\nhandsharke: FRAME_OK\n"));
    QCOMPARE(setup.io.mcuVersion(), version);
    QCOMPARE(setup.io.frameStatus(), 1);
    QCOMPARE(setup.debug.last(),
             version.contains(QLatin1String("K7QX")) ? QStringLiteral("is K7QX: true")
                                                     : QStringLiteral("is K7QX: false"));
    QCOMPARE(setup.board.report().faultsMade.size(), faults.size());
    QVERIFY(setup.board.report().violations.isEmpty());
}

void TestBoardHandshake::v4RefusesTheAnswer_data()
{
    QTest::addColumn<QByteArrayList>("faults");
    QTest::addColumn<int>("status");

    const auto row = [](const char *name, const QByteArrayList &faults, int status = -1) {
        QTest::newRow(name) << faults << status;
    };
    row("wrong checksum", {"wrong-checksum@handshake"}, -2);
    row("wrong head", {"wrong-head@handshake"});
    row("wrong foot", {"wrong-foot@handshake"});
    row("length one too high", {"wrong-length@handshake"});
    for (const char *length : {"00", "01", "21", "4b", "64", "c8", "c9", "ff"})
        QTest::addRow("length 0x%s", length)
            << QByteArrayList{QByteArray("wrong-length=") + length + "@handshake"} << -1;
    row("length 255, foot everywhere behind",
        {"wrong-length=ff@handshake",
         "garbage-after=" + QByteArray("e7").repeated(100) + "@handshake"});
    row("one byte short", {"drop-bytes@handshake"});
    row("head only", {"drop-bytes=75@handshake"});
    row("garbage before", {"garbage-before@handshake"});
    row("longer than is read", {"full-params=67@handshake"});
    row("longest of V4", {"full-params=166@handshake"});
    row("longest of all", {"full-params=221@handshake"});
    row("too slow in single bytes", {"split=400@handshake"});
    row("too late", {"slow=60000@handshake"});
    row("silent", {"silent@handshake"});
    row("hung up", {"hang-up@handshake"});
}

void TestBoardHandshake::v4RefusesTheAnswer()
{
    QFETCH(QByteArrayList, faults);
    QFETCH(int, status);

    Options options;
    options.faults = boardFaults(faults);
    Setup setup(options);
    QVERIFY(setup.isReady);
    QCOMPARE(setup.run(&FileIO::handsharkeV4), -1);
    QVERIFY(setup.printed.endsWith("handsharke: FRAME_BAD\n"));
    QCOMPARE(setup.io.frameStatus(), status);
    QCOMPARE(setup.io.mcuVersion(), QString());
    QCOMPARE(setup.board.report().faultsMade.size(), faults.size());
    QVERIFY(!setup.board.report().hasUnexplainedViolation());
}

void TestBoardHandshake::v3IsContentWithAnyAnswer_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<int>("count");

    QTest::newRow("wrong checksum") << QByteArray("wrong-checksum@handshake") << 73;
    QTest::newRow("wrong head") << QByteArray("wrong-head@handshake") << 73;
    QTest::newRow("wrong foot") << QByteArray("wrong-foot@handshake") << 73;
    QTest::newRow("greatest length") << QByteArray("wrong-length=ff@handshake") << 73;
    QTest::newRow("too short") << QByteArray("drop-bytes=70@handshake") << 3;
    QTest::newRow("too long") << QByteArray("garbage-after@handshake") << 75;
    QTest::newRow("longest of V3") << QByteArray("full-params=80@handshake") << 100;
    QTest::newRow("longest of all") << QByteArray("full-params=221@handshake") << 100;
    QTest::newRow("in single bytes") << QByteArray("split@handshake") << 73;
    QTest::newRow("silent") << QByteArray("silent@handshake") << 0;
}

void TestBoardHandshake::v3IsContentWithAnyAnswer()
{
    QFETCH(QByteArray, fault);
    QFETCH(int, count);

    Options options;
    options.faults = boardFaults({fault});
    Setup setup(options);
    QVERIFY(setup.isReady);
    QCOMPARE(setup.run(&FileIO::handsharkeV3), count);
    QCOMPARE(setup.printed, QByteArray("handsharke: FRAME_OK\n"));
    QCOMPARE(setup.io.mcuVersion(), QString());
    QCOMPARE(setup.debug.last(), QStringLiteral("is K7QX: false"));
    QCOMPARE(setup.board.report().handshakesV3, 1);
    QVERIFY(setup.board.report().violations.isEmpty());
}

void TestBoardHandshake::refusedAnswerKeepsTheVersion()
{
    Setup setup(Options{});
    QVERIFY(setup.isReady);
    QCOMPARE(setup.run(&FileIO::handsharkeV4), 76);
    QCOMPARE(setup.io.mcuVersion(), QStringLiteral("K7QX12"));

    Options options;
    options.faults = boardFaults({"wrong-checksum@handshake"});
    BoardSimulator other(options);
    QVERIFY(other.start());
    setup.io.serialPort()->Close();
    QVERIFY(setup.io.serialPort()->Open(other.slaveName().toLatin1().constData(), "115200"));
    QCOMPARE(setup.run(&FileIO::handsharkeV4), -1);
    QCOMPARE(setup.io.mcuVersion(), QStringLiteral("K7QX12"));
}

void TestBoardHandshake::splitAnswerOnAPacedLineIsTaken()
{
    Options options;
    options.baud = 115200;
    options.faults = boardFaults({"split@handshake"});
    Setup setup(options);
    QVERIFY(setup.isReady);
    QCOMPARE(setup.run(&FileIO::handsharkeV4), 76);
    QCOMPARE(setup.io.mcuVersion(), QStringLiteral("K7QX12"));
    QVERIFY(setup.board.waitFor([](const Report &r) { return r.frames.size() == 77; }, kPatience));
}

QTEST_GUILESS_MAIN(TestBoardHandshake)
#include "tst_boardhandshake.moc"
