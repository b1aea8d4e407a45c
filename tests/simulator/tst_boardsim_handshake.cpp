#include "handmadeexchanges.h"
#include "handmadeframes.h"
#include "testboard.h"

#include <QtTest>

using namespace boardsim;

namespace {

// The board's own parameters unless told otherwise, and the frames around them.
const QByteArray kParams = QByteArray("ABC_K7QX12").leftJustified(42, '\0');
const QByteArray kAnswerV3 = QByteArray::fromHex("e749") + QByteArray(21, '\0') + "\x0f"
    + QByteArray(5, '\0') + kParams + QByteArray::fromHex("0be7");
const QByteArray kAnswerV4 = QByteArray::fromHex("e74c") + QByteArray(24, '\0') + "\x0f"
    + QByteArray(5, '\0') + kParams + QByteArray::fromHex("0ee7");

QByteArray goodHandshake(int version)
{
    return version == 3 ? goodHandshakeV3() : goodHandshakeV4();
}

} // namespace

class TestBoardSimHandshake : public QObject {
    Q_OBJECT

private slots:
    void eachVersionIsAnsweredInItsOwn();
    void answerCarriesItsParameters_data();
    void answerCarriesItsParameters();
    void everyByteOfAHandshakeCounts_data();
    void everyByteOfAHandshakeCounts();
    void badByteIsNamed_data();
    void badByteIsNamed();
    void cutHandshakeIsReported();
    void allFourCommandsAreToldApart();
    void handshakeEndsTheWaitForATransfer();
    void handshakeAmongTheDataIsReported();
    void answerIsSpoilt_data();
    void answerIsSpoilt();
    void faultHoldsForBothVersions();
    void slowAnswerComesLate();
    void splitAnswerComesInSingleBytes();
    void silentBoardTakesTheHandshake();
    void mergedAnswerComesWithTheNext();
    void lostBytesBreakTheHandshake();
    void hangUpInTheHandshake();
    void hangUpInTheAnswer();
    void validHandshakeEndsWhatAFaultExplains();
};

void TestBoardSimHandshake::eachVersionIsAnsweredInItsOwn()
{
    TestBoard board;
    QCOMPARE(board.line.exchange(goodHandshakeV3(), 73).toHex(), kAnswerV3.toHex());
    QCOMPARE(board.line.exchange(goodHandshakeV4(), 76).toHex(), kAnswerV4.toHex());
    QCOMPARE(board.line.exchange(goodHandshakeV4(), 76).toHex(), kAnswerV4.toHex());
    board.stop();
    const Report report = board.report();
    QCOMPARE(report.handshakesV3, 1);
    QCOMPARE(report.handshakesV4, 2);
    QVERIFY(report.violations.isEmpty());
    QCOMPARE(board.sent(), (QByteArrayList{kAnswerV3, kAnswerV4, kAnswerV4}));
    QCOMPARE(report.frames.at(0).meaning, QStringLiteral("V3 handshake"));
    QCOMPARE(report.frames.at(3).meaning, QStringLiteral("V4 handshake answer"));
}

void TestBoardSimHandshake::answerCarriesItsParameters_data()
{
    QTest::addColumn<int>("version");
    QTest::addColumn<QByteArray>("params");
    QTest::addColumn<int>("size");

    QTest::newRow("V3, none") << 3 << QByteArray() << 31;
    QTest::newRow("V4, none") << 4 << QByteArray() << 34;
    QTest::newRow("V3, one") << 3 << QByteArray("_") << 32;
    QTest::newRow("V3, all that V3 has") << 3 << QByteArray(80, 'v') << 111;
    QTest::newRow("V4, all that V4 has") << 4 << QByteArray(166, '\xff') << 200;
    QTest::newRow("V3, all that are allowed") << 3 << QByteArray(221, 'w') << 252;
    QTest::newRow("V4, all that the length byte can tell") << 4 << QByteArray(221, 'w') << 255;
}

void TestBoardSimHandshake::answerCarriesItsParameters()
{
    QFETCH(int, version);
    QFETCH(QByteArray, params);
    QFETCH(int, size);

    Options options;
    options.params = params;
    TestBoard board(options);
    const QByteArray answer = board.line.exchange(goodHandshake(version), size);
    QCOMPARE(answer.toHex(), handshakeAnswer(version, params).toHex());
    QCOMPARE(static_cast<quint8>(answer.at(1)), quint8(size));
    board.stop();
    QCOMPARE(board.sent().join().size(), size);
}

void TestBoardSimHandshake::everyByteOfAHandshakeCounts_data()
{
    QTest::addColumn<QByteArray>("frame");
    for (const int version : {3, 4}) {
        const QByteArray good = goodHandshake(version);
        for (int i = 0; i < good.size(); ++i)
            QTest::addRow("V%d, byte %d", version, i) << changed(good, i);
        for (int i = 2; i < good.size() - 2; ++i)
            QTest::addRow("V%d, byte %d, checksum fits", version, i) << changedAndSealed(good, i);
    }
}

void TestBoardSimHandshake::everyByteOfAHandshakeCounts()
{
    QFETCH(QByteArray, frame);
    TestBoard board(quickToNotice());

    QVERIFY(board.refuses(frame));
    board.stop();
    const Report report = board.report();
    QVERIFY(report.hasUnexplainedViolation());
    QCOMPARE(board.sent(), QByteArrayList());
    QCOMPARE(report.handshakesV3 + report.handshakesV4, 0);
}

void TestBoardSimHandshake::badByteIsNamed_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QString>("text");

    const auto row = [](const char *name, const QByteArray &frame, const char *text) {
        QTest::newRow(name) << frame << QString::fromLatin1(text);
    };
    const QByteArray v3 = goodHandshakeV3();
    const QByteArray v4 = goodHandshakeV4();
    row("head", changed(v3, 0), "73 unexpected bytes from 0xe6 on");
    row("length", changed(v3, 1), "frame of 73 bytes with length byte 0x48 is no command here");
    row("type", changedAndSealed(v3, 2), "zero byte 2 is 0x01, not 0x00");
    row("V3 command", changedAndSealed(v3, 23), "command byte is 0x0e, not 0x0f");
    row("V3's place of the command in V4", changedAndSealed(v4, 23),
        "zero byte 23 is 0x01, not 0x00");
    row("V4 command", changedAndSealed(v4, 26), "command byte is 0x0e, not 0x0f");
    row("argument", changedAndSealed(v3, 25), "zero byte 25 is 0x01, not 0x00");
    row("first parameter", changedAndSealed(v4, 32), "zero byte 32 is 0x01, not 0x00");
    row("parameter 25", changedAndSealed(v3, 54), "zero byte 54 is 0x01, not 0x00");
    row("last parameter", changedAndSealed(v4, 73), "zero byte 73 is 0x01, not 0x00");
    row("checksum", changed(v3, 71), "checksum is 0x59, not 0x58");
    row("foot", changed(v4, 75), "foot is 0xe6, not 0xe7");
}

void TestBoardSimHandshake::badByteIsNamed()
{
    QFETCH(QByteArray, frame);
    QFETCH(QString, text);
    TestBoard board(quickToNotice());

    QVERIFY(board.refuses(frame));
    board.stop();
    QCOMPARE(board.report().violations.size(), 1);
    QCOMPARE(board.report().violations.first().text, text);
}

void TestBoardSimHandshake::cutHandshakeIsReported()
{
    TestBoard board(quickToNotice());
    QVERIFY(board.refuses(goodHandshakeV4().left(75)));
    QCOMPARE(board.report().violations.first().text,
             QStringLiteral("frame broke off after 75 of 76 bytes"));
    QCOMPARE(board.line.exchange(goodHandshakeV3(), 73), kAnswerV3);
}

void TestBoardSimHandshake::allFourCommandsAreToldApart()
{
    Options options;
    options.bootDelay = Milliseconds(600000);
    TestBoard board(options);
    const QByteArray answers = board.line.exchange(goodHandshakeV4() + goodVersionQuery()
                                                       + goodHandshakeV3() + goodStartCommand(),
                                                   76 + 36 + 73 + 18);
    QCOMPARE(answers.left(76), kAnswerV4);
    QCOMPARE(answers.mid(76, 2), QByteArray::fromHex("e724"));
    QCOMPARE(answers.mid(76 + 36, 73), kAnswerV3);
    QCOMPARE(answers.mid(76 + 36 + 73, 2), QByteArray::fromHex("e712"));
    board.stop();
    QVERIFY(board.report().violations.isEmpty());
    QCOMPARE(board.sent().size(), 4);
}

void TestBoardSimHandshake::handshakeEndsTheWaitForATransfer()
{
    TestBoard board(inBootLoader(quickToNotice()));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(goodHandshakeV3(), 73), kAnswerV3);
    QVERIFY(board.report().violations.isEmpty());

    // The application runs now: it knows no transfer.
    QVERIFY(board.refuses(startFrame("app.bin", "3")));
}

void TestBoardSimHandshake::handshakeAmongTheDataIsReported()
{
    TestBoard board(inBootLoader(quickToNotice()));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QCOMPARE(board.line.exchange(startFrame("app.bin", "3"), 2).size(), 2);
    QVERIFY(board.refuses(goodHandshakeV3()));
    QCOMPARE(board.report().handshakesV3, 0);
}

void TestBoardSimHandshake::answerIsSpoilt_data()
{
    QTest::addColumn<int>("version");
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<QByteArray>("expected");

    const auto v4 = [](const char *name, const char *fault, const QByteArray &expected) {
        QTest::newRow(name) << 4 << QByteArray(fault) << expected;
    };
    const auto with = [](int offset, const char *hex) {
        QByteArray answer = kAnswerV4;
        return answer.replace(offset, 1, QByteArray::fromHex(hex));
    };
    v4("head", "wrong-head@handshake", with(0, "e6"));
    v4("this head", "wrong-head=00@handshake", with(0, "00"));
    v4("length", "wrong-length@handshake", with(1, "4d"));
    v4("greatest length", "wrong-length=ff@handshake", with(1, "ff"));
    v4("least length", "wrong-length=00@handshake", with(1, "00"));
    v4("checksum", "wrong-checksum@handshake", with(73, "01"));
    v4("foot", "wrong-foot@handshake", with(75, "e6"));
    v4("no underscore", "no-underscore@handshake",
       handshakeAnswer(4, QByteArray("ABC-K7QX12").leftJustified(42, '\0')));
    v4("no zero byte", "full-params@handshake",
       handshakeAnswer(4, QByteArray("ABC_K7QX12").leftJustified(42, 'x')));
    v4("no zero byte, longest that is read whole", "full-params=66@handshake",
       handshakeAnswer(4, QByteArray("ABC_K7QX12").leftJustified(66, 'x')));
    v4("no zero byte, longest of all", "full-params=221@handshake",
       handshakeAnswer(4, QByteArray("ABC_K7QX12").leftJustified(221, 'x')));
    v4("no zero byte, fewer than there are", "full-params=1@handshake",
       handshakeAnswer(4, QByteArray("ABC_K7QX12").leftJustified(42, 'x')));
    v4("too long", "garbage-after=010203@handshake", kAnswerV4 + QByteArray::fromHex("010203"));
    v4("garbage before", "garbage-before@handshake", QByteArray::fromHex("a55a") + kAnswerV4);
    v4("too short", "drop-bytes@handshake", kAnswerV4.left(75));
    v4("head only", "drop-bytes=75@handshake", kAnswerV4.left(1));
    QTest::newRow("V3, no zero byte, all that V3 has")
        << 3 << QByteArray("full-params=80@handshake")
        << handshakeAnswer(3, QByteArray("ABC_K7QX12").leftJustified(80, 'x'));
}

void TestBoardSimHandshake::answerIsSpoilt()
{
    QFETCH(int, version);
    QFETCH(QByteArray, fault);
    QFETCH(QByteArray, expected);

    TestBoard board(quickToNotice({fault}));
    QCOMPARE(board.line.exchange(goodHandshake(version), expected.size()).toHex(),
             expected.toHex());
    board.stop();
    const Report report = board.report();
    QCOMPARE(board.sent(), QByteArrayList{expected});
    QCOMPARE(report.faultsMade, QStringList{QString::fromLatin1(fault)});
    QVERIFY(report.violations.isEmpty());
}

void TestBoardSimHandshake::faultHoldsForBothVersions()
{
    // Both faults of the parameters at once, and raw parameters with zero bytes among them.
    Options options = quickToNotice({"no-underscore", "full-params"});
    options.params = QByteArray("A\0_B\0", 5);
    TestBoard board(options);
    QCOMPARE(board.line.exchange(goodHandshakeV3(), 36), handshakeAnswer(3, "Ax-Bx"));
    QCOMPARE(board.line.exchange(goodHandshakeV4(), 39), handshakeAnswer(4, "Ax-Bx"));
    QCOMPARE(board.report().faultsMade.size(), 4);
    QCOMPARE(board.line.exchange(goodVersionQuery(), 36).mid(16, 6), QByteArray("V4.1.3"));
}

void TestBoardSimHandshake::slowAnswerComesLate()
{
    TestBoard board(quickToNotice({"slow=200@handshake"}));
    QCOMPARE(board.line.exchange(goodHandshakeV3(), 73), kAnswerV3);
    const auto frames = board.report().frames;
    QCOMPARE(frames.size(), 2);
    QVERIFY(frames.at(1).ms - frames.at(0).ms >= 199);
}

void TestBoardSimHandshake::splitAnswerComesInSingleBytes()
{
    TestBoard board(quickToNotice({"split=1@handshake"}));
    QCOMPARE(board.line.exchange(goodHandshakeV4(), 76), kAnswerV4);
    QVERIFY(board.awaitSent(76));
    QCOMPARE(board.sent().size(), 76);
}

void TestBoardSimHandshake::silentBoardTakesTheHandshake()
{
    TestBoard board(quickToNotice({"silent@handshake"}));
    QVERIFY(board.line.send(goodHandshakeV3()));
    QVERIFY(board.await([](const Report &r) { return r.handshakesV3 == 1; }));
    board.stop();
    QCOMPARE(board.sent(), QByteArrayList());
    QCOMPARE(board.report().faultsMade, QStringList{QStringLiteral("silent@handshake")});
}

void TestBoardSimHandshake::mergedAnswerComesWithTheNext()
{
    TestBoard board(quickToNotice({"merge@handshake"}));
    QVERIFY(board.line.send(goodHandshakeV3()));
    QVERIFY(board.await([](const Report &r) { return r.handshakesV3 == 1; }));
    QCOMPARE(board.line.exchange(goodVersionQuery(), 73 + 36).left(73), kAnswerV3);
    QVERIFY(board.awaitSent(1));
    QCOMPARE(board.sent().size(), 1);
}

void TestBoardSimHandshake::lostBytesBreakTheHandshake()
{
    TestBoard board(quickToNotice({"lose-bytes=3@handshake"}));
    QVERIFY(board.refuses(goodHandshakeV3()));
    board.stop();
    const Report report = board.report();
    QCOMPARE(report.violations.first().text,
             QStringLiteral("frame broke off after 70 of 73 bytes"));
    QCOMPARE(report.violations.first().explainedBy, QStringLiteral("lose-bytes=3@handshake"));
    QCOMPARE(board.sent(), QByteArrayList());
}

void TestBoardSimHandshake::hangUpInTheHandshake()
{
    TestBoard board(quickToNotice({"hang-up@handshake"}));
    QVERIFY(board.line.send(goodHandshakeV4()));
    QVERIFY(board.line.waitForHangUp());
    QVERIFY(board.report().hungUp);
    QCOMPARE(board.report().handshakesV4, 0);
}

void TestBoardSimHandshake::hangUpInTheAnswer()
{
    TestBoard board(quickToNotice({"hang-up=100@handshake"}));
    QCOMPARE(board.line.exchange(goodHandshakeV4(), 76), kAnswerV4.left(24));
    QVERIFY(board.await([](const Report &r) { return r.hungUp; }));
    QCOMPARE(board.report().handshakesV4, 1);
}

void TestBoardSimHandshake::validHandshakeEndsWhatAFaultExplains()
{
    TestBoard board(quickToNotice({"wrong-foot@version"}));
    QCOMPARE(board.line.exchange(goodVersionQuery(), 36).right(1), QByteArray("\xe6"));
    QVERIFY(board.refuses(changed(goodHandshakeV3(), 71)));
    QVERIFY(!board.report().hasUnexplainedViolation());

    QCOMPARE(board.line.exchange(goodHandshakeV3(), 73), kAnswerV3);
    QVERIFY(board.line.send("x"));
    QVERIFY(board.awaitViolations(2));
    QVERIFY(board.report().hasUnexplainedViolation());
}

QTEST_GUILESS_MAIN(TestBoardSimHandshake)
#include "tst_boardsim_handshake.moc"
