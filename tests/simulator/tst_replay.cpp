#include "handmadeframes.h"
#include "testboard.h"

#include <QtTest>

using namespace boardsim;

namespace {

Record record(int ms, Record::Kind kind, const QByteArray &bytes = {})
{
    return {kind, ms, bytes, ms};
}

constexpr auto kToBoard = Record::Kind::ToBoard;
constexpr auto kFromBoard = Record::Kind::FromBoard;
constexpr auto kHangUp = Record::Kind::HangUp;

Options replayOf(const QVector<Record> &records, bool isFast = true)
{
    Options options = quickToNotice();
    options.replay = Recording{};
    options.replay->records = records;
    options.replayFast = isFast;
    return options;
}

/// Waits for the text about the first difference.
QString differenceOf(const TestBoard &board)
{
    static_cast<void>(board.await([](const Report &r) { return !r.difference.isEmpty(); }));
    return board.report().difference;
}

} // namespace

class TestReplay : public QObject {
    Q_OBJECT

private slots:
    void recordedBoardReplies();
    void recordedTimeIsKept();
    void fastReplayKeepsPausesBetweenReplies();
    void programMayBeAhead();
    void hangUpIsReplayed();
    void differenceIsShownSideBySide();
    void bytesAfterTheEndAreADifference();
    void missingBytesAreADifference();
    void unsentBytesAreADifference();
};

void TestReplay::recordedBoardReplies()
{
    TestBoard board(
        replayOf({record(0, kToBoard, goodVersionQuery()), record(60000, kFromBoard, "\xe7\x24"),
                  record(60001, kFromBoard, "rest"), record(60002, kToBoard, "more"),
                  record(99000, kFromBoard, "end")}));
    QCOMPARE(board.line.exchange(goodVersionQuery(), 6), QByteArray("\xe7\x24rest"));
    QCOMPARE(board.line.exchange("mo", 0), QByteArray());
    QCOMPARE(board.line.exchange("re", 3), QByteArray("end"));
    board.stop();
    QCOMPARE(board.report().difference, QString());
}

void TestReplay::recordedTimeIsKept()
{
    TestBoard board(
        replayOf({record(1000, kToBoard, "query"), record(1300, kFromBoard, "reply")}, false));
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(board.line.exchange("query", 5), QByteArray("reply"));
    QVERIFY(timer.elapsed() >= 300);
}

void TestReplay::fastReplayKeepsPausesBetweenReplies()
{
    TestBoard board(replayOf({record(1000, kToBoard, "query"), record(61000, kFromBoard, "reply"),
                              record(61200, kFromBoard, "C")}));
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(board.line.exchange("query", 5), QByteArray("reply"));
    QCOMPARE(board.line.receive(1), QByteArray("C"));
    QVERIFY(timer.elapsed() >= 200);
}

/// What the board had sent meanwhile comes at once.
void TestReplay::programMayBeAhead()
{
    TestBoard board(replayOf({record(0, kToBoard, "a"), record(10, kFromBoard, "1"),
                              record(60000, kFromBoard, "2"), record(60001, kToBoard, "b"),
                              record(60002, kFromBoard, "3")},
                             false));
    QCOMPARE(board.line.exchange("a", 1), QByteArray("1"));
    QCOMPARE(board.line.exchange("b", 2), QByteArray("23"));
}

void TestReplay::hangUpIsReplayed()
{
    TestBoard board(replayOf({record(0, kToBoard, "half"), record(5, kHangUp)}));
    QVERIFY(board.line.send("half of a frame"));
    QVERIFY(board.line.waitForHangUp());
    board.stop();
    QVERIFY(board.report().hungUp);
    QCOMPARE(board.report().difference, QString());
}

void TestReplay::differenceIsShownSideBySide()
{
    const QByteArray query = goodVersionQuery();
    TestBoard board(replayOf({record(7, kToBoard, query), record(8, kFromBoard, "reply")}));
    QVERIFY(board.line.send(changed(query, 20)));
    const QStringList rows = differenceOf(board).split(QLatin1Char('\n'));
    QCOMPARE(rows.size(), 5); // with an empty one after the last line feed
    QCOMPARE(rows.at(0),
             QStringLiteral("line 7: the program sends something else, from byte 20 on"));
    QVERIFY(!rows.at(2).contains(QLatin1String("!=")));
    const QStringList sides = rows.at(3).split(QStringLiteral("!="));
    QCOMPARE(sides.size(), 2);
    QCOMPARE(sides.at(0).simplified(),
             QStringLiteral("16 00 01 00 00 00 00 08 71 00 00 00 00 dd e7"));
    QCOMPARE(sides.at(1).simplified(), QStringLiteral("00 01 00 00 01 00 08 71 00 00 00 00 dd e7"));
}

void TestReplay::bytesAfterTheEndAreADifference()
{
    TestBoard board(replayOf({record(0, kToBoard, "a")}));
    QVERIFY(board.line.send("ab"));
    QVERIFY(differenceOf(board).startsWith(
        QLatin1String("the recording has ended, but the program sends more\n")));
}

void TestReplay::missingBytesAreADifference()
{
    TestBoard board(replayOf({record(3, kToBoard, "query")}));
    QVERIFY(board.line.send("que"));
    QVERIFY(board.await([](const Report &r) { return !r.frames.isEmpty(); }));
    board.stop();
    QVERIFY(board.report().difference.startsWith(
        QLatin1String("line 3: the program has not sent all of this\n")));
}

void TestReplay::unsentBytesAreADifference()
{
    TestBoard board(replayOf({record(0, kToBoard, "a"), record(60000, kFromBoard, "1")}, false));
    QVERIFY(board.line.send("a"));
    QVERIFY(board.await([](const Report &r) { return !r.frames.isEmpty(); }));
    board.stop();
    QCOMPARE(board.report().difference,
             QStringLiteral("line 60000: the replay ended before this was sent\n"));
}

QTEST_GUILESS_MAIN(TestReplay)
#include "tst_replay.moc"
