#include "handmadeexchanges.h"
#include "handmadeframes.h"
#include "testboard.h"

#include <QtTest>

using namespace boardsim;

namespace {

constexpr Milliseconds kNever{600000};

const QByteArray kVersionQueryAnswer = QByteArray::fromHex("e724");

/// A board whose boot loader sends no 'C' once it has been started by command.
Options quietBootLoader(const QByteArrayList &faults = {})
{
    Options options = quickToNotice(faults);
    options.bootDelay = kNever;
    return options;
}

/// A board that has gone into its boot loader by command.
class BootLoader : public TestBoard {
public:
    explicit BootLoader(const Options &options)
        : TestBoard(options)
    {
        if (line.exchange(goodStartCommand(), 18).size() != 18)
            qFatal("no reply to the start command");
    }

    /// What the boot loader has sent.
    QByteArrayList sent() const { return TestBoard::sent().mid(1); }

    /// Text of the only violation; empty when there are none or more.
    QString violation() const
    {
        return report().violations.size() == 1 ? TestBoard::violation() : QString();
    }
};

const QByteArray kConnectAnswer = packet(0xAE, 1);
const QByteArray kSyncAnswer = packet(0xA4, 1);
const QByteArray kDeviceIdAnswer = packet(0xB1, 3, QByteArray::fromHex("5851374b"));
const QByteArray kConfigAnswer = packet(0xA2, 5);

const QVector<QByteArray> kAnswers{kConnectAnswer, kSyncAnswer, kDeviceIdAnswer, kConfigAnswer};

const char *const kPlaces[] = {"connect", "sync", "device-id", "config"};

} // namespace

class TestBoardSimPackets : public QObject {
    Q_OBJECT

private slots:
    void sequenceIsAnswered();
    void deviceIdIsLittleEndian();
    void sequenceMayBeRepeated();
    void connectBeginsAnew();
    void everyByteOfAPacketCounts_data();
    void everyByteOfAPacketCounts();
    void badPacketIsNamed_data();
    void badPacketIsNamed();
    void packetOutOfTurnIsReported_data();
    void packetOutOfTurnIsReported();
    void orderIsKeptAfterABadPacket();
    void bootLoaderForgetsTheConnection();
    void applicationKnowsNoPackets();
    void packetAmongTheDataIsReported();
    void packetEndsTheRequests();
    void transferFollowsThePackets();
    void framesAreToldApartInOneWrite();
    void cutPacketIsReported_data();
    void cutPacketIsReported();
    void answerIsSpoilt_data();
    void answerIsSpoilt();
    void slowAnswerComesLate();
    void splitAnswerComesInSingleBytes();
    void silentBoardTakesThePacket_data();
    void silentBoardTakesThePacket();
    void mergedAnswerComesWithTheNext();
    void lostBytesBreakThePacket();
    void hangUpInThePacket();
    void hangUpInTheAnswer();
    void connectEndsWhatAFaultExplains();
    void faultOfAFrameCannotHappenToAPacket();
};

void TestBoardSimPackets::sequenceIsAnswered()
{
    BootLoader loader(quietBootLoader());
    for (int i = 0; i < kAnswers.size(); ++i)
        QCOMPARE(loader.line.exchange(packetSequence().at(i), kPacketSize).toHex(),
                 kAnswers.at(i).toHex());
    loader.stop();
    const Report report = loader.report();
    QCOMPARE(loader.sent(), QByteArrayList::fromVector(kAnswers));
    QVERIFY(report.violations.isEmpty());
    QCOMPARE(report.connects, 1);
    QCOMPARE(report.configReads, 1);
    QCOMPARE(report.frames.at(2).meaning, QStringLiteral("connect packet"));
    QCOMPARE(report.frames.at(9).meaning, QStringLiteral("config packet answer"));
}

void TestBoardSimPackets::deviceIdIsLittleEndian()
{
    Options options = quietBootLoader();
    options.deviceId = 0xFEDCBA98;
    BootLoader loader(options);
    QCOMPARE(loader.line.exchange(connectPacket(), kPacketSize), kConnectAnswer);
    QCOMPARE(loader.line.exchange(syncPacket(), kPacketSize), kSyncAnswer);
    QCOMPARE(loader.line.exchange(deviceIdPacket(), kPacketSize).toHex(),
             packet(0xB1, 3, QByteArray::fromHex("98badcfe")).toHex());
}

void TestBoardSimPackets::sequenceMayBeRepeated()
{
    BootLoader loader(quietBootLoader());
    for (int run = 0; run < 2; ++run) {
        for (const QByteArray &packet : packetSequence())
            QCOMPARE(loader.line.exchange(packet, kPacketSize).size(), kPacketSize);
    }
    QCOMPARE(loader.report().configReads, 2);
    QVERIFY(loader.report().violations.isEmpty());
}

void TestBoardSimPackets::connectBeginsAnew()
{
    BootLoader loader(quietBootLoader());
    for (const QByteArray &packet :
         {connectPacket(), connectPacket(), syncPacket(), connectPacket(), syncPacket()})
        QCOMPARE(loader.line.exchange(packet, kPacketSize).size(), kPacketSize);
    QCOMPARE(loader.report().connects, 3);
    QVERIFY(loader.report().violations.isEmpty());
}

void TestBoardSimPackets::everyByteOfAPacketCounts_data()
{
    QTest::addColumn<int>("step");
    QTest::addColumn<int>("offset");
    for (int step = 0; step < 4; ++step) {
        for (int offset = 0; offset < kPacketSize; ++offset)
            QTest::addRow("%s, byte %d", kPlaces[step], offset) << step << offset;
    }
}

void TestBoardSimPackets::everyByteOfAPacketCounts()
{
    QFETCH(int, step);
    QFETCH(int, offset);
    BootLoader loader(quietBootLoader());
    for (int i = 0; i < step; ++i)
        QCOMPARE(loader.line.exchange(packetSequence().at(i), kPacketSize), kAnswers.at(i));

    QVERIFY(loader.refuses(changed(packetSequence().at(step), offset)));
    loader.stop();
    QVERIFY(loader.report().hasUnexplainedViolation());
    QCOMPARE(loader.sent().size(), step);
    QCOMPARE(loader.report().connects, step == 0 ? 0 : 1);
    QCOMPARE(loader.report().configReads, 0);
}

void TestBoardSimPackets::badPacketIsNamed_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("text");

    const auto row = [](const char *name, const QByteArray &bytes, const char *text) {
        QTest::newRow(name) << bytes << QString::fromLatin1(text);
    };
    const QByteArray good = connectPacket();
    row("unknown code", packet(0xAF, 1), "64 unexpected bytes from 0xaf on");
    row("upper byte of the code", changed(good, 3), "64 unexpected bytes from 0xae on");
    row("number", changed(good, 4), "packet number is 0, not 1");
    row("top byte of the number", changed(good, 7), "packet number is 16777217, not 1");
    row("parameter", changed(good, 8), "parameter is 1, not 0");
    row("top byte of the parameter", changed(good, 11), "parameter is 16777216, not 0");
    row("first zero byte", changed(good, 12), "zero byte 12 is 0x01, not 0x00");
    row("last zero byte", changed(good, 63), "zero byte 63 is 0x01, not 0x00");
    row("big-endian", QByteArray::fromHex("000000ae00000001") + QByteArray(56, '\0'),
        "64 unexpected bytes from 0x00 on");
    row("byte too many", good + '\0', "1 unexpected bytes from 0x00 on");
}

void TestBoardSimPackets::badPacketIsNamed()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, text);
    BootLoader loader(quietBootLoader());
    QVERIFY(loader.refuses(bytes));
    loader.stop();
    QCOMPARE(loader.violation(), text);
}

void TestBoardSimPackets::packetOutOfTurnIsReported_data()
{
    QTest::addColumn<int>("before"); // how many good ones
    QTest::addColumn<int>("step");
    QTest::addColumn<QString>("text");

    const char *const names[] = {"connect packet", "sync packet", "device id packet",
                                 "config packet"};
    for (int before = 0; before <= 4; ++before) {
        for (int step = 1; step < 4; ++step) {
            if (step == before)
                continue;
            QTest::addRow("%s after %d", kPlaces[step], before)
                << before << step
                << QStringLiteral("%1 where the %2 should come")
                       .arg(QString::fromLatin1(names[step]),
                            QString::fromLatin1(names[before % 4]));
        }
    }
}

void TestBoardSimPackets::packetOutOfTurnIsReported()
{
    QFETCH(int, before);
    QFETCH(int, step);
    QFETCH(QString, text);
    BootLoader loader(quietBootLoader());
    for (int i = 0; i < before; ++i)
        QCOMPARE(loader.line.exchange(packetSequence().at(i), kPacketSize), kAnswers.at(i));

    QVERIFY(loader.refuses(packetSequence().at(step)));
    loader.stop();
    QCOMPARE(loader.violation(), text);
    QCOMPARE(loader.sent().size(), before);
}

void TestBoardSimPackets::orderIsKeptAfterABadPacket()
{
    BootLoader loader(quietBootLoader());
    QCOMPARE(loader.line.exchange(connectPacket(), kPacketSize), kConnectAnswer);
    QVERIFY(loader.refuses(changed(syncPacket(), 40)));
    QCOMPARE(loader.line.exchange(syncPacket(), kPacketSize), kSyncAnswer);
    QCOMPARE(loader.report().violations.size(), 1);
}

void TestBoardSimPackets::bootLoaderForgetsTheConnection()
{
    BootLoader loader(quietBootLoader());
    QCOMPARE(loader.line.exchange(connectPacket(), kPacketSize), kConnectAnswer);
    QCOMPARE(loader.line.exchange(goodStartCommand(), 18).size(), 18);
    QVERIFY(loader.refuses(syncPacket()));
    QCOMPARE(loader.violation(),
             QStringLiteral("sync packet where the connect packet should come"));
}

void TestBoardSimPackets::applicationKnowsNoPackets()
{
    TestBoard board(quietBootLoader());
    QVERIFY(board.refuses(connectPacket()));
    QCOMPARE(board.report().violations.first().text,
             QStringLiteral("64 unexpected bytes from 0xae on"));
    QCOMPARE(board.report().connects, 0);
}

void TestBoardSimPackets::packetAmongTheDataIsReported()
{
    BootLoader loader(quietBootLoader());
    QCOMPARE(loader.line.exchange(startFrame("app.bin", "3"), 2).size(), 2);
    QVERIFY(loader.refuses(connectPacket()));
    QCOMPARE(loader.violation(), QStringLiteral("64 unexpected bytes from 0xae on"));
}

void TestBoardSimPackets::packetEndsTheRequests()
{
    Options options = quietBootLoader();
    options.bootDelay = Milliseconds(0);
    options.requestInterval = Milliseconds(100);
    BootLoader loader(options);
    QCOMPARE(loader.line.receive(1), QByteArray("C"));
    QVERIFY(loader.line.send(connectPacket()));
    QVERIFY(loader.await([](const Report &r) { return r.connects == 1; }));
    QVERIFY(loader.awaitQuiet(Milliseconds(350)));
    QCOMPARE(loader.sent().last(), kConnectAnswer);
}

void TestBoardSimPackets::transferFollowsThePackets()
{
    BootLoader loader(quietBootLoader());
    for (const QByteArray &packet : packetSequence())
        QCOMPARE(loader.line.exchange(packet, kPacketSize).size(), kPacketSize);
    QByteArray answers;
    for (const QByteArray &frame : wholeTransfer("abc"))
        answers += loader.line.exchange(
            frame, frame == startFrame("app.bin", "3") || frame == eot() ? 2 : 1);
    QCOMPARE(answers,
             QByteArray("\x06"
                        "C\x06\x06"
                        "C\x06"));
    QVERIFY(loader.report().lastTransfer().complete);
    QVERIFY(loader.report().violations.isEmpty());
}

void TestBoardSimPackets::framesAreToldApartInOneWrite()
{
    BootLoader loader(quietBootLoader());
    const QByteArray answers = loader.line.exchange(
        connectPacket() + syncPacket() + goodVersionQuery(), 2 * kPacketSize + 36);
    QCOMPARE(answers.left(2 * kPacketSize), kConnectAnswer + kSyncAnswer);
    QCOMPARE(answers.mid(2 * kPacketSize, 2), kVersionQueryAnswer);

    QCOMPARE(loader.line.exchange(goodStartCommand(), 18).size(), 18);
    const QByteArray more =
        loader.line.exchange(connectPacket() + startFrame("app.bin", "3"), kPacketSize + 2);
    QCOMPARE(more, kConnectAnswer + "\x06" + "C");
    QVERIFY(loader.report().violations.isEmpty());
}

void TestBoardSimPackets::cutPacketIsReported_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QString>("text");
    QTest::newRow("first byte") << 1 << QStringLiteral("frame broke off after 1 bytes");
    QTest::newRow("in the code") << 3 << QStringLiteral("frame broke off after 3 bytes");
    QTest::newRow("code") << 4 << QStringLiteral("frame broke off after 4 of 64 bytes");
    QTest::newRow("all but one") << 63 << QStringLiteral("frame broke off after 63 of 64 bytes");
}

void TestBoardSimPackets::cutPacketIsReported()
{
    QFETCH(int, size);
    QFETCH(QString, text);
    BootLoader loader(quietBootLoader());
    QVERIFY(loader.refuses(connectPacket().left(size)));
    QCOMPARE(loader.violation(), text);
    QCOMPARE(loader.line.exchange(connectPacket(), kPacketSize), kConnectAnswer);
}

void TestBoardSimPackets::answerIsSpoilt_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<int>("step");
    QTest::addColumn<QByteArray>("expected");

    for (int step = 0; step < 4; ++step) {
        const QByteArray place = QByteArray("@") + kPlaces[step];
        const QByteArray &good = kAnswers.at(step);
        const auto row = [&](const char *fault, const QByteArray &expected) {
            const QByteArray text = fault + place;
            QTest::newRow(text.constData()) << text << step << expected;
        };
        row("drop-bytes", good.left(63));
        row("drop-bytes=60", good.left(4));
        row("garbage-before=00", '\0' + good);
        row("garbage-after", good + QByteArray::fromHex("a55a"));
    }
}

void TestBoardSimPackets::answerIsSpoilt()
{
    QFETCH(QByteArray, fault);
    QFETCH(int, step);
    QFETCH(QByteArray, expected);

    BootLoader loader(quietBootLoader({fault}));
    QVector<QByteArray> answers = kAnswers;
    answers[step] = expected;
    for (int i = 0; i < answers.size(); ++i)
        QCOMPARE(loader.line.exchange(packetSequence().at(i), answers.at(i).size()).toHex(),
                 answers.at(i).toHex());
    loader.stop();
    QCOMPARE(loader.sent(), QByteArrayList::fromVector(answers));
    QCOMPARE(loader.report().faultsMade, QStringList{QString::fromLatin1(fault)});
    QVERIFY(loader.report().violations.isEmpty());
}

void TestBoardSimPackets::slowAnswerComesLate()
{
    BootLoader loader(quietBootLoader({"slow=200@connect"}));
    QCOMPARE(loader.line.exchange(connectPacket(), kPacketSize), kConnectAnswer);
    const auto frames = loader.report().frames;
    QCOMPARE(frames.size(), 4);
    QVERIFY(frames.at(3).ms - frames.at(2).ms >= 199);
}

void TestBoardSimPackets::splitAnswerComesInSingleBytes()
{
    BootLoader loader(quietBootLoader({"split=1@connect"}));
    QCOMPARE(loader.line.exchange(connectPacket(), kPacketSize), kConnectAnswer);
    loader.stop();
    QCOMPARE(loader.sent().size(), kPacketSize);
}

void TestBoardSimPackets::silentBoardTakesThePacket_data()
{
    QTest::addColumn<int>("step");
    for (int step = 0; step < 4; ++step)
        QTest::newRow(kPlaces[step]) << step;
}

void TestBoardSimPackets::silentBoardTakesThePacket()
{
    QFETCH(int, step);
    BootLoader loader(quietBootLoader({QByteArray("silent@") + kPlaces[step]}));
    for (int i = 0; i < step; ++i)
        QCOMPARE(loader.line.exchange(packetSequence().at(i), kPacketSize), kAnswers.at(i));
    QVERIFY(loader.line.send(packetSequence().at(step)));
    QVERIFY(loader.awaitFaults(1));
    loader.stop();
    QCOMPARE(loader.sent().size(), step);
    QVERIFY(loader.report().violations.isEmpty());
}

void TestBoardSimPackets::mergedAnswerComesWithTheNext()
{
    BootLoader loader(quietBootLoader({"merge@connect"}));
    QVERIFY(loader.line.send(connectPacket()));
    QVERIFY(loader.await([](const Report &r) { return r.connects == 1; }));
    QCOMPARE(loader.line.exchange(syncPacket(), 2 * kPacketSize), kConnectAnswer + kSyncAnswer);
    loader.stop();
    QCOMPARE(loader.sent(), QByteArrayList{kConnectAnswer + kSyncAnswer});
}

void TestBoardSimPackets::lostBytesBreakThePacket()
{
    BootLoader loader(quietBootLoader({"lose-bytes=2@connect"}));
    QVERIFY(loader.refuses(connectPacket()));
    loader.stop();
    QCOMPARE(loader.violation(), QStringLiteral("frame broke off after 62 of 64 bytes"));
    QVERIFY(!loader.report().hasUnexplainedViolation());
    QVERIFY(loader.sent().isEmpty());
}

void TestBoardSimPackets::hangUpInThePacket()
{
    BootLoader loader(quietBootLoader({"hang-up=64@config"}));
    for (int i = 0; i < 3; ++i)
        QCOMPARE(loader.line.exchange(packetSequence().at(i), kPacketSize), kAnswers.at(i));
    QVERIFY(loader.line.send(configPacket()));
    QVERIFY(loader.line.waitForHangUp());
    QVERIFY(loader.report().hungUp);
    QCOMPARE(loader.report().configReads, 0);
}

void TestBoardSimPackets::hangUpInTheAnswer()
{
    BootLoader loader(quietBootLoader({"hang-up=96@sync"}));
    QCOMPARE(loader.line.exchange(connectPacket(), kPacketSize), kConnectAnswer);
    QCOMPARE(loader.line.exchange(syncPacket(), kPacketSize), kSyncAnswer.left(32));
    QVERIFY(loader.await([](const Report &r) { return r.hungUp; }));
}

void TestBoardSimPackets::connectEndsWhatAFaultExplains()
{
    BootLoader loader(quietBootLoader({"drop-bytes@sync"}));
    QCOMPARE(loader.line.exchange(connectPacket(), kPacketSize), kConnectAnswer);
    QCOMPARE(loader.line.exchange(syncPacket(), 63).size(), 63);
    QVERIFY(loader.refuses(syncPacket()));
    QVERIFY(!loader.report().hasUnexplainedViolation());

    QCOMPARE(loader.line.exchange(connectPacket(), kPacketSize), kConnectAnswer);
    QVERIFY(loader.line.send(configPacket()));
    QVERIFY(loader.awaitViolations(2));
    QVERIFY(loader.report().hasUnexplainedViolation());
}

void TestBoardSimPackets::faultOfAFrameCannotHappenToAPacket()
{
    for (const char *fault : {"wrong-head", "wrong-length", "wrong-checksum", "wrong-foot",
                              "no-underscore", "full-params", "nak"}) {
        for (const char *place : kPlaces) {
            QString error;
            const QString name = QString::fromLatin1(fault);
            const QString where = QString::fromLatin1(place);
            QVERIFY(!parseFault(name + QLatin1Char('@') + where, error));
            QCOMPARE(error, QStringLiteral("fault %1 cannot happen at %2").arg(name, where));
        }
    }
}

QTEST_GUILESS_MAIN(TestBoardSimPackets)
#include "tst_boardsim_packets.moc"
