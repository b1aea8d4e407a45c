#include "boardfaults.h"
#include "boardsimulator.h"
#include "capture.h"
#include "fileio.h"
#include "handmadeframes.h"
#include "serialport.h"

#include <QtTest>

#include <cstdint>

// The boot loader's packets against the simulated board: neither side knows how the other builds
// them.

using namespace boardsim;

namespace {

/// A board that has just gone into its boot loader and does not ask for a file for a long time.
Options quietBootLoader(const QByteArrayList &faults)
{
    Options options;
    options.bootDelay = Milliseconds(600000);
    options.faults = boardFaults(faults);
    return options;
}

/// A bridge on the line to a board in its boot loader.
struct Setup {
    explicit Setup(const Options &options)
        : board(options)
        , isReady(board.start()
                  && io.serialPort()->Open(board.slaveName().toLatin1().constData(), "115200")
                  && startBootLoader())
    {
    }

    bool startBootLoader()
    {
        const QByteArray command = goodStartCommand();
        unsigned char answer[18];
        return io.serialPort()->Write(command.constData(), static_cast<unsigned>(command.size()))
            == command.size()
            && io.serialPort()->Read(answer, sizeof answer) == sizeof answer;
    }

    int run()
    {
        DescriptorCapture out(1);
        const int result = io.sendCmdFromConnect2Config();
        const QByteArrayList lines = out.take().split('\n');
        for (const QByteArray &line : lines) {
            if (!line.startsWith("cmd_buf[") && !line.startsWith("rx_buf["))
                printed << line;
            else if (line.startsWith("rx_buf["))
                ++bytesShown;
        }
        return result;
    }

    QStringList packetsReceived() const
    {
        QStringList meanings;
        const Report report = board.report();
        for (const FrameRecord &frame : report.frames.mid(2)) {
            if (frame.toBoard)
                meanings << frame.meaning;
        }
        return meanings;
    }

    BoardSimulator board;
    FileIO io;
    bool isReady;
    QByteArrayList printed; // lines, without the dumps of packets
    int bytesShown = 0;     // of the answer to the connect packet
};

const QStringList kSequence{QStringLiteral("connect packet"), QStringLiteral("sync packet"),
                            QStringLiteral("device id packet"), QStringLiteral("config packet")};

} // namespace

class TestBoardPackets : public QObject {
    Q_OBJECT

private slots:
    void boardAcceptsTheSequence_data();
    void boardAcceptsTheSequence();
    void lateOrSplitAnswersAreTaken_data();
    void lateOrSplitAnswersAreTaken();
    void overlongAnswerShiftsWhatFollows();
    void badAnswerEndsTheSequence_data();
    void badAnswerEndsTheSequence();
    void connectIsTriedElevenTimes_data();
    void connectIsTriedElevenTimes();
    void lateConnectAnswerCountsForALaterAttempt();
    void applicationDoesNotAnswer();
};

void TestBoardPackets::boardAcceptsTheSequence_data()
{
    QTest::addColumn<std::uint32_t>("deviceId");
    QTest::newRow("all bytes differ") << std::uint32_t(0x01020384);
    QTest::newRow("above a signed number") << std::uint32_t(0xFFFFFFFE);
    QTest::newRow("zero") << std::uint32_t(0);
}

void TestBoardPackets::boardAcceptsTheSequence()
{
    QFETCH(std::uint32_t, deviceId);
    Options options = quietBootLoader({});
    options.deviceId = deviceId;
    Setup setup(options);
    QVERIFY(setup.isReady);
    QCOMPARE(setup.run(), 1);
    const QByteArrayList expected{"len:64", "device id:" + QByteArray::number(deviceId), ""};
    QCOMPARE(setup.printed, expected);
    QCOMPARE(setup.bytesShown, 64);
    QCOMPARE(setup.packetsReceived(), kSequence);
    QVERIFY(setup.board.report().violations.isEmpty());
}

void TestBoardPackets::lateOrSplitAnswersAreTaken_data()
{
    QTest::addColumn<QByteArray>("fault");
    for (const char *place : {"connect", "sync", "device-id", "config"}) {
        for (const char *fault : {"slow=300@", "split@"}) {
            const QByteArray text = QByteArray(fault) + place;
            QTest::newRow(text.constData()) << text;
        }
    }
}

void TestBoardPackets::lateOrSplitAnswersAreTaken()
{
    QFETCH(QByteArray, fault);
    Setup setup(quietBootLoader({fault}));
    QVERIFY(setup.isReady);
    QCOMPARE(setup.run(), 1);
    QCOMPARE(setup.packetsReceived(), kSequence);
    QCOMPARE(setup.board.report().faultsMade, QStringList{QString::fromLatin1(fault)});
}

void TestBoardPackets::overlongAnswerShiftsWhatFollows()
{
    Options options = quietBootLoader({"garbage-after=aabb@connect"});
    options.deviceId = 0x00030201;
    Setup setup(options);
    QVERIFY(setup.isReady);
    // No answer is looked at: two bytes too many move all that come behind them.
    QCOMPARE(setup.run(), 1);
    QCOMPARE(setup.printed.at(1), "device id:" + QByteArray::number(0x02010000));
}

void TestBoardPackets::badAnswerEndsTheSequence_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<int>("step");
    QTest::addColumn<QByteArray>("message");

    const struct {
        const char *place;
        int step;
        const char *message;
    } steps[] = {
        {"sync", 1, "device ack error:CMD_SYNC_packno"},
        {"device-id", 2, "device ack error:CMD_GET_DEVICEID"},
        {"config", 3, "device ack error:CMD_READ_CONFIG"},
    };
    for (const auto &row : steps) {
        for (const char *fault : {"drop-bytes@", "drop-bytes=63@", "silent@", "slow=60000@",
                                  "split=500@", "lose-bytes@", "hang-up@"}) {
            const QByteArray text = QByteArray(fault) + row.place;
            QTest::newRow(text.constData()) << text << row.step << QByteArray(row.message);
        }
    }
}

void TestBoardPackets::badAnswerEndsTheSequence()
{
    QFETCH(QByteArray, fault);
    QFETCH(int, step);
    QFETCH(QByteArray, message);
    Setup setup(quietBootLoader({fault}));
    QVERIFY(setup.isReady);
    QCOMPARE(setup.run(), -1);
    setup.board.stop();
    QByteArrayList expected{"len:64", message, ""};
    if (step == 3)
        expected.insert(1, "device id:" + QByteArray::number(Options{}.deviceId));
    QCOMPARE(setup.printed, expected);
    QCOMPARE(setup.packetsReceived().size(), step + 1);
    QCOMPARE(setup.packetsReceived().mid(0, step), kSequence.mid(0, step));
    QCOMPARE(setup.board.report().configReads,
             step == 3 && !fault.startsWith("lose") && !fault.startsWith("hang") ? 1 : 0);
    QVERIFY(!setup.board.report().hasUnexplainedViolation());
}

void TestBoardPackets::connectIsTriedElevenTimes_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<int>("count");
    QTest::newRow("silent") << QByteArray("silent@connect") << 0;
    QTest::newRow("too short") << QByteArray("drop-bytes=4@connect") << 60;
}

void TestBoardPackets::connectIsTriedElevenTimes()
{
    QFETCH(QByteArray, fault);
    QFETCH(int, count);
    Setup setup(quietBootLoader({fault}));
    QVERIFY(setup.isReady);
    QCOMPARE(setup.run(), -1);
    const QByteArray length = "len:" + QByteArray::number(count);
    QByteArrayList expected;
    for (int i = 0; i < 10; ++i)
        expected << length + " line:734";
    expected << length << "device ack error:CMD_CONNECT" << QByteArray();
    QCOMPARE(setup.printed, expected);
    QCOMPARE(setup.bytesShown, count);
    QCOMPARE(setup.board.report().connects, 11);
    QVERIFY(setup.board.report().violations.isEmpty());
}

void TestBoardPackets::lateConnectAnswerCountsForALaterAttempt()
{
    Setup setup(quietBootLoader({"slow=2500@connect"}));
    QVERIFY(setup.isReady);
    setup.run(); // the answers to later attempts come for sync and what follows, or do not
    const int missed = setup.printed.count("len:0 line:734");
    QVERIFY(missed >= 1);
    QCOMPARE(setup.printed.at(missed), QByteArray("len:64"));
    QCOMPARE(setup.packetsReceived().count(kSequence.first()), missed + 1);
    QCOMPARE(setup.packetsReceived().at(missed + 1), kSequence.at(1));
    QVERIFY(setup.board.report().violations.isEmpty());
}

void TestBoardPackets::applicationDoesNotAnswer()
{
    BoardSimulator board(quietBootLoader({}));
    QVERIFY(board.start());
    FileIO io;
    QVERIFY(io.serialPort()->Open(board.slaveName().toLatin1().constData(), "115200"));
    unsigned char packet[64] = {0xAE, 0, 0, 0, 1};
    unsigned char answer[64];
    QCOMPARE(io.serialIoctl(packet, sizeof packet, answer), 0);
    QCOMPARE(board.report().violations.size(), 1);
}

QTEST_GUILESS_MAIN(TestBoardPackets)
#include "tst_boardpackets.moc"
