#include "handmadeexchanges.h"
#include "handmadeframes.h"
#include "linedecoder.h"
#include "testboard.h"

#include <QtTest>

#include <random>

using namespace boardsim;

namespace {

/// A decoder with all that it has told.
class Watched {
public:
    Watched()
        : decoder(report, [this](const LineEvent &event) { add(event); })
    {
    }

    void toBoard(const QByteArray &bytes) { decoder.toBoard(now, bytes); }
    void fromBoard(const QByteArray &bytes) { decoder.fromBoard(now, bytes); }
    void pause(Milliseconds length = Milliseconds(1000))
    {
        now += length;
        decoder.step(now);
    }

    /// What has been told since the last call, one text an event.
    QStringList takeTexts() { return std::exchange(m_texts, {}); }

    Report report;
    QByteArray bytesToBoard;
    QByteArray bytesFromBoard;
    TimePoint now = Clock::now();
    LineDecoder decoder;

private:
    void add(const LineEvent &event)
    {
        (event.toBoard ? bytesToBoard : bytesFromBoard) += event.bytes;
        if (event.bytes.isEmpty())
            return;
        m_texts << (event.toBoard ? QStringLiteral("-> ") : QStringLiteral("<- ")) + event.meaning;
        for (const QString &text : event.violations)
            m_texts << QStringLiteral("!! ") + text;
    }

    QStringList m_texts;
};

/// All that the board and its program told each other in the exchange.
QVector<FrameRecord> framesOfEveryExchange()
{
    Options options;
    options.bootDelay = Milliseconds(0);
    TestBoard board(options);
    bool isGood = board.line.exchange(goodHandshakeV3(), 73).size() == 73
        && board.line.exchange(goodHandshakeV4(), 76).size() == 76
        && board.line.exchange(goodVersionQuery(), 36).size() == 36
        && board.line.exchange(goodStartCommand(), 19).size() == 19;
    for (const QByteArray &packet : packetSequence())
        isGood = isGood && board.line.exchange(packet, kPacketSize).size() == kPacketSize;
    const QByteArray image = firmwareOfSize(1500);
    for (const QByteArray &frame : wholeTransfer(image))
        isGood = isGood && !board.line.exchange(frame, frame == eot() ? 2 : 1).isEmpty();
    isGood = isGood && board.line.send(endFrame())
        && board.await([](const Report &r) { return r.lastTransfer().extraEndFrames == 1; });
    if (!isGood)
        qFatal("the exchange with the board fails");
    return board.report().frames;
}

QByteArray hex(const char *digits)
{
    return QByteArray::fromHex(digits);
}

} // namespace

class TestLineDecoder : public QObject {
    Q_OBJECT

private slots:
    void meaningsAreThoseOfTheBoard();
    void transferIsReportedAsTheBoardDoes();
    void badReplyNamesItsFields_data();
    void badReplyNamesItsFields();
    void bytesAroundAReplyAreTold();
    void controlBytesAreNamed_data();
    void controlBytesAreNamed();
    void consoleTextIsText();
    void placeMarksAreText();
    void requestAfterTextBeginsANewBatch();
    void refusedFrameMayComeAgain();
    void bootLoaderMayStartUnseen();
    void endlessBytesAreCut();
    void everyByteIsInOneEvent();
};

void TestLineDecoder::meaningsAreThoseOfTheBoard()
{
    Watched watched;
    for (const FrameRecord &frame : framesOfEveryExchange()) {
        if (frame.toBoard)
            watched.toBoard(frame.bytes);
        else
            watched.fromBoard(frame.bytes);
        watched.pause(Milliseconds(30));
        const QString mark = frame.toBoard ? QStringLiteral("-> ") : QStringLiteral("<- ");
        QCOMPARE(watched.takeTexts(), QStringList(mark + frame.meaning));
    }
}

void TestLineDecoder::transferIsReportedAsTheBoardDoes()
{
    Watched watched;
    for (const FrameRecord &frame : framesOfEveryExchange()) {
        if (frame.toBoard)
            watched.toBoard(frame.bytes);
        else
            watched.fromBoard(frame.bytes);
    }
    const Transfer transfer = watched.report.lastTransfer();
    QCOMPARE(transfer.image, firmwareOfSize(1500));
    QVERIFY(transfer.complete);
    QCOMPARE(transfer.extraEndFrames, 1);
    QCOMPARE(watched.report.versionQueries, 1);
    QCOMPARE(watched.report.handshakesV3, 1);
    QCOMPARE(watched.report.configReads, 1);
}

void TestLineDecoder::badReplyNamesItsFields_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<QStringList>("texts");

    const QByteArray version = versionReply("V4.1.3");
    const auto with = [](QByteArray bytes, int offset, int value) {
        bytes[offset] = static_cast<char>(value);
        return bytes;
    };
    const auto row = [](const char *name, const QByteArray &request, const QByteArray &reply,
                        const QStringList &texts) {
        QTest::newRow(name) << request << reply << texts;
    };
    row("head", goodVersionQuery(), with(version, 0, 0xE6),
        {QStringLiteral("<- bad version answer"), QStringLiteral("!! head is 0xe6, not 0xe7")});
    row("length", goodVersionQuery(), with(version, 1, 0x25),
        {QStringLiteral("<- bad version answer"),
         QStringLiteral("!! length byte is 0x25, not 0x24"),
         QStringLiteral("!! checksum is 0x6e, not 0x6f")});
    row("foot", goodVersionQuery(), with(version, 35, 0xE6),
        {QStringLiteral("<- bad version answer"), QStringLiteral("!! foot is 0xe6, not 0xe7")});
    row("too short", goodVersionQuery(), version.left(20),
        {QStringLiteral("<- bad version answer"),
         QStringLiteral("!! answer broke off after 20 of 36 bytes")});
    row("longest version text", goodVersionQuery(), versionReply("1234567890123456789"),
        {QStringLiteral("<- version answer \"1234567890123456789\"")});
    row("version text of 18", goodVersionQuery(), versionReply("123456789012345678"),
        {QStringLiteral("<- version answer \"123456789012345678\"")});
    row("sum", goodStartCommand(), changedAndSealed(startReply(), 14),
        {QStringLiteral("<- bad start command answer"),
         QStringLiteral("!! sum of bytes 1 to 15 is 0x00e8, not the foot")});
    row("length of the start reply", goodStartCommand(), with(startReply(), 1, 0x13),
        {QStringLiteral("<- bad start command answer"),
         QStringLiteral("!! length byte is 0x13, not 0x12"),
         QStringLiteral("!! checksum is 0xe7, not 0xe8"),
         QStringLiteral("!! sum of bytes 1 to 15 is 0x00e8, not the foot")});
    row("longer handshake", goodHandshakeV3(), handshakeAnswer(3, QByteArray(60, 'p')),
        {QStringLiteral("<- V3 handshake answer")});
    row("checksum", goodHandshakeV4(), changed(handshakeAnswer(4, QByteArray(42, '\0')), 40),
        {QStringLiteral("<- bad V4 handshake answer"),
         QStringLiteral("!! checksum is 0x5b, not 0x5c")});
    row("packet number", syncPacket(), packet(0xA4, 2),
        {QStringLiteral("<- bad sync packet answer"),
         QStringLiteral("!! packet number is 2, not 1")});
    row("nothing known", goodVersionQuery(), hex("8081"),
        {QStringLiteral("<- unexpected bytes"),
         QStringLiteral("!! 2 unexpected bytes from 0x80 on")});
}

void TestLineDecoder::badReplyNamesItsFields()
{
    QFETCH(QByteArray, request);
    QFETCH(QByteArray, reply);
    QFETCH(QStringList, texts);
    Watched watched;
    watched.toBoard(connectPacket());
    watched.toBoard(request);
    watched.takeTexts();
    watched.fromBoard(reply);
    watched.pause();
    QCOMPARE(watched.takeTexts(), texts);
}

void TestLineDecoder::bytesAroundAReplyAreTold()
{
    Watched watched;
    watched.toBoard(goodVersionQuery());
    watched.fromBoard(hex("a55a") + versionReply("V4.2") + hex("a5"));
    watched.pause();
    QCOMPARE(watched.takeTexts(),
             (QStringList{QStringLiteral("-> version query"), QStringLiteral("<- garbage"),
                          QStringLiteral("!! 2 unexpected bytes before the version answer"),
                          QStringLiteral("<- version answer \"V4.2\""),
                          QStringLiteral("<- unexpected bytes"),
                          QStringLiteral("!! 1 unexpected bytes from 0xa5 on")}));
}

void TestLineDecoder::controlBytesAreNamed_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("meaning");
    const auto row = [](const char *name, const QByteArray &bytes) {
        QTest::newRow(name) << bytes << QString::fromLatin1(name);
    };
    row("ACK", hex("06"));
    row("NAK", hex("15"));
    row("CA CA", hex("1818"));
    row("CA", hex("18"));
    row("ACK and 'C'", hex("06434343"));
    row("'C' and ACK", hex("4306"));
    row("'C', asks for the data", hex("43"));
}

void TestLineDecoder::controlBytesAreNamed()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, meaning);
    Watched watched;
    watched.fromBoard("C");
    watched.pause();
    watched.toBoard(startFrame("app.bin", "5dc"));
    watched.takeTexts();
    watched.fromBoard(bytes);
    QCOMPARE(watched.takeTexts(), QStringList());
    watched.pause(Milliseconds(20));
    QCOMPARE(watched.takeTexts(), QStringList(QStringLiteral("<- ") + meaning));
}

void TestLineDecoder::consoleTextIsText()
{
    Watched watched;
    watched.fromBoard("Boot \"1\"\r\nC");
    watched.fromBoard("onsole> ");
    watched.toBoard("loady\r");
    watched.pause();
    QCOMPARE(watched.takeTexts(),
             (QStringList{QStringLiteral("<- console text \"Boot \\\"1\\\"\\r\\n\""),
                          QStringLiteral("-> text \"loady\\r\""),
                          QStringLiteral("<- console text \"Console> \"")}));
}

void TestLineDecoder::placeMarksAreText()
{
    Watched watched;
    watched.fromBoard("C");
    watched.toBoard(startFrame("%2%1", "5dc"));
    QCOMPARE(watched.takeTexts().last(),
             QStringLiteral("-> start frame: \"%2%1\", 1500 bytes (hex 5dc), blocks to come: 2"));
}

void TestLineDecoder::requestAfterTextBeginsANewBatch()
{
    Watched watched;
    for (const char *name : {"first", "second"}) {
        watched.fromBoard("## Ready\r\nC");
        watched.pause();
        for (const QByteArray &frame : wholeTransfer(firmwareOfSize(10))) {
            watched.toBoard(frame);
            watched.fromBoard(frame == eot() ? "\x06"
                                               "C"
                                             : "\x06");
        }
        watched.pause();
        QVERIFY2(watched.report.lastTransfer().complete, name);
        watched.fromBoard("## Total Size = 10\r\n");
    }
    QCOMPARE(watched.report.transfers.size(), 2);
    QVERIFY(watched.takeTexts().filter(QStringLiteral("!!")).isEmpty());
}

void TestLineDecoder::refusedFrameMayComeAgain()
{
    Watched watched;
    watched.fromBoard("C");
    const QByteArray frame = startFrame("app.bin", "5dc");
    watched.toBoard(frame);
    watched.fromBoard("\x15");
    watched.pause();
    watched.takeTexts();
    watched.toBoard(frame);
    QCOMPARE(
        watched.takeTexts(),
        QStringList(QStringLiteral("-> start frame: \"app.bin\", 1500 bytes (hex 5dc), blocks to "
                                   "come: 2, again")));
    watched.toBoard(dataBlock(1, firmwareOfSize(1024)));
    QCOMPARE(watched.takeTexts(),
             QStringList(QStringLiteral("-> block 1 of 2, 1024 bytes of data")));
}

void TestLineDecoder::bootLoaderMayStartUnseen()
{
    Watched watched;
    watched.toBoard(connectPacket());
    watched.fromBoard(packet(0xAE, 1));
    QCOMPARE(watched.takeTexts(),
             (QStringList{QStringLiteral("-> connect packet"),
                          QStringLiteral("<- connect packet answer")}));
}

void TestLineDecoder::endlessBytesAreCut()
{
    Watched watched;
    for (int i = 0; i < 100; ++i) {
        watched.toBoard(QByteArray(1000, '\x80'));
        watched.fromBoard(QByteArray(1000, '\x80'));
    }
    QVERIFY(watched.bytesToBoard.size() > 98000);
    QVERIFY(watched.bytesFromBoard.size() > 98000);

    Watched asked;
    for (int i = 0; i < 10; ++i)
        asked.fromBoard(QByteArray(1000, 'C'));
    QVERIFY(asked.bytesFromBoard.size() > 8000);
}

void TestLineDecoder::everyByteIsInOneEvent()
{
    std::mt19937 random(1); // NOLINT: the same bytes each time
    const QVector<QByteArray> parts{goodVersionQuery(),
                                    goodStartCommand(),
                                    connectPacket(),
                                    versionReply("V4"),
                                    startReply(),
                                    goodHandshakeV3(),
                                    startFrame("a", "9"),
                                    endFrame(),
                                    "C",
                                    "\x06",
                                    "text\n",
                                    hex("e7ff00"),
                                    dataBlock(1, "d"),
                                    eot(),
                                    hex("80e7e7")};
    Watched watched;
    QByteArray toBoard;
    QByteArray fromBoard;
    for (int i = 0; i < 3000; ++i) {
        QByteArray bytes = parts.at(static_cast<int>(random() % unsigned(parts.size())));
        if (random() % 4 == 0)
            bytes.truncate(static_cast<int>(random() % unsigned(bytes.size() + 1)));
        if (random() % 2 == 0) {
            watched.toBoard(bytes);
            toBoard += bytes;
        } else {
            watched.fromBoard(bytes);
            fromBoard += bytes;
        }
        watched.pause(Milliseconds(random() % 4 == 0 ? 300 : 1));
    }
    watched.decoder.flush();
    QCOMPARE(watched.bytesToBoard, toBoard);
    QCOMPARE(watched.bytesFromBoard, fromBoard);
    QVERIFY(!watched.decoder.deadline());
}

QTEST_GUILESS_MAIN(TestLineDecoder)
#include "tst_linedecoder.moc"
