#include "handmadeframes.h"
#include "testboard.h"

#include <QtTest>

using namespace boardsim;

namespace {

void addChangedCommands(const QByteArray &command)
{
    for (int i = 0; i < command.size(); ++i)
        QTest::addRow("byte %d", i) << changed(command, i);
    for (int i = 2; i < command.size() - 2; ++i)
        QTest::addRow("byte %d, checksum fits", i) << changedAndSealed(command, i);
}

} // namespace

class TestBoardSimStrict : public QObject {
    Q_OBJECT

private slots:
    void everyByteOfTheVersionQueryCounts_data();
    void everyByteOfTheVersionQueryCounts();
    void everyByteOfTheStartCommandCounts_data();
    void everyByteOfTheStartCommandCounts();
    void badByteIsNamed_data();
    void badByteIsNamed();
    void malformedFramesOfATransferAreRefused_data();
    void malformedFramesOfATransferAreRefused();
    void everyByteOfABlockCounts_data();
    void everyByteOfABlockCounts();
    void earlyEotIsReportedAndTaken();
    void refusedBlockCanBeSentAgain();
    void unexpectedBytesAreReported_data();
    void unexpectedBytesAreReported();
    void cutFrameIsReported_data();
    void cutFrameIsReported();
    void frameThatIsCutAtTheEndIsReported();
    void badFurtherEndFrameIsReported();
    void commandAmongTheDataIsReported();
};

void TestBoardSimStrict::everyByteOfTheVersionQueryCounts_data()
{
    QTest::addColumn<QByteArray>("frame");
    addChangedCommands(goodVersionQuery());
}

void TestBoardSimStrict::everyByteOfTheVersionQueryCounts()
{
    QFETCH(QByteArray, frame);
    TestBoard board(quickToNotice());

    QVERIFY(board.refuses(frame));
    board.stop();
    QVERIFY(board.report().hasUnexplainedViolation());
    QCOMPARE(board.sent().size(), 0);
    QCOMPARE(board.report().versionQueries, 0);
}

void TestBoardSimStrict::everyByteOfTheStartCommandCounts_data()
{
    QTest::addColumn<QByteArray>("frame");
    addChangedCommands(goodStartCommand());
}

void TestBoardSimStrict::everyByteOfTheStartCommandCounts()
{
    QFETCH(QByteArray, frame);
    TestBoard board(quickToNotice());

    QVERIFY(board.refuses(frame));
    board.stop();
    QCOMPARE(board.sent().size(), 0);
    QCOMPARE(board.report().startCommands, 0);
    QVERIFY(board.report().transfers.isEmpty());
}

void TestBoardSimStrict::badByteIsNamed_data()
{
    QTest::addColumn<int>("offset");
    QTest::addColumn<QString>("text");

    QTest::newRow("marker") << 2 << QStringLiteral("marker byte 2 is 0xfe, not 0xff");
    QTest::newRow("zero") << 3 << QStringLiteral("zero byte 3 is 0x01, not 0x00");
    QTest::newRow("command") << 12 << QStringLiteral("command code is 0x0e, not 0x0f");
    QTest::newRow("fixed") << 14 << QStringLiteral("fixed byte 14 is 0x36, not 0x37");
    QTest::newRow("checksum") << 28 << QStringLiteral("checksum is 0xdc, not 0xdd");
    QTest::newRow("foot") << 29 << QStringLiteral("foot is 0xe6, not 0xe7");
    QTest::newRow("length") << 1
                            << QStringLiteral(
                                   "frame of 30 bytes with length byte 0x1f is no command here");
}

void TestBoardSimStrict::badByteIsNamed()
{
    QFETCH(int, offset);
    QFETCH(QString, text);
    TestBoard board(quickToNotice());

    QVERIFY(board.refuses(changed(goodVersionQuery(), offset)));
    QCOMPARE(board.violation(), text);
}

void TestBoardSimStrict::malformedFramesOfATransferAreRefused_data()
{
    QTest::addColumn<QVector<QByteArray>>("before"); // good ones
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QString>("text");

    using Frames = QVector<QByteArray>;
    const Frames nothing;
    const Frames started{startFrame("app.bin", "bb8")}; // 3000 bytes
    const Frames blocks{started.first(), dataBlock(1, QByteArray(1024, 'a')),
                        dataBlock(2, QByteArray(1024, 'b'))};
    const Frames all = Frames(blocks) << dataBlock(3, QByteArray(952, 'c'));
    const Frames ended = Frames(all) << eot();

    const auto text = [](const char *latin1) { return QString::fromLatin1(latin1); };
    QTest::newRow("start frame without a name")
        << nothing << startFrame("", "bb8") << text("file name is empty");
    QTest::newRow("name without an end") << nothing << shortBlock(0, QByteArray(128, 'a'))
                                         << text("file name has no zero byte at its end");
    QTest::newRow("name with a blank")
        << nothing << startFrame("app bin", "bb8") << text("file name is not printable ASCII");
    QTest::newRow("no size") << nothing << startFrame("app.bin", "")
                             << text("size text \"\" is not a hexadecimal number above 0");
    QTest::newRow("size 0") << nothing << startFrame("app.bin", "0")
                            << text("size text \"0\" is not a hexadecimal number above 0");
    QTest::newRow("size with a leading zero")
        << nothing << startFrame("app.bin", "0bb8")
        << text("size text \"0bb8\" is not a hexadecimal number above 0");
    QTest::newRow("size with a prefix")
        << nothing << startFrame("app.bin", "0xbb8")
        << text("size text \"0xbb8\" is not a hexadecimal number above 0");
    QTest::newRow("size in upper case")
        << nothing << startFrame("app.bin", "BB8")
        << text("size text \"BB8\" is not a hexadecimal number above 0");
    QTest::newRow("size without an end")
        << nothing << shortBlock(0, "app.bin" + QByteArray(1, '\0') + QByteArray(120, '1'))
        << text("size text has no zero byte at its end");
    QTest::newRow("rest of the start frame")
        << nothing << shortBlock(0, QByteArray("app.bin\0bb8\0\0x", 14))
        << text("start frame is not filled up with zeros");
    QTest::newRow("number of the start frame")
        << nothing << shortBlock(1, QByteArray("app.bin\0bb8", 11))
        << text("block number is 1, not 0");
    QTest::newRow("data before the start frame")
        << nothing << dataBlock(1, "a") << text("data block where the start frame should come");
    QTest::newRow("EOT before the start frame") << nothing << eot() << text("EOT out of turn");

    QTest::newRow("block left out")
        << started << dataBlock(2, QByteArray(1024, 'a')) << text("block number is 2, not 1");
    QTest::newRow("block again") << blocks << dataBlock(2, QByteArray(1024, 'a'))
                                 << text("block number is 2, not 3");
    QTest::newRow("short block among the data")
        << started << shortBlock(1, QByteArray(128, 'a'))
        << text("128-byte block where 1024-byte blocks are sent");
    QTest::newRow("padding of the last block")
        << blocks << dataBlock(3, QByteArray(953, 'c'))
        << text("last block is not filled up with 0x1a behind byte 952");
    QTest::newRow("block too many")
        << all << dataBlock(4, "") << text("data block after the last one, EOT should come");
    QTest::newRow("start frame instead of EOT")
        << all << endFrame() << text("128-byte block where 1024-byte blocks are sent");

    QTest::newRow("data instead of the end frame")
        << ended << dataBlock(4, "") << text("data block where the end frame should come");
    QTest::newRow("second EOT") << ended << eot() << text("EOT out of turn");
    QTest::newRow("end frame that is not empty")
        << ended << shortBlock(0, "a") << text("payload of the end frame is not all zeros");
    QTest::newRow("number of the end frame")
        << ended << shortBlock(1, "") << text("block number is 1, not 0");
}

void TestBoardSimStrict::malformedFramesOfATransferAreRefused()
{
    QFETCH(QVector<QByteArray>, before);
    QFETCH(QByteArray, frame);
    QFETCH(QString, text);

    TestBoard board(inBootLoader(quickToNotice()));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    for (const QByteArray &good : before)
        board.line.exchange(good, good == before.first() || good == eot() ? 2 : 1);
    QVERIFY(board.report().violations.isEmpty());

    QCOMPARE(board.line.exchange(frame, 1), kNakReply);
    const Report report = board.report();
    QCOMPARE(report.violations.size(), 1);
    QCOMPARE(board.violation(), text);
    QVERIFY(report.hasUnexplainedViolation());
    QVERIFY(!report.lastTransfer().complete);
}

void TestBoardSimStrict::everyByteOfABlockCounts_data()
{
    QTest::addColumn<int>("offset");
    QTest::addColumn<QString>("text");

    const QString crc = QStringLiteral("CRC is 0x");
    QTest::newRow("number") << 1 << QStringLiteral("block number is 0, not 1");
    QTest::newRow("complement") << 2
                                << QStringLiteral("complement 0xff does not fit block number 0x01");
    QTest::newRow("first byte of data") << 3 << crc;
    QTest::newRow("last byte of data") << 1026 << crc;
    QTest::newRow("CRC high") << 1027 << crc;
    QTest::newRow("CRC low") << 1028 << crc;
}

void TestBoardSimStrict::everyByteOfABlockCounts()
{
    QFETCH(int, offset);
    QFETCH(QString, text);

    TestBoard board(inBootLoader());
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(startFrame("app.bin", "bb8"), 2).size(), 2);

    QCOMPARE(board.line.exchange(changed(dataBlock(1, firmwareOfSize(1024)), offset), 1),
             kNakReply);
    const Report report = board.report();
    QVERIFY2(board.violation().startsWith(text), qPrintable(board.violation()));
    QCOMPARE(report.lastTransfer().blocksReceived, 0);
}

void TestBoardSimStrict::earlyEotIsReportedAndTaken()
{
    TestBoard board(inBootLoader());
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(startFrame("app.bin", "400"), 2).size(), 2);
    QCOMPARE(board.line.exchange(dataBlock(1, firmwareOfSize(1024)), 1).size(), 1);

    // The extra block of padding is missing.
    QCOMPARE(board.line.exchange(eot(), 2),
             QByteArray("\x06"
                        "C"));
    QCOMPARE(board.violation(), QStringLiteral("EOT after 1 of 2 blocks"));
}

void TestBoardSimStrict::refusedBlockCanBeSentAgain()
{
    TestBoard board(inBootLoader());
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(startFrame("app.bin", "3"), 2).size(), 2);

    const QByteArray block = dataBlock(1, "abc");
    QCOMPARE(board.line.exchange(changed(block, 3), 1), kNakReply);
    QCOMPARE(board.line.exchange(block, 1), QByteArray("\x06"));
    QCOMPARE(board.report().lastTransfer().image, QByteArray("abc"));
}

void TestBoardSimStrict::unexpectedBytesAreReported_data()
{
    QTest::addColumn<bool>("inBootLoader");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("text");

    const QString one = QStringLiteral("1 unexpected bytes from 0x%1 on");
    QTest::newRow("ACK to the application")
        << false << QByteArray("\x06") << one.arg(QStringLiteral("06"));
    QTest::newRow("start frame to the application")
        << false << startFrame("app.bin", "3")
        << QStringLiteral("133 unexpected bytes from 0x01 on");
    QTest::newRow("byte after a version query")
        << false << goodVersionQuery() + "x" << one.arg(QStringLiteral("78"));
    QTest::newRow("text to the boot loader")
        << true << QByteArray("hello") << QStringLiteral("5 unexpected bytes from 0x68 on");
    QTest::newRow("wrong head of a block") << true << QByteArray("\x03") + dataBlock(1, "a").mid(1)
                                           << QStringLiteral("1029 unexpected bytes from 0x03 on");
}

void TestBoardSimStrict::unexpectedBytesAreReported()
{
    QFETCH(bool, inBootLoader);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, text);

    Options options = quickToNotice();
    options.startInBootLoader = inBootLoader;
    TestBoard board(options);

    QVERIFY(board.refuses(bytes));
    QCOMPARE(board.report().violations.size(), 1);
    QCOMPARE(board.violation(), text);
}

void TestBoardSimStrict::cutFrameIsReported_data()
{
    QTest::addColumn<bool>("inBootLoader");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("text");

    QTest::newRow("head only") << false << QByteArray("\xe7")
                               << QStringLiteral("frame broke off after 1 bytes");
    QTest::newRow("version query without its foot")
        << false << goodVersionQuery().left(29)
        << QStringLiteral("frame broke off after 29 of 30 bytes");
    QTest::newRow("start frame without its CRC")
        << true << startFrame("app.bin", "3").left(131)
        << QStringLiteral("frame broke off after 131 of 133 bytes");
}

void TestBoardSimStrict::cutFrameIsReported()
{
    QFETCH(bool, inBootLoader);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, text);

    Options options = quickToNotice();
    options.startInBootLoader = inBootLoader;
    TestBoard board(options);
    if (inBootLoader)
        QCOMPARE(board.line.receive(1), QByteArray("C"));

    QVERIFY(board.refuses(bytes));
    QCOMPARE(board.violation(), text);
    if (inBootLoader)
        QCOMPARE(board.line.receive(1), kNakReply);
}

void TestBoardSimStrict::frameThatIsCutAtTheEndIsReported()
{
    Options options;
    options.frameGap = Milliseconds(60000);
    TestBoard board(options);

    // The answer shows that what is in front of the cut frame has been read, and with it that.
    QVERIFY(board.line.send(goodVersionQuery() + goodVersionQuery().left(7)));
    QCOMPARE(board.line.receive(36).size(), 36);
    board.stop();
    QCOMPARE(board.violation(), QStringLiteral("frame broke off after 7 of 30 bytes"));
}

void TestBoardSimStrict::badFurtherEndFrameIsReported()
{
    TestBoard board(inBootLoader());
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    for (const QByteArray &frame : wholeTransfer("abc"))
        QVERIFY(!board.line.exchange(frame, 1).isEmpty());

    QVERIFY(board.refuses(shortBlock(0, "app.bin")));
    QCOMPARE(board.violation(), QStringLiteral("payload of the end frame is not all zeros"));
}

void TestBoardSimStrict::commandAmongTheDataIsReported()
{
    TestBoard board(inBootLoader(quickToNotice()));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(startFrame("app.bin", "3"), 2).size(), 2);

    QVERIFY(board.refuses(goodVersionQuery()));
    QCOMPARE(board.report().versionQueries, 0);
}

QTEST_GUILESS_MAIN(TestBoardSimStrict)
#include "tst_boardsim_strict.moc"
