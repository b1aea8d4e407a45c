#include "capture.h"
#include "fileio.h"
#include "handmadeframes.h"
#include "machine.h"
#include "peer.h"
#include "serialport.h"
#include "waits.h"

#include <QtTest>

#include <cstring>
#include <memory>

namespace {

constexpr int kCommandSize = 18;
constexpr int kAnswerMax = 64;

const QByteArray kSuccess("[info]: MCU response successfully.\n");
const QByteArray kFormatError("[error]: response format error(1).\n");
const QByteArray kSumError("[error]: response format error(2).\n");

const QByteArray kPause("1 x usleep 25000 us\n");

QByteArray noResponse(int count)
{
    return "[error]: update command no response (len = " + QByteArray::number(count) + ").\n";
}

/// An answer of `size` bytes, sound but for its checksum byte, whose bytes 1 to size - 3 sum to
/// `sum`.
QByteArray answer(int size, int sum, char checksum = 0)
{
    QByteArray frame(size, '\0');
    frame[0] = '\xE7';
    frame[1] = static_cast<char>(size);
    int rest = sum - size;
    for (int i = 2; i <= size - 3 && rest > 0; ++i) {
        const int value = qMin(rest, 0xFF);
        frame[i] = static_cast<char>(value);
        rest -= value;
    }
    frame[size - 2] = checksum;
    frame[size - 1] = '\xE7';
    return frame;
}

} // namespace

// An answer of fewer than 64 bytes takes a second, until no more of it is expected.
class TestUpdateStart : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void commandIsSentOnceAndExactly();
    void lineIsSetUpAndClosed();
    void answerDecidesTheResult_data();
    void answerDecidesTheResult();
    void sumIsComparedWithTheFoot_data();
    void sumIsComparedWithTheFoot();
    void answerMayComeInPieces();
    void silentBoardIsMinusOne();
    void hungUpLineIsMinusOne();
    void missingLineIsMinusOne();

    void serialIoctlWritesPausesAndReads();
    void serialIoctlReadsWhatTheLineHolds();
    void serialIoctlOnAClosedPortIsMinusOne();

private:
    int start();

    std::unique_ptr<FileIO> m_fileIO;
    QByteArray m_printed;
};

void TestUpdateStart::initTestCase()
{
    QCOMPARE(goodStartCommand().size(), kCommandSize);
    SKIP_OFF_THE_SIMULATED_MACHINE();
    m_fileIO = std::make_unique<FileIO>();
}

int TestUpdateStart::start()
{
    DescriptorCapture out(1);
    const int result = m_fileIO->startMcuSoftwareUpdate();
    m_printed = out.take();
    return result;
}

void TestUpdateStart::commandIsSentOnceAndExactly()
{
    BoardLine line;
    QByteArray command;
    Peer board(line, [&command](Pty &peer) {
        command = peer.receive(kCommandSize);
        peer.send(answer(kAnswerMax, 0xE7));
    });
    QCOMPARE(start(), 0);
    board.finish();
    QCOMPARE(command.toHex(), goodStartCommand().toHex());
    QCOMPARE(line.received(), QByteArray());
}

void TestUpdateStart::lineIsSetUpAndClosed()
{
    BoardLine line;
    line.deliver("stale");
    termios settings{};
    Peer board(line, [&settings](Pty &peer) {
        peer.receive(kCommandSize);
        settings = peer.settings();
        peer.send(answer(kAnswerMax, 0xE7));
    });
    QCOMPARE(start(), 0);
    board.finish();
    QCOMPARE(cfgetospeed(&settings), speed_t{B115200});
    QCOMPARE(settings.c_cc[VMIN], cc_t{0});
    QCOMPARE(settings.c_cc[VTIME], cc_t{5});
    QVERIFY(!line.isOpenedByProduct());
}

void TestUpdateStart::answerDecidesTheResult_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("result");
    QTest::addColumn<QByteArray>("printed");

    QTest::newRow("sum is the foot") << answer(18, 0xE7) << 0 << kSuccess;
    QTest::newRow("64 bytes") << answer(64, 0xE7) << 0 << kSuccess;
    QTest::newRow("5 bytes, the shortest that passes") << answer(5, 0xE7) << 0 << kSuccess;
    QTest::newRow("n is 1") << QByteArray("\xE7") << -2 << kFormatError;
    QTest::newRow("n is 2") << QByteArray("\xE7\xE7") << -2 << kFormatError;
    QTest::newRow("n is 3") << QByteArray("\xE7\x03\xE7") << -3 << kSumError;
    QTest::newRow("n is 4") << QByteArray("\xE7\x04\x10\xE7") << -3 << kSumError;
    QTest::newRow("wrong head") << "\xE6" + answer(18, 0xE7).mid(1) << -2 << kFormatError;
    QTest::newRow("wrong foot") << answer(18, 0xE7).left(17) + '\xE6' << -2 << kFormatError;
    QTest::newRow("count is one more")
        << answer(18, 0xE7).replace(1, 1, "\x13") << -2 << kFormatError;
    QTest::newRow("count is one less")
        << answer(18, 0xE7).replace(1, 1, "\x11") << -2 << kFormatError;
    QTest::newRow("broken off") << answer(18, 0xE7).left(10) << -2 << kFormatError;
    QTest::newRow("longer than 64") << answer(65, 0xE7) << -2 << kFormatError;
    QTest::newRow("garbage of 64") << QByteArray(64, 'g') << -2 << kFormatError;
}

void TestUpdateStart::answerDecidesTheResult()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, result);
    QFETCH(QByteArray, printed);

    BoardLine line;
    Peer board(line, replyAfter(kCommandSize, bytes));
    QCOMPARE(start(), result);
    QCOMPARE(m_printed, printed);
}

void TestUpdateStart::sumIsComparedWithTheFoot_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("result");

    // 64 bytes each, so that no time is lost.
    QTest::newRow("sum is 231") << answer(64, 231) << 0;
    QTest::newRow("sum is 231, checksum byte is anything") << answer(64, 231, '\x55') << 0;
    QTest::newRow("sum is 230") << answer(64, 230) << -3;
    QTest::newRow("sum is 232") << answer(64, 232) << -3;
    QTest::newRow("low byte of the sum is 231") << answer(64, 256 + 231) << -3;
    QTest::newRow("checksum byte is right") << answer(64, 100, '\x64') << -3;
    QTest::newRow("largest sum") << answer(64, 64 + 60 * 255) << -3;
}

void TestUpdateStart::sumIsComparedWithTheFoot()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, result);

    BoardLine line;
    Peer board(line, replyAfter(kCommandSize, bytes));
    QCOMPARE(start(), result);
    QCOMPARE(m_printed, result == 0 ? kSuccess : kSumError);
}

void TestUpdateStart::answerMayComeInPieces()
{
    BoardLine line;
    Peer board(line, [](Pty &peer) {
        peer.receive(kCommandSize);
        for (const char byte : answer(kAnswerMax, 0xE7))
            peer.send(QByteArray(1, byte));
    });
    QCOMPARE(start(), 0);
    board.finish();
    QCOMPARE(line.discards(), 0);
}

void TestUpdateStart::silentBoardIsMinusOne()
{
    BoardLine line;
    const Waits waits(Waits::AtOnce);
    QCOMPARE(start(), -1);
    QCOMPARE(waits.asked(), kPause + "100 x select 10000 us\n");
    QCOMPARE(m_printed, noResponse(0));
    QCOMPARE(line.discards(), 1);
    QVERIFY(!line.isOpenedByProduct());
}

void TestUpdateStart::hungUpLineIsMinusOne()
{
    BoardLine line;
    Peer board(line, [](Pty &peer) {
        peer.receive(kCommandSize);
        peer.hangUp();
    });
    QCOMPARE(start(), -1);
    QCOMPARE(m_printed, noResponse(0));
}

void TestUpdateStart::missingLineIsMinusOne()
{
    DescriptorCapture err(2);
    const int result = start();
    QCOMPARE(err.take(),
             QByteArray("ERROR: Unable to open serial port '/dev/ttymxc1': "
                        "No such file or directory\n"
                        "ERROR: write failed: Bad file descriptor\n"));
    QCOMPARE(result, -1);
    QCOMPARE(m_printed, noResponse(-1));
}

void TestUpdateStart::serialIoctlWritesPausesAndReads()
{
    BoardLine line;
    QVERIFY(m_fileIO->serialPort()->Open("/dev/ttymxc1", "115200"));
    unsigned char command[] = {1, 2, 3, 4};
    unsigned char reply[kAnswerMax + 4];
    std::memset(reply, '#', sizeof reply);
    QByteArray written;
    Waits waits(Waits::Real);
    waits.setBefore([&](const QByteArray &call) {
        if (!call.startsWith("usleep"))
            return;
        written = line.received();
        line.deliver(QByteArray(kAnswerMax + 2, 'a'));
    });
    QCOMPARE(m_fileIO->serialIoctl(command, 3, reply), kAnswerMax);
    QCOMPARE(waits.asked(), kPause + "1 x select 10000 us\n");
    QCOMPARE(written, QByteArray("\1\2\3")); // before the pause
    QCOMPARE(line.received(), QByteArray());
    QCOMPARE(QByteArray(reinterpret_cast<char *>(reply), sizeof reply),
             QByteArray(kAnswerMax, 'a') + "####");
    // It leaves the port as it found it.
    QVERIFY(line.isOpenedByProduct());
    m_fileIO->closeSerial();
    QVERIFY(!line.isOpenedByProduct());
}

void TestUpdateStart::serialIoctlReadsWhatTheLineHolds()
{
    BoardLine line;
    QVERIFY(m_fileIO->serialPort()->Open("/dev/ttymxc1", "115200"));
    unsigned char command[] = {1};
    unsigned char reply[kAnswerMax];
    line.send("abc");
    QCOMPARE(m_fileIO->serialIoctl(command, 1, reply), 3);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(reply), 4), QByteArray("abc\0", 4));
    QCOMPARE(m_fileIO->serialIoctl(command, 1, reply), 0);
    m_fileIO->closeSerial();
}

void TestUpdateStart::serialIoctlOnAClosedPortIsMinusOne()
{
    unsigned char command[] = {1};
    unsigned char reply[kAnswerMax];
    DescriptorCapture err(2);
    const int count = m_fileIO->serialIoctl(command, 1, reply);
    QCOMPARE(err.take(), QByteArray("ERROR: write failed: Bad file descriptor\n"));
    QCOMPARE(count, -1);
}

QTEST_APPLESS_MAIN(TestUpdateStart)
#include "tst_updatestart.moc"
