#include "handmadeframes.h"
#include "testboard.h"

#include <QtTest>

using namespace boardsim;

namespace {

// A board of "V4.1.3".
const QByteArray kVersionAnswer = QByteArray::fromHex("e724") + QByteArray(14, '\0') + "V4.1.3"
    + QByteArray(12, '\0') + QByteArray::fromHex("6ee7");

Options withFaults(const QByteArrayList &faults)
{
    Options options = quickToNotice(faults);
    options.bootDelay = Milliseconds(0);
    return options;
}

} // namespace

class TestBoardSimFaults : public QObject {
    Q_OBJECT

private slots:
    void commandAnswerIsSpoilt_data();
    void commandAnswerIsSpoilt();
    void wrongChecksumSpoilsTheStartAnswersSum();
    void controlAnswerIsChanged_data();
    void controlAnswerIsChanged();
    void placeOfABlockIsMet_data();
    void placeOfABlockIsMet();
    void faultWithoutPlaceHappensEverywhere();
    void controlRepeatHoldsForFaultsToo();
    void slowAnswerComesLate();
    void splitAnswerComesInSingleBytes();
    void splitPartsAnswerInTime();
    void mergedAnswerComesWithTheNext();
    void startCommandWithoutAnswerEntersTheBootLoader();
    void silentBoardSaysNothingAnyMore();
    void silentBootLoaderNeverAsks();
    void refusalIsFollowedByTheProperAnswer_data();
    void refusalIsFollowedByTheProperAnswer();
    void lostAckStillTakesTheBlock();
    void repeatedControlEndsWithTheNextFrame();
    void lostBytesBreakTheFrame();
    void hangUpInTheFrame_data();
    void hangUpInTheFrame();
    void hangUpInTheAnswer_data();
    void hangUpInTheAnswer();
    void consoleTextFollowsTheTransfer();
    void faultsCombine();
    void faultExplainsViolationsOfItsExchangeOnly();
    void unknownFaultsAreRefused_data();
    void unknownFaultsAreRefused();
};

void TestBoardSimFaults::commandAnswerIsSpoilt_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<QByteArray>("expected");

    const auto with = [](int offset, const char *hex) {
        QByteArray answer = kVersionAnswer;
        return answer.replace(offset, 1, QByteArray::fromHex(hex));
    };
    QTest::newRow("head") << QByteArray("wrong-head@version") << with(0, "e6");
    QTest::newRow("this head") << QByteArray("wrong-head=00@version") << with(0, "00");
    QTest::newRow("length") << QByteArray("wrong-length@version") << with(1, "25");
    QTest::newRow("this length") << QByteArray("wrong-length=1F@version") << with(1, "1f");
    QTest::newRow("checksum") << QByteArray("wrong-checksum@version") << with(33, "01");
    QTest::newRow("foot") << QByteArray("wrong-foot@version") << with(35, "e6");
    QTest::newRow("this foot") << QByteArray("wrong-foot=7e@version") << with(35, "7e");
    QTest::newRow("garbage before")
        << QByteArray("garbage-before@version") << QByteArray::fromHex("a55a") + kVersionAnswer;
    QTest::newRow("this garbage after") << QByteArray("garbage-after=010203@version")
                                        << kVersionAnswer + QByteArray::fromHex("010203");
    QTest::newRow("last byte lost") << QByteArray("drop-bytes@version") << kVersionAnswer.left(35);
    QTest::newRow("bytes lost") << QByteArray("drop-bytes=30@version") << kVersionAnswer.left(6);
}

void TestBoardSimFaults::commandAnswerIsSpoilt()
{
    QFETCH(QByteArray, fault);
    QFETCH(QByteArray, expected);

    TestBoard board(withFaults({fault}));
    QCOMPARE(board.line.exchange(goodVersionQuery(), expected.size()).toHex(), expected.toHex());
    board.stop();
    const Report report = board.report();
    QCOMPARE(board.sent(), QByteArrayList{expected});
    QCOMPARE(report.faultsMade, QStringList{QString::fromLatin1(fault)});
    QVERIFY(report.violations.isEmpty());
}

void TestBoardSimFaults::wrongChecksumSpoilsTheStartAnswersSum()
{
    TestBoard board(withFaults({"wrong-checksum@start-command"}));
    QCOMPARE(board.line.exchange(goodVersionQuery(), 36), kVersionAnswer);
    const QByteArray answer = board.line.exchange(goodStartCommand(), 18);
    QCOMPARE(sumOf(answer.mid(1, 15)), 0xE8U);
    QCOMPARE(answer.right(2), QByteArray::fromHex("e7e7"));
}

void TestBoardSimFaults::controlAnswerIsChanged_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<int>("step"); // the frame whose answer is changed
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("NAK for the start frame") << QByteArray("nak@start-frame") << 0 << kNakReply;
    QTest::newRow("NAK for a block") << QByteArray("nak@block:1") << 1 << kNakReply;
    QTest::newRow("NAK for EOT") << QByteArray("nak@eot") << 2 << kNakReply;
    QTest::newRow("NAK for the end frame") << QByteArray("nak@end") << 3 << kNakReply;
    QTest::newRow("CA") << QByteArray("cancel@block:1") << 1 << QByteArray("\x18\x18");
    QTest::newRow("ACK twice") << QByteArray("repeat-ack@block:1") << 1 << kAckReply + kAckReply;
    QTest::newRow("ACK three times")
        << QByteArray("repeat-ack=3@end") << 3 << kAckReply.repeated(3);
    QTest::newRow("ACK and C") << QByteArray("ack-c@block:1") << 1 << kAckAndRequest;
    QTest::newRow("C and ACK") << QByteArray("ack-c=c-first@start-frame") << 0
                               << QByteArray("C\x06");
    QTest::newRow("garbage before the ACK") << QByteArray("garbage-before=00ff@eot") << 2
                                            << QByteArray("\0\xff\x06"
                                                          "C",
                                                          4);
    QTest::newRow("only the C is lost") << QByteArray("drop-bytes@start-frame") << 0 << kAckReply;
}

void TestBoardSimFaults::controlAnswerIsChanged()
{
    QFETCH(QByteArray, fault);
    QFETCH(int, step);
    QFETCH(QByteArray, expected);

    TestBoard board(inBootLoader(withFaults({fault})));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QVector<QByteArray> answers{kAckAndRequest, kAckReply, kAckAndRequest, kAckReply};
    answers[step] = expected;
    const QVector<QByteArray> frames = wholeTransfer("abc");
    for (int i = 0; i < frames.size(); ++i)
        QCOMPARE(board.line.exchange(frames.at(i), answers.at(i).size()).toHex(),
                 answers.at(i).toHex());
    const Report report = board.report();
    QVERIFY(report.lastTransfer().complete);
    QCOMPARE(report.faultsMade, QStringList{QString::fromLatin1(fault)});
}

void TestBoardSimFaults::placeOfABlockIsMet_data()
{
    QTest::addColumn<QByteArray>("place");
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("block");

    QTest::newRow("first") << QByteArray("block:first") << 4000 << 1;
    QTest::newRow("middle of four") << QByteArray("block:middle") << 4000 << 2;
    QTest::newRow("middle of five") << QByteArray("block:middle") << 5000 << 3;
    QTest::newRow("middle of one") << QByteArray("block:middle") << 10 << 1;
    QTest::newRow("last") << QByteArray("block:last") << 4000 << 4;
    QTest::newRow("last is the extra one") << QByteArray("block:last") << 4096 << 5;
    QTest::newRow("by number") << QByteArray("block:3") << 4000 << 3;
}

void TestBoardSimFaults::placeOfABlockIsMet()
{
    QFETCH(QByteArray, place);
    QFETCH(int, size);
    QFETCH(int, block);

    const QByteArray fault = "nak@" + place;
    TestBoard board(inBootLoader(withFaults({fault})));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    const QVector<QByteArray> frames = wholeTransfer(firmwareOfSize(size));
    QCOMPARE(board.line.exchange(frames.first(), 2), kAckAndRequest);
    for (int i = 1; i <= size / 1024 + 1; ++i)
        QCOMPARE(board.line.exchange(frames.at(i), 1), i == block ? kNakReply : kAckReply);
}

void TestBoardSimFaults::faultWithoutPlaceHappensEverywhere()
{
    TestBoard board(inBootLoader(withFaults({"nak"})));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    for (const QByteArray &frame : wholeTransfer("abc"))
        QCOMPARE(board.line.exchange(frame, 1), kNakReply);
    QCOMPARE(board.report().faultsMade.size(), 4);
    QCOMPARE(board.line.exchange(goodVersionQuery(), 36), kVersionAnswer);
}

void TestBoardSimFaults::controlRepeatHoldsForFaultsToo()
{
    Options options =
        inBootLoader(withFaults({"repeat-ack@start-frame", "cancel@block:1", "ack-c@end"}));
    options.controlRepeat = 3;
    TestBoard board(options);
    QCOMPARE(board.line.receive(3), QByteArray("CCC"));
    const QVector<QByteArray> frames = wholeTransfer("abc");
    QCOMPARE(board.line.exchange(frames.at(0), 6),
             QByteArray("\x06"
                        "CC\x06"
                        "CC"));
    QCOMPARE(board.line.exchange(frames.at(1), 3), QByteArray("\x18\x18\x18"));
    QCOMPARE(board.line.exchange(frames.at(2), 3), kAckAndRequest + "C");
    QCOMPARE(board.line.exchange(frames.at(3), 3), kAckAndRequest + "C");
}

void TestBoardSimFaults::slowAnswerComesLate()
{
    TestBoard board(withFaults({"slow=200@version"}));
    QCOMPARE(board.line.exchange(goodVersionQuery(), 36), kVersionAnswer);
    const auto frames = board.report().frames;
    QCOMPARE(frames.size(), 2);
    QVERIFY(frames.at(1).ms - frames.at(0).ms >= 199);
}

void TestBoardSimFaults::splitAnswerComesInSingleBytes()
{
    TestBoard board(withFaults({"split@version"}));
    QCOMPARE(board.line.exchange(goodVersionQuery(), 36), kVersionAnswer);
    QVERIFY(board.awaitSent(36));
    const QByteArrayList sent = board.sent();
    QCOMPARE(sent.size(), 36);
    QCOMPARE(sent.join(), kVersionAnswer);
}

void TestBoardSimFaults::splitPartsAnswerInTime()
{
    TestBoard board(inBootLoader(withFaults({"split=150@start-frame"})));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(startFrame("app.bin", "3"), 2), kAckAndRequest);
    QVERIFY(board.awaitSent(3));
    const auto frames = board.report().frames; // 'C', start frame, ACK, 'C'
    QCOMPARE(frames.size(), 4);
    QVERIFY(frames.at(3).ms - frames.at(2).ms >= 149);
}

void TestBoardSimFaults::mergedAnswerComesWithTheNext()
{
    Options options = withFaults({"merge@start-command"});
    options.requestInterval = Milliseconds(5);
    TestBoard board(options);
    const QByteArray answer = board.line.exchange(goodStartCommand(), 19);
    QCOMPARE(answer.left(2), QByteArray::fromHex("e712"));
    QCOMPARE(answer.right(2),
             QByteArray("\xe7"
                        "C"));
    QVERIFY(board.awaitSent(2));
    QCOMPARE(board.sent().mid(0, 2), (QByteArrayList{answer, "C"}));
}

void TestBoardSimFaults::startCommandWithoutAnswerEntersTheBootLoader()
{
    TestBoard board(withFaults({"no-start-answer"}));
    QCOMPARE(board.line.exchange(goodStartCommand(), 1), QByteArray("C"));
    QCOMPARE(board.report().startCommands, 1);
}

void TestBoardSimFaults::silentBoardSaysNothingAnyMore()
{
    Options options = withFaults({"silent@start-command"});
    options.requestInterval = Milliseconds(1);
    TestBoard board(options);
    QCOMPARE(board.line.exchange(goodVersionQuery(), 36), kVersionAnswer);

    QVERIFY(board.line.send(goodStartCommand()));
    QVERIFY(board.awaitFaults(1));
    QVERIFY(board.line.send(goodVersionQuery()));
    QVERIFY(board.await([](const Report &r) { return r.versionQueries == 2; }));
    board.stop();
    QCOMPARE(board.sent(), QByteArrayList{kVersionAnswer});
    QCOMPARE(board.report().faultsMade.size(), 1);
}

void TestBoardSimFaults::silentBootLoaderNeverAsks()
{
    TestBoard board(withFaults({"silent@start-frame"}));
    QCOMPARE(board.line.exchange(goodStartCommand(), 18).size(), 18);
    QVERIFY(board.awaitFaults(1));
    QVERIFY(board.line.send(startFrame("app.bin", "3")));
    QVERIFY(board.await([](const Report &r) { return r.lastTransfer().announcedSize == 3; }));
    board.stop();
    QCOMPARE(board.sent().size(), 1);
}

void TestBoardSimFaults::refusalIsFollowedByTheProperAnswer_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<QByteArray>("more");
    QTest::addColumn<QByteArray>("refusal");

    QTest::newRow("NAK") << QByteArray("nak=150@block:1") << QByteArray("slow=0@end") << kNakReply;
    QTest::newRow("CA") << QByteArray("cancel=150@block:1") << QByteArray("slow=0@end")
                        << QByteArray("\x18\x18");
    QTest::newRow("NAK, all split")
        << QByteArray("nak=150@block:1") << QByteArray("split@block:1") << kNakReply;
}

void TestBoardSimFaults::refusalIsFollowedByTheProperAnswer()
{
    QFETCH(QByteArray, fault);
    QFETCH(QByteArray, more);
    QFETCH(QByteArray, refusal);

    TestBoard board(inBootLoader(withFaults({fault, more})));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(startFrame("app.bin", "3"), 2), kAckAndRequest);
    QCOMPARE(board.line.exchange(dataBlock(1, "abc"), refusal.size() + 1), refusal + kAckReply);
    QVERIFY(board.awaitSent(4));
    const auto frames = board.report().frames;
    QVERIFY(frames.at(5).ms - frames.at(4).ms >= 149);
}

void TestBoardSimFaults::lostAckStillTakesTheBlock()
{
    TestBoard board(inBootLoader(withFaults({"lost-ack@block:1"})));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    const QVector<QByteArray> frames = wholeTransfer(firmwareOfSize(1500));
    QCOMPARE(board.line.exchange(frames.at(0), 2), kAckAndRequest);
    QVERIFY(board.line.send(frames.at(1)));
    QVERIFY(board.await([](const Report &r) { return r.lastTransfer().blocksReceived == 1; }));
    QCOMPARE(board.line.exchange(frames.at(2), 1), kAckReply);
    QCOMPARE(board.sent(), (QByteArrayList{"C", kAckAndRequest, kAckReply}));
}

void TestBoardSimFaults::repeatedControlEndsWithTheNextFrame()
{
    TestBoard board(inBootLoader(withFaults({"repeat-control=5@block:1"})));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    const QVector<QByteArray> frames = wholeTransfer("abc");
    QCOMPARE(board.line.exchange(frames.at(0), 2), kAckAndRequest);
    QCOMPARE(board.line.exchange(frames.at(1), 4), kAckReply.repeated(4));
    QVERIFY(board.line.send(frames.at(2)));
    QVERIFY(board.await([](const Report &r) { return r.lastTransfer().eotReceived; }));
    QVERIFY(board.awaitQuiet(Milliseconds(50)));
    QCOMPARE(board.sent().last(), kAckAndRequest);
}

void TestBoardSimFaults::lostBytesBreakTheFrame()
{
    TestBoard board(inBootLoader(withFaults({"lose-bytes=5@block:1"})));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(startFrame("app.bin", "3"), 2), kAckAndRequest);
    QCOMPARE(board.line.exchange(dataBlock(1, "abc"), 1), kNakReply);
    const Report report = board.report();
    QCOMPARE(report.violations.size(), 1);
    QCOMPARE(report.violations.first().text,
             QStringLiteral("frame broke off after 1024 of 1029 bytes"));
    QCOMPARE(report.violations.first().explainedBy, QStringLiteral("lose-bytes=5@block:1"));
    QVERIFY(!report.hasUnexplainedViolation());
}

void TestBoardSimFaults::hangUpInTheFrame_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::newRow("half of it") << QByteArray("hang-up@block:1");
    QTest::newRow("first byte") << QByteArray("hang-up=1@block:1");
    QTest::newRow("at a byte") << QByteArray("hang-up=500@block:1");
    QTest::newRow("last byte") << QByteArray("hang-up=1029@block:1");
}

void TestBoardSimFaults::hangUpInTheFrame()
{
    QFETCH(QByteArray, fault);
    TestBoard board(inBootLoader(withFaults({fault})));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(startFrame("app.bin", "3"), 2), kAckAndRequest);
    QVERIFY(board.line.send(dataBlock(1, "abc")));
    QVERIFY(board.line.waitForHangUp());
    const Report report = board.report();
    QVERIFY(report.hungUp);
    QCOMPARE(report.lastTransfer().blocksReceived, 0);
    QVERIFY(!report.hasUnexplainedViolation());
    QVERIFY(report.errors.isEmpty());
}

void TestBoardSimFaults::hangUpInTheAnswer_data()
{
    QTest::addColumn<QByteArray>("more");
    QTest::newRow("in one write") << QByteArray("slow=0@version");
    QTest::newRow("in single bytes") << QByteArray("split@version");
}

void TestBoardSimFaults::hangUpInTheAnswer()
{
    QFETCH(QByteArray, more);
    TestBoard board(withFaults({"hang-up=40@version", more}));
    QCOMPARE(board.line.exchange(goodVersionQuery(), 36), kVersionAnswer.left(10));
    QVERIFY(board.await([](const Report &r) { return r.hungUp; }));
    QCOMPARE(board.sent().join(), kVersionAnswer.left(10));
    QCOMPARE(board.report().faultsMade.size(), 2);
}

void TestBoardSimFaults::consoleTextFollowsTheTransfer()
{
    TestBoard board(inBootLoader(withFaults({"console=hello\\r\\n"})));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    const QVector<QByteArray> frames = wholeTransfer("abc");
    QCOMPARE(board.line.exchange(frames.at(0), 2), kAckAndRequest);
    QCOMPARE(board.line.exchange(frames.at(1), 1), kAckReply);
    QCOMPARE(board.line.exchange(frames.at(2), 2), kAckAndRequest);
    QCOMPARE(board.line.exchange(frames.at(3), 8), kAckReply + "hello\r\n");
}

void TestBoardSimFaults::faultsCombine()
{
    TestBoard board(withFaults(
        {"wrong-foot@version", "garbage-before=aa@version", "split@version", "slow=100@version"}));
    const QByteArray expected = "\xaa" + kVersionAnswer.left(35) + "\xe6";
    QCOMPARE(board.line.exchange(goodVersionQuery(), 37), expected);
    QVERIFY(board.awaitSent(37));
    const Report report = board.report();
    QCOMPARE(report.faultsMade.size(), 4);
    QVERIFY(report.frames.at(1).ms - report.frames.at(0).ms >= 99);
}

void TestBoardSimFaults::faultExplainsViolationsOfItsExchangeOnly()
{
    TestBoard board(withFaults({"wrong-foot@start-command"}));

    QCOMPARE(board.line.exchange(goodStartCommand(), 19).right(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(startFrame("", "3"), 1), kNakReply);
    QVERIFY(!board.report().hasUnexplainedViolation());

    QCOMPARE(board.line.exchange(goodVersionQuery(), 36), kVersionAnswer);
    QVERIFY(board.line.send("x"));
    QVERIFY(board.awaitViolations(2));
    QVERIFY(board.report().hasUnexplainedViolation());
}

void TestBoardSimFaults::unknownFaultsAreRefused_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("expected");

    const auto row = [](const char *fault, const char *expected) {
        QTest::newRow(fault) << QString::fromLatin1(fault) << QString::fromLatin1(expected);
    };
    row("explode", "unknown fault \"explode\"");
    row("", "unknown fault \"\"");
    row("slow", "fault slow needs a value: slow=MS");
    row("slow=soon", "\"soon\" is no value for fault slow=MS");
    row("slow=-1", "\"-1\" is no value for fault slow=MS");
    row("merge=1", "\"1\" is no value for fault merge");
    row("nak=", "\"\" is no value for fault nak[=MS]");
    row("wrong-foot=e7e7", "\"e7e7\" is no value for fault wrong-foot[=HH]");
    row("garbage-after=abc", "\"abc\" is no value for fault garbage-after[=HEX]");
    row("ack-c=both", "\"both\" is no value for fault ack-c[=ack-first|c-first]");
    row("nak@moon", "unknown place \"moon\" in fault \"nak@moon\"");
    row("nak@block:0", "unknown place \"block:0\" in fault \"nak@block:0\"");
    row("nak@block", "unknown place \"block\" in fault \"nak@block\"");
    row("nak@", "unknown place \"\" in fault \"nak@\"");
    row("full-params=0", "\"0\" is no value for fault full-params[=N]");
    row("full-params=222", "\"222\" is no value for fault full-params[=N]");
    row("no-underscore=1", "\"1\" is no value for fault no-underscore");
    row("no-underscore@version", "fault no-underscore cannot happen at version");
    row("full-params@config", "fault full-params cannot happen at config");
    row("nak@handshake", "fault nak cannot happen at handshake");
    row("nak@version", "fault nak cannot happen at version");
    row("console@eot", "fault console cannot happen at eot");
}

void TestBoardSimFaults::unknownFaultsAreRefused()
{
    QFETCH(QString, fault);
    QFETCH(QString, expected);
    QString error;
    QVERIFY(!parseFault(fault, error));
    QCOMPARE(error, expected);
}

QTEST_GUILESS_MAIN(TestBoardSimFaults)
#include "tst_boardsim_faults.moc"
