#include "capture.h"
#include "child.h"
#include "fileio.h"
#include "handmadeframes.h"
#include "machine.h"
#include "peer.h"
#include "waits.h"

#include <QtTest>

#include <csignal>

namespace {

constexpr int kQuerySize = 30;
constexpr int kReplySize = 36;

/// A reply with `text` at its place; what is not text is 0xE7 or 0.
QByteArray reply(const QByteArray &text)
{
    QByteArray frame(kReplySize, '\0');
    frame[0] = '\xE7';
    frame[1] = '\x24';
    frame[kReplySize - 1] = '\xE7';
    return frame.replace(16, text.size(), text);
}

} // namespace

class TestMcuVersion : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void queryIsSentOnceAndExactly();
    void lineIsSetUpAndClosed();
    void textIsReturned_data();
    void textIsReturned();
    void replyIsNotChecked();
    void replyMayComeInPieces();
    void moreThanTheReplyIsLeft();
    void silentBoardIsWaitedFor();
    void brokenOffReplyIsWaitedOn();
    void hangUpIsWaitedForLikeSilence();
    void missingLineIsEmpty();
    void nothingIsPrinted();
};

void TestMcuVersion::initTestCase()
{
    QCOMPARE(goodVersionQuery().size(), kQuerySize);
    SKIP_OFF_THE_SIMULATED_MACHINE();
}

void TestMcuVersion::queryIsSentOnceAndExactly()
{
    BoardLine line;
    QByteArray query;
    Peer board(line, [&query](Pty &peer) {
        query = peer.receive(kQuerySize);
        peer.send(reply("V4.1.3"));
    });
    QCOMPARE(FileIO().getMcuVersion(), QStringLiteral("V4.1.3"));
    board.finish();
    QCOMPARE(query.toHex(), goodVersionQuery().toHex());
    QCOMPARE(line.received(), QByteArray());
}

void TestMcuVersion::lineIsSetUpAndClosed()
{
    BoardLine line;
    line.deliver("stale");
    termios settings{};
    Peer board(line, [&settings](Pty &peer) {
        peer.receive(kQuerySize);
        settings = peer.settings();
        peer.send(reply("V4"));
    });
    FileIO fileIO;
    // What was pending has been discarded, else the reply would be out of place.
    QCOMPARE(fileIO.getMcuVersion(), QStringLiteral("V4"));
    board.finish();
    QCOMPARE(cfgetispeed(&settings), speed_t{B115200});
    QCOMPARE(cfgetospeed(&settings), speed_t{B115200});
    QCOMPARE(settings.c_cc[VMIN], cc_t{0});
    QCOMPARE(settings.c_cc[VTIME], cc_t{5});
    QVERIFY(!line.isOpenedByProduct());
}

void TestMcuVersion::textIsReturned_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("expected");

    QTest::newRow("short") << QByteArray("V4.1.3") << QStringLiteral("V4.1.3");
    QTest::newRow("up to byte 34")
        << QByteArray("V4.1.3-abcdefghijkl") << QStringLiteral("V4.1.3-abcdefghijkl");
    QTest::newRow("over the end") << QByteArray("V4.1.3-abcdefghijklm")
                                  << QStringLiteral("V4.1.3-abcdefghijkl");
    QTest::newRow("first zero ends it") << QByteArray("V4\0.1.3", 7) << QStringLiteral("V4");
    QTest::newRow("empty") << QByteArray("\0V4", 3) << QString();
    QTest::newRow("8-bit characters") << QByteArray("V4 \xB5\xE9") << QString::fromUtf8("V4 µé");
}

void TestMcuVersion::textIsReturned()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, expected);

    BoardLine line;
    Peer board(line, replyAfter(kQuerySize, reply(text)));
    QCOMPARE(FileIO().getMcuVersion(), expected);
}

void TestMcuVersion::replyIsNotChecked()
{
    BoardLine line;
    Peer board(line, replyAfter(kQuerySize, "0123456789abcdefghijklmnopqrstuvwxyz"));
    QCOMPARE(FileIO().getMcuVersion(), QStringLiteral("ghijklmnopqrstuvwxy"));
}

void TestMcuVersion::replyMayComeInPieces()
{
    BoardLine line;
    Peer board(line, [](Pty &peer) {
        peer.receive(kQuerySize);
        const QByteArray frame = reply("V4.1.3");
        int begin = 0;
        for (const int end : {1, 2, 17, 18, 35, 36}) {
            peer.send(frame.mid(begin, end - begin));
            peer.waitUntilTaken();
            begin = end;
        }
    });
    QCOMPARE(FileIO().getMcuVersion(), QStringLiteral("V4.1.3"));
    board.finish();
    QCOMPARE(line.discards(), 0);
}

void TestMcuVersion::moreThanTheReplyIsLeft()
{
    BoardLine line;
    Peer board(line, replyAfter(kQuerySize, reply("V4.1.3") + "and more"));
    QCOMPARE(FileIO().getMcuVersion(), QStringLiteral("V4.1.3"));
}

void TestMcuVersion::silentBoardIsWaitedFor()
{
    constexpr int passes = 600 * 100; // ten minutes of silence
    BoardLine line;
    Waits waits(Waits::AtOnce);
    QByteArray query;
    int pass = 0;
    waits.setBefore([&](const QByteArray &) {
        if (++pass == 1)
            query = line.received();
        if (pass > passes)
            line.deliver(reply("V4.1.3"));
    });
    QCOMPARE(FileIO().getMcuVersion(), QStringLiteral("V4.1.3"));
    QCOMPARE(waits.asked(), QByteArray::number(passes + 1) + " x select 10000 us\n");
    // It asked once only.
    QCOMPARE(query, goodVersionQuery());
    QCOMPARE(line.received(), QByteArray());
}

void TestMcuVersion::brokenOffReplyIsWaitedOn()
{
    BoardLine line;
    bool waited = false;
    Peer board(line, [&waited](Pty &peer) {
        peer.receive(kQuerySize);
        peer.send(reply("V3.broken off").left(30));
        waited = peer.waitForDiscards(1);
        // The rest comes too late: the next attempt starts over.
        peer.send(reply("V4"));
    });
    QCOMPARE(FileIO().getMcuVersion(), QStringLiteral("V4"));
    board.finish();
    QVERIFY(waited);
}

void TestMcuVersion::hangUpIsWaitedForLikeSilence()
{
    const ChildResult child = runInChild(
        [] {
            std::signal(SIGHUP, SIG_IGN); // the line is the child's controlling terminal
            BoardLine line;
            Peer board(line, [](Pty &peer) {
                peer.receive(kQuerySize);
                peer.hangUp();
                std::fputs("hung up", stderr);
            });
            FileIO().getMcuVersion();
            return 0;
        },
        2);
    QCOMPARE(child.err, QByteArray("hung up"));
    QVERIFY(child.diedOf(SIGALRM));
}

void TestMcuVersion::missingLineIsEmpty()
{
    QVERIFY(!QFile::exists(QStringLiteral("/dev/ttymxc1")));
    FileIO fileIO;
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    const QString version = fileIO.getMcuVersion();
    const QByteArray complaint = err.take();
    QCOMPARE(out.take(), QByteArray());
    QVERIFY(version.isEmpty());
    QCOMPARE(complaint,
             QByteArray("ERROR: Unable to open serial port '/dev/ttymxc1': "
                        "No such file or directory\n"
                        "ERROR: write failed: Bad file descriptor\n"));
}

void TestMcuVersion::nothingIsPrinted()
{
    const MessageCapture messages;
    BoardLine line;
    Peer board(line, replyAfter(kQuerySize, reply("V4")));
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    FileIO().getMcuVersion();
    const QByteArray complaint = err.take();
    QCOMPARE(out.take(), QByteArray());
    QCOMPARE(complaint, QByteArray());
    QCOMPARE(messages.messages(), QStringList());
}

QTEST_APPLESS_MAIN(TestMcuVersion)
#include "tst_mcuversion.moc"
