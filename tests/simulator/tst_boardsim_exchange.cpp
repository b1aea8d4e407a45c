#include "handmadeframes.h"
#include "testboard.h"
#include "ymodemreceiver.h"

#include <QtTest>

using namespace boardsim;

namespace {

Options quickBoot()
{
    Options options;
    options.bootDelay = Milliseconds(0);
    return options;
}

/// Sends frame after frame, each once the one before it is answered. Returns the answers.
QVector<QByteArray> sendInTurn(AssistantLine &line, const QVector<QByteArray> &frames)
{
    QVector<QByteArray> answers;
    for (const QByteArray &frame : frames) {
        const bool asksForMore = &frame == &frames.first() || frame == eot();
        answers << line.exchange(frame, asksForMore ? 2 : 1);
    }
    return answers;
}

} // namespace

class TestBoardSimExchange : public QObject {
    Q_OBJECT

private slots:
    void crcHasItsCheckValue();
    void versionAnswerCarriesTheText_data();
    void versionAnswerCarriesTheText();
    void startAnswerAddsUpToItsFoot();
    void bootLoaderAsksUntilTheStartFrameComes();
    void bootLoaderWaitsForItsDelay();
    void imageIsReceived_data();
    void imageIsReceived();
    void imageIsReceivedOnAPacedLine();
    void answersAreFilledUpToTheControlRepeat();
    void furtherEndFramesGetNoAnswer();
    void commandEndsTheWaitForATransfer();
    void twoTransfersInOneRun();
    void lineSurvivesReopening();
    void paceDelaysBothDirections();
    void transcriptTellsEveryEvent();
    void shortTranscriptHasOneLineAFrame();
    void boardWithoutListenerRunsOn();
    void waitForGivesUp();
    void stopRemovesTheLink();
};

void TestBoardSimExchange::crcHasItsCheckValue()
{
    QCOMPARE(crc16("123456789"), quint16(0x31C3)); // the check value of CRC-16/XMODEM
    QCOMPARE(crc16(QByteArray(128, '\0')), quint16(0));
}

void TestBoardSimExchange::versionAnswerCarriesTheText_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("tail"); // from byte 16 on

    const QByteArray foot("\xe7");
    QTest::newRow("usual") << QByteArray("V4.1.3")
                           << QByteArray("V4.1.3") + QByteArray(12, '\0') + "\x6e" + foot;
    QTest::newRow("none") << QByteArray() << QByteArray(18, '\0') + "\x24" + foot;
    QTest::newRow("no zero after it")
        << QByteArray("123456789012345678") << QByteArray("123456789012345678\xd5") + foot;
    QTest::newRow("over the checksum")
        << QByteArray("1234567890123456789") << QByteArray("1234567890123456789") + foot;
}

void TestBoardSimExchange::versionAnswerCarriesTheText()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, tail);

    Options options;
    options.versionText = text;
    TestBoard board(options);

    const QByteArray answer = board.line.exchange(goodVersionQuery(), 36);
    QCOMPARE(answer.left(16), QByteArray::fromHex("e724") + QByteArray(14, '\0'));
    QCOMPARE(answer.mid(16).toHex(), tail.toHex());
    QVERIFY(board.await([](const Report &r) { return r.versionQueries == 1; }));
    QVERIFY(board.report().violations.isEmpty());
}

void TestBoardSimExchange::startAnswerAddsUpToItsFoot()
{
    TestBoard board;

    const QByteArray answer = board.line.exchange(goodStartCommand(), 18);
    QCOMPARE(answer.size(), 18);
    QCOMPARE(answer.left(2), QByteArray::fromHex("e712"));
    QCOMPARE(sumOf(answer.mid(1, 15)), 0xE7U);
    QCOMPARE(answer.right(2), QByteArray::fromHex("e7e7"));
    QCOMPARE(board.report().startCommands, 1);
}

void TestBoardSimExchange::bootLoaderAsksUntilTheStartFrameComes()
{
    Options options = quickBoot();
    options.requestInterval = Milliseconds(5);
    TestBoard board(options);

    QCOMPARE(board.line.exchange(goodStartCommand(), 18).size(), 18);
    QCOMPARE(board.line.receive(4), QByteArray("CCCC"));
    QVERIFY(board.line.send(startFrame("app.bin", "bb8")));
    QVERIFY(board.await([](const Report &r) { return r.lastTransfer().announcedSize == 3000; }));
    QVERIFY(board.awaitQuiet(Milliseconds(50)));
    const Report report = board.report();
    QCOMPARE(report.frames.last().bytes, kAckAndRequest);
    QCOMPARE(report.lastTransfer().fileName, QStringLiteral("app.bin"));
    QCOMPARE(report.lastTransfer().blocksExpected, 3);
}

void TestBoardSimExchange::bootLoaderWaitsForItsDelay()
{
    Options options;
    options.bootDelay = Milliseconds(300);
    TestBoard board(options);

    QCOMPARE(board.line.exchange(goodStartCommand(), 19).right(1), QByteArray("C"));
    const Report report = board.report();
    QCOMPARE(report.frames.size(), 3); // command, answer, 'C'
    QVERIFY(report.frames.at(2).ms - report.frames.at(1).ms >= 299);
}

void TestBoardSimExchange::imageIsReceived_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("blocks");

    QTest::newRow("one byte") << 1 << 1;
    QTest::newRow("short last block") << 3000 << 3;
    QTest::newRow("one byte less than a block") << 1023 << 1;
    QTest::newRow("one block and a block of padding") << 1024 << 2;
    QTest::newRow("two blocks and a block of padding") << 2048 << 3;
    QTest::newRow("one byte more than two blocks") << 2049 << 3;
    QTest::newRow("block number wraps") << 300 * 1024 + 7 << 301;
}

void TestBoardSimExchange::imageIsReceived()
{
    QFETCH(int, size);
    QFETCH(int, blocks);

    const QTemporaryDir directory;
    Options options = inBootLoader();
    options.imageFile = directory.filePath(QStringLiteral("image.bin"));
    TestBoard board(options);
    const QByteArray image = firmwareOfSize(size);

    QCOMPARE(board.line.receive(1), QByteArray("C"));
    const QVector<QByteArray> answers = sendInTurn(board.line, wholeTransfer(image));
    QCOMPARE(answers.size(), blocks + 3);
    QCOMPARE(answers.first(), kAckAndRequest);
    QCOMPARE(answers.mid(1, blocks), QVector<QByteArray>(blocks, kAckReply));
    QCOMPARE(answers.at(blocks + 1), kAckAndRequest);
    QCOMPARE(answers.last(), kAckReply);

    board.stop();
    const Report report = board.report();
    QVERIFY(report.violations.isEmpty());
    QCOMPARE(report.transfers.size(), 1);
    const Transfer &transfer = report.transfers.first();
    QCOMPARE(transfer.announcedSize, size);
    QCOMPARE(transfer.blocksReceived, blocks);
    QVERIFY(transfer.eotReceived);
    QVERIFY(transfer.complete);
    QCOMPARE(transfer.image, image);
    QFile file(options.imageFile);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), image);
}

void TestBoardSimExchange::imageIsReceivedOnAPacedLine()
{
    Options options = inBootLoader();
    options.baud = 115200;
    TestBoard board(options);
    const QByteArray image = firmwareOfSize(3000);

    QCOMPARE(board.line.receive(1), QByteArray("C"));
    sendInTurn(board.line, wholeTransfer(image));
    board.stop();
    QVERIFY(board.report().violations.isEmpty());
    QCOMPARE(board.report().lastTransfer().image, image);
}

void TestBoardSimExchange::answersAreFilledUpToTheControlRepeat()
{
    Options options = inBootLoader();
    options.controlRepeat = 10;
    TestBoard board(options);

    QCOMPARE(board.line.receive(10), QByteArray("CCCCCCCCCC"));
    const QVector<QByteArray> frames = wholeTransfer("abc");
    QCOMPARE(board.line.exchange(frames.at(0), 10), kAckReply + "CCCCCCCCC");
    QCOMPARE(board.line.exchange(frames.at(1), 10), QByteArray(10, '\x06'));
    QCOMPARE(board.line.exchange(frames.at(2), 10), kAckReply + "CCCCCCCCC");
    QCOMPARE(board.line.exchange(frames.at(3), 10), QByteArray(10, '\x06'));
}

void TestBoardSimExchange::furtherEndFramesGetNoAnswer()
{
    TestBoard board(inBootLoader());
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    sendInTurn(board.line, wholeTransfer("abc"));

    QVERIFY(board.line.send(endFrame()));
    QVERIFY(board.line.send(endFrame()));
    QVERIFY(board.await([](const Report &r) { return r.lastTransfer().extraEndFrames == 2; }));
    const Report report = board.report();
    QVERIFY(report.violations.isEmpty());
    QVERIFY(report.frames.last().toBoard);
    // The board is in its application again, and the first answer to come is that one's.
    QCOMPARE(board.line.exchange(goodVersionQuery(), 36).mid(16, 6), QByteArray("V4.1.3"));
}

void TestBoardSimExchange::commandEndsTheWaitForATransfer()
{
    TestBoard board(inBootLoader());
    QCOMPARE(board.line.receive(1), QByteArray("C"));

    QCOMPARE(board.line.exchange(goodVersionQuery(), 36).mid(16, 6), QByteArray("V4.1.3"));
    QVERIFY(board.report().violations.isEmpty());
    QVERIFY(board.line.send(startFrame("app.bin", "3")));
    QVERIFY(board.awaitViolations(1));
}

void TestBoardSimExchange::twoTransfersInOneRun()
{
    TestBoard board(quickBoot());

    for (const char *image : {"first", "second"}) {
        QCOMPARE(board.line.exchange(goodStartCommand(), 19).right(1), QByteArray("C"));
        sendInTurn(board.line, wholeTransfer(image));
    }
    const Report report = board.report();
    QVERIFY(report.violations.isEmpty());
    QCOMPARE(report.transfers.size(), 2);
    QCOMPARE(report.transfers.at(0).image, QByteArray("first"));
    QCOMPARE(report.transfers.at(1).image, QByteArray("second"));
}

void TestBoardSimExchange::lineSurvivesReopening()
{
    BoardSimulator board;
    QVERIFY(board.start());
    for (int i = 1; i <= 3; ++i) {
        AssistantLine line(board.slaveName());
        QVERIFY(line.isOpen());
        QCOMPARE(line.exchange(goodVersionQuery(), 36).size(), 36);
        QCOMPARE(board.report().versionQueries, i);
    }
}

void TestBoardSimExchange::paceDelaysBothDirections()
{
    Options options;
    options.baud = 1200;
    TestBoard board(options);

    QElapsedTimer timer;
    timer.start();
    QCOMPARE(board.line.exchange(goodVersionQuery(), 36).size(), 36);
    QVERIFY(timer.elapsed() >= (30 + 36) * 10 * 1000 / 1200);
    const Report report = board.report();
    QCOMPARE(report.frames.size(), 2);
    QVERIFY(report.frames.at(1).ms - report.frames.at(0).ms >= 36 * 10 * 1000 / 1200 - 1);
}

void TestBoardSimExchange::transcriptTellsEveryEvent()
{
    QByteArrayList lines;
    Options options = inBootLoader();
    options.transcript = [&lines](const QByteArray &line) { lines << line.mid(10); };
    TestBoard board(options);
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    sendInTurn(board.line, wholeTransfer("abc"));
    board.stop();

    const QByteArrayList expected{
        "-- board is on, version text \"V4.1.3\"",
        "-- board enters its boot loader",
        "<- 'C', asks for the start frame (1 byte): 43",
        "-> start frame: \"app.bin\", 3 bytes (hex 3), blocks to come: 1 (133 bytes):",
        "     0000: 01 00 ff 61 70 70 2e 62 69 6e 00 33" + QByteArray(" 00").repeated(20),
        "     0032:" + QByteArray(" 00").repeated(32),
        "     0064:" + QByteArray(" 00").repeated(32),
        "     0096:" + QByteArray(" 00").repeated(32),
        "     0128: 00 00 00 8a 47",
        "<- ACK and 'C' (2 bytes): 06 43",
        "-> block 1 of 1, 3 bytes of data (1029 bytes):",
        "     0000: 02 01 fe 61 62 63" + QByteArray(" 1a").repeated(26),
    };
    QCOMPARE(lines.mid(0, 4), expected.mid(0, 4));
    QCOMPARE(lines.at(4), expected.at(4));
    QCOMPARE(lines.mid(5, 3), expected.mid(5, 3));
    QVERIFY(lines.at(8).startsWith("     0128: 00 00 00 "));
    QCOMPARE(lines.mid(9, 3), expected.mid(9, 3));
    QVERIFY(lines.contains("<- ACK (1 byte): 06"));
    QVERIFY(lines.contains("-> EOT (1 byte): 04"));
    QVERIFY(lines.contains("-- transfer is complete, image of 3 bytes"));
    QCOMPARE(lines.last(), QByteArray("-- board is off"));
}

void TestBoardSimExchange::shortTranscriptHasOneLineAFrame()
{
    QByteArrayList lines;
    Options options = inBootLoader();
    options.hexStyle = HexStyle::Short;
    options.transcript = [&lines](const QByteArray &line) { lines << line.mid(10); };
    TestBoard board(options);
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    sendInTurn(board.line, wholeTransfer("abc"));
    board.stop();

    QVERIFY(lines.contains("-> end frame (133 bytes): 01 00 ff 00 00 00 00 00 00 00 00 00 ... "
                           "00 00 00 00 00 00"));
    QCOMPARE(lines.size(), 13); // on, boot loader, 'C', four frames with answers, complete, off
}

void TestBoardSimExchange::boardWithoutListenerRunsOn()
{
    constexpr Milliseconds kPatience{10000};
    Options options = inBootLoader();
    options.requestInterval = Milliseconds(1);
    options.controlRepeat = 1000;
    BoardSimulator board(options);
    QVERIFY(board.start());
    // Far more than the line can hold.
    QVERIFY(board.waitFor([](const Report &r) { return r.frames.size() > 200; }, kPatience));
    AssistantLine line(board.slaveName());
    QVERIFY(line.send(startFrame("app.bin", "3")));
    QVERIFY(board.waitFor([](const Report &r) { return r.lastTransfer().announcedSize == 3; },
                          kPatience));
    QVERIFY(!board.hasFailed());
}

void TestBoardSimExchange::waitForGivesUp()
{
    BoardSimulator board;
    QVERIFY(board.start());
    QVERIFY(!board.waitFor([](const Report &r) { return r.versionQueries > 0; }, Milliseconds(20)));
    QVERIFY(!board.waitForQuiet(Milliseconds(60000), Milliseconds(20)));
}

void TestBoardSimExchange::stopRemovesTheLink()
{
    const QTemporaryDir directory;
    Options options;
    options.linkPath = directory.filePath(QStringLiteral("board"));
    {
        BoardSimulator board(options);
        QVERIFY(board.start());
        QCOMPARE(QFile::symLinkTarget(options.linkPath), board.slaveName());
        AssistantLine line(options.linkPath);
        QCOMPARE(line.exchange(goodVersionQuery(), 36).size(), 36);
    }
    QVERIFY(!QFileInfo(options.linkPath).isSymLink());
}

QTEST_GUILESS_MAIN(TestBoardSimExchange)
#include "tst_boardsim_exchange.moc"
