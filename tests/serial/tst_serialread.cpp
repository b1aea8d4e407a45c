#include "child.h"
#include "descriptors.h"
#include "openline.h"
#include "peer.h"
#include "waits.h"

#include <QtTest>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <sys/time.h>
#include <unistd.h>

class TestSerialRead : public QObject {
    Q_OBJECT

private slots:
    void closedPortIsMinusOne();
    void descriptorZeroCountsAsClosed();
    void silentLineIsZero();
    void setTimeoutDoesNotChangeTheWait();
    void fullBufferReturnsAtOnceWithoutDiscarding();
    void noMoreIsTakenThanAsked();
    void piecesAreCollected();
    void shortAnswerIsReturnedAfter100Passes();
    void firstByteRenewsTheWait();
    void laterBytesDoNotRenewTheWait();
    void tricklingLineEndsAfter100Passes();
    void interruptedWaitIsMinusOne();
    void signalIsMinusOne();
    void hungUpLineIsZero();
    void hangUpKeepsWhatCame();
    void failingReadDoesNotMoveThePosition();
    void tooLargeDescriptorIsASelectFailure();
    void descriptorClosedElsewhereIsASelectFailure();
};

namespace {

constexpr char kGuard = '#';
constexpr int kGuarded = 16;

/// A buffer between two guards.
struct Buffer {
    char before[kGuarded];
    char bytes[64];
    char after[kGuarded];

    Buffer() { std::memset(this, kGuard, sizeof *this); }
    QByteArray head(int count) const { return QByteArray(bytes, count); }
    /// Neither what follows `position` nor the guards were written to.
    bool isUntouchedFrom(int position) const
    {
        const auto guards = [](const char *from, std::size_t count) {
            return std::all_of(from, from + count, [](char byte) { return byte == kGuard; });
        };
        return guards(before, sizeof before) && guards(after, sizeof after)
            && guards(bytes + position, sizeof bytes - static_cast<std::size_t>(position));
    }
};

const QByteArray kFourZeros(4, '\0');

QByteArray passes(int count)
{
    return QByteArray::number(count) + " x select 10000 us\n";
}

} // namespace

void TestSerialRead::closedPortIsMinusOne()
{
    const Waits waits(Waits::AtOnce);
    Buffer buffer;
    SerialPort neverOpened;
    QCOMPARE(neverOpened.Read(buffer.bytes, 8), -1);
    QVERIFY(buffer.isUntouchedFrom(0));
    OpenLine line;
    line.port.Close();
    QCOMPARE(line.port.Read(buffer.bytes, 8), -1);
    QCOMPARE(waits.asked(), QByteArray());
}

void TestSerialRead::descriptorZeroCountsAsClosed()
{
    Pty line;
    const ChildResult child = runInChild([&line] {
        close(STDIN_FILENO);
        SerialPort port;
        CHILD_VERIFY(port.Open(line.path().constData(), "115200"));
        line.send("abcdefgh");
        Buffer buffer;
        CHILD_VERIFY(port.Read(buffer.bytes, 8) == -1);
        CHILD_VERIFY(buffer.isUntouchedFrom(0));
        // For all else it is open.
        CHILD_VERIFY(port.Write("x", 1) == 1);
        unsigned char byte;
        timeval wait{1, 0};
        CHILD_VERIFY(port.read_uart_port(&byte, 1, &wait) == 1);
        CHILD_VERIFY(port.SetTimeout(500));
        port.Close();
        CHILD_VERIFY(nextDescriptor() == STDIN_FILENO);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestSerialRead::setTimeoutDoesNotChangeTheWait()
{
    OpenLine line;
    QVERIFY(line.port.SetTimeout(25500));
    const Waits waits(Waits::AtOnce);
    Buffer buffer;
    QCOMPARE(line.port.Read(buffer.bytes, 8), 0);
    QCOMPARE(waits.asked(), passes(100));
}

void TestSerialRead::silentLineIsZero()
{
    OpenLine line;
    const Waits waits(Waits::AtOnce);
    Buffer buffer;
    QCOMPARE(line.port.Read(buffer.bytes, 8), 0);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(buffer.head(4), kFourZeros);
    QVERIFY(buffer.isUntouchedFrom(4));
    QCOMPARE(line.discards(), 1);
    QCOMPARE(line.inputDiscards(), 0);
}

void TestSerialRead::fullBufferReturnsAtOnceWithoutDiscarding()
{
    OpenLine line;
    line.deliver("abcd");
    const Waits waits(Waits::Real);
    Buffer buffer;
    QCOMPARE(line.port.Read(buffer.bytes, 4), 4);
    QCOMPARE(waits.asked(), passes(1));
    QCOMPARE(buffer.head(4), QByteArray("abcd"));
    QVERIFY(buffer.isUntouchedFrom(4));
    QCOMPARE(line.discards(), 0);
}

void TestSerialRead::noMoreIsTakenThanAsked()
{
    OpenLine line;
    line.send("abcdefgh");
    Buffer buffer;
    QCOMPARE(line.port.Read(buffer.bytes, 5), 5);
    QCOMPARE(buffer.head(5), QByteArray("abcde"));
    QVERIFY(buffer.isUntouchedFrom(5));
    QCOMPARE(line.port.Read(buffer.bytes, 3), 3);
    // The fourth byte is cleared although only three are read.
    QCOMPARE(buffer.head(5), QByteArray("fgh\0e", 5));
}

void TestSerialRead::piecesAreCollected()
{
    OpenLine line;
    Peer peer(line, [](Pty &end) {
        for (const char *piece : {"a", "bcd", "ef", "g", "h"}) {
            end.send(piece);
            end.waitUntilTaken();
        }
    });
    Buffer buffer;
    QCOMPARE(line.port.Read(buffer.bytes, 8), 8);
    peer.finish();
    QCOMPARE(buffer.head(8), QByteArray("abcdefgh"));
    QVERIFY(buffer.isUntouchedFrom(8));
    QCOMPARE(line.discards(), 0);
}

void TestSerialRead::shortAnswerIsReturnedAfter100Passes()
{
    OpenLine line;
    line.deliver("a");
    // The one that is waited for, a second in all.
    const Waits waits(Waits::Real);
    Buffer buffer;
    QCOMPARE(line.port.Read(buffer.bytes, 8), 1);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(buffer.head(4), QByteArray("a\0\0\0", 4));
    QVERIFY(buffer.isUntouchedFrom(4));
    QCOMPARE(line.discards(), 1);
}

void TestSerialRead::firstByteRenewsTheWait()
{
    OpenLine line;
    Waits waits(Waits::AtOnce);
    int pass = 0;
    // Each in the last pass that is waited.
    waits.setBefore([&](const QByteArray &) {
        ++pass;
        if (pass == 100)
            line.deliver("a");
        if (pass == 199)
            line.deliver("b");
    });
    Buffer buffer;
    QCOMPARE(line.port.Read(buffer.bytes, 2), 2);
    QCOMPARE(waits.asked(), passes(199));
    QCOMPARE(buffer.head(4), QByteArray("ab\0\0", 4));
    QCOMPARE(line.discards(), 0);
}

void TestSerialRead::laterBytesDoNotRenewTheWait()
{
    OpenLine line;
    Waits waits(Waits::AtOnce);
    int pass = 0;
    waits.setBefore([&](const QByteArray &) {
        ++pass;
        if (pass == 1 || pass == 100)
            line.deliver("x");
    });
    Buffer buffer;
    QCOMPARE(line.port.Read(buffer.bytes, 8), 2);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(line.discards(), 1);
}

void TestSerialRead::tricklingLineEndsAfter100Passes()
{
    OpenLine line;
    Waits waits(Waits::AtOnce);
    waits.setBefore([&line](const QByteArray &) { line.deliver("x"); });
    QByteArray bytes(400, '\0');
    QCOMPARE(line.port.Read(bytes.data(), bytes.size()), 100);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(bytes.left(101), QByteArray(100, 'x') + '\0');
    QCOMPARE(line.discards(), 1);
}

void TestSerialRead::interruptedWaitIsMinusOne()
{
    OpenLine line;
    Waits waits(Waits::AtOnce);
    int pass = 0;
    waits.setBefore([&](const QByteArray &) {
        ++pass;
        if (pass == 1)
            line.deliver("abc");
        if (pass == 3)
            waits.interrupt(5000);
    });
    Buffer buffer;
    QCOMPARE(line.port.Read(buffer.bytes, 8), -1);
    QCOMPARE(waits.asked(), passes(3));
    QCOMPARE(buffer.head(4), QByteArray("abc\0", 4));
    QCOMPARE(line.discards(), 1);
}

void TestSerialRead::signalIsMinusOne()
{
    OpenLine line;
    struct sigaction heard { };
    heard.sa_handler = [](int) {};
    struct sigaction before { };
    sigaction(SIGALRM, &heard, &before);
    // Again and again, for one that comes between two waits is lost.
    const itimerval often{{0, 15000}, {0, 15000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    Buffer buffer;
    const int count = line.port.Read(buffer.bytes, 8);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    QCOMPARE(count, -1);
    QCOMPARE(line.discards(), 1);
}

void TestSerialRead::hungUpLineIsZero()
{
    OpenLine line;
    line.hangUp();
    const Waits waits(Waits::Real);
    Buffer buffer;
    QCOMPARE(line.port.Read(buffer.bytes, 8), 0);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(buffer.head(4), kFourZeros);
    QVERIFY(buffer.isUntouchedFrom(4));
}

void TestSerialRead::hangUpKeepsWhatCame()
{
    OpenLine line;
    Peer peer(line, [](Pty &end) {
        end.send("abcde");
        end.waitUntilTaken();
        end.hangUp();
    });
    Buffer buffer;
    const int count = line.port.Read(buffer.bytes, 8);
    peer.finish();
    QCOMPARE(count, 5);
    QCOMPARE(buffer.head(5), QByteArray("abcde"));
    QVERIFY(buffer.isUntouchedFrom(5));
}

void TestSerialRead::failingReadDoesNotMoveThePosition()
{
    // Always readable for select(), and its first page cannot be read: each pass fails.
    SerialPort port;
    QVERIFY(!port.Open("/proc/self/mem", "115200"));
    const Waits waits(Waits::Real);
    Buffer buffer;
    QCOMPARE(port.Read(buffer.bytes, 8), 0);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(buffer.head(4), kFourZeros);
    QVERIFY(buffer.isUntouchedFrom(4));
}

void TestSerialRead::tooLargeDescriptorIsASelectFailure()
{
    Pty line;
    const DescriptorsUpToSelectLimit occupied;
    QVERIFY(nextDescriptor() >= FD_SETSIZE);
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), "115200"));
    line.send("abcdefgh");
    Buffer buffer;
    QCOMPARE(port.Read(buffer.bytes, 8), -1);
    QCOMPARE(buffer.head(4), kFourZeros);
    QVERIFY(buffer.isUntouchedFrom(4));
    QCOMPARE(line.discards(), 1);
}

void TestSerialRead::descriptorClosedElsewhereIsASelectFailure()
{
    Pty line;
    const int descriptor = nextDescriptor();
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), "115200"));
    close(descriptor);
    Buffer buffer;
    QCOMPARE(port.Read(buffer.bytes, 8), -1);
}

QTEST_APPLESS_MAIN(TestSerialRead)
#include "tst_serialread.moc"
