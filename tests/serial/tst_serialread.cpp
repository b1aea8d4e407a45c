#include "child.h"
#include "descriptors.h"
#include "peer.h"
#include "pty.h"
#include "serialport.h"
#include "waits.h"

#include <QtTest>

#include <csignal>
#include <cstring>
#include <sys/time.h>
#include <unistd.h>

class TestSerialRead : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

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

private:
    void openLine();

    std::unique_ptr<Pty> m_line;
    std::unique_ptr<SerialPort> m_port;
    int m_descriptor = -1;
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
    bool isUntouchedFrom(int position) const
    {
        const QByteArray rest(bytes + position, static_cast<int>(sizeof bytes) - position);
        return rest == QByteArray(rest.size(), kGuard);
    }
    bool guardsStand() const
    {
        return QByteArray(before, kGuarded) == QByteArray(kGuarded, kGuard)
            && QByteArray(after, kGuarded) == QByteArray(kGuarded, kGuard);
    }
};

const QByteArray kFourZeros(4, '\0');

QByteArray passes(int count)
{
    return QByteArray::number(count) + " x select 10000 us\n";
}

} // namespace

void TestSerialRead::init()
{
    m_line = std::make_unique<Pty>();
    m_port = std::make_unique<SerialPort>();
}

void TestSerialRead::cleanup()
{
    m_port.reset();
    m_line.reset();
}

void TestSerialRead::openLine()
{
    m_descriptor = nextDescriptor();
    QVERIFY(m_port->Open(m_line->path().constData(), "115200"));
}

void TestSerialRead::closedPortIsMinusOne()
{
    const Waits waits(Waits::AtOnce);
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), -1);
    QVERIFY(buffer.isUntouchedFrom(0));
    openLine();
    m_port->Close();
    QCOMPARE(m_port->Read(buffer.bytes, 8), -1);
    QCOMPARE(waits.asked(), QByteArray());
}

void TestSerialRead::descriptorZeroCountsAsClosed()
{
    const ChildResult child = runInChild([this] {
        close(STDIN_FILENO);
        SerialPort port;
        CHILD_VERIFY(port.Open(m_line->path().constData(), "115200"));
        m_line->send("abcdefgh");
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
    openLine();
    QVERIFY(m_port->SetTimeout(25500));
    const Waits waits(Waits::AtOnce);
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), 0);
    QCOMPARE(waits.asked(), passes(100));
}

void TestSerialRead::silentLineIsZero()
{
    openLine();
    const Waits waits(Waits::AtOnce);
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), 0);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(buffer.head(4), kFourZeros);
    QVERIFY(buffer.isUntouchedFrom(4));
    QVERIFY(buffer.guardsStand());
    QCOMPARE(m_line->discards(), 1);
    QCOMPARE(m_line->inputDiscards(), 0);
}

void TestSerialRead::fullBufferReturnsAtOnceWithoutDiscarding()
{
    openLine();
    m_line->deliver("abcd");
    const Waits waits(Waits::Real);
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 4), 4);
    QCOMPARE(waits.asked(), passes(1));
    QCOMPARE(buffer.head(4), QByteArray("abcd"));
    QVERIFY(buffer.isUntouchedFrom(4));
    QCOMPARE(m_line->discards(), 0);
}

void TestSerialRead::noMoreIsTakenThanAsked()
{
    openLine();
    m_line->send("abcdefgh");
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 5), 5);
    QCOMPARE(buffer.head(5), QByteArray("abcde"));
    QVERIFY(buffer.isUntouchedFrom(5));
    QCOMPARE(m_port->Read(buffer.bytes, 3), 3);
    // The fourth byte is cleared although only three are read.
    QCOMPARE(buffer.head(5), QByteArray("fgh\0e", 5));
}

void TestSerialRead::piecesAreCollected()
{
    openLine();
    Peer peer(*m_line, [](Pty &line) {
        for (const char *piece : {"a", "bcd", "ef", "g", "h"}) {
            line.send(piece);
            line.waitUntilTaken();
        }
    });
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), 8);
    peer.finish();
    QCOMPARE(buffer.head(8), QByteArray("abcdefgh"));
    QVERIFY(buffer.isUntouchedFrom(8));
    QCOMPARE(m_line->discards(), 0);
}

void TestSerialRead::shortAnswerIsReturnedAfter100Passes()
{
    openLine();
    m_line->deliver("a");
    // The one that is waited for, a second in all.
    const Waits waits(Waits::Real);
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), 1);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(buffer.head(4), QByteArray("a\0\0\0", 4));
    QVERIFY(buffer.isUntouchedFrom(4));
    QCOMPARE(m_line->discards(), 1);
}

void TestSerialRead::firstByteRenewsTheWait()
{
    openLine();
    Waits waits(Waits::AtOnce);
    int pass = 0;
    // Each in the last pass that is waited.
    waits.setBefore([&](const QByteArray &) {
        ++pass;
        if (pass == 100)
            m_line->deliver("a");
        if (pass == 199)
            m_line->deliver("b");
    });
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 2), 2);
    QCOMPARE(waits.asked(), passes(199));
    QCOMPARE(buffer.head(4), QByteArray("ab\0\0", 4));
    QCOMPARE(m_line->discards(), 0);
}

void TestSerialRead::laterBytesDoNotRenewTheWait()
{
    openLine();
    Waits waits(Waits::AtOnce);
    int pass = 0;
    waits.setBefore([&](const QByteArray &) {
        ++pass;
        if (pass == 1 || pass == 100)
            m_line->deliver("x");
    });
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), 2);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(m_line->discards(), 1);
}

void TestSerialRead::tricklingLineEndsAfter100Passes()
{
    openLine();
    Waits waits(Waits::AtOnce);
    waits.setBefore([this](const QByteArray &) { m_line->deliver("x"); });
    QByteArray bytes(400, '\0');
    QCOMPARE(m_port->Read(bytes.data(), bytes.size()), 100);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(bytes.left(101), QByteArray(100, 'x') + '\0');
    QCOMPARE(m_line->discards(), 1);
}

void TestSerialRead::interruptedWaitIsMinusOne()
{
    openLine();
    Waits waits(Waits::AtOnce);
    int pass = 0;
    waits.setBefore([&](const QByteArray &) {
        ++pass;
        if (pass == 1)
            m_line->deliver("abc");
        if (pass == 3)
            waits.interrupt(5000);
    });
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), -1);
    QCOMPARE(waits.asked(), passes(3));
    QCOMPARE(buffer.head(4), QByteArray("abc\0", 4));
    QCOMPARE(m_line->discards(), 1);
}

void TestSerialRead::signalIsMinusOne()
{
    openLine();
    struct sigaction heard { };
    heard.sa_handler = [](int) {};
    struct sigaction before { };
    sigaction(SIGALRM, &heard, &before);
    // Again and again, for one that comes between two waits is lost.
    const itimerval often{{0, 15000}, {0, 15000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    Buffer buffer;
    const int count = m_port->Read(buffer.bytes, 8);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    QCOMPARE(count, -1);
    QCOMPARE(m_line->discards(), 1);
}

void TestSerialRead::hungUpLineIsZero()
{
    openLine();
    m_line->hangUp();
    const Waits waits(Waits::Real);
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), 0);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(buffer.head(4), kFourZeros);
    QVERIFY(buffer.isUntouchedFrom(4));
    QVERIFY(buffer.guardsStand());
}

void TestSerialRead::hangUpKeepsWhatCame()
{
    openLine();
    Peer peer(*m_line, [](Pty &line) {
        line.send("abcde");
        line.waitUntilTaken();
        line.hangUp();
    });
    Buffer buffer;
    const int count = m_port->Read(buffer.bytes, 8);
    peer.finish();
    QCOMPARE(count, 5);
    QCOMPARE(buffer.head(5), QByteArray("abcde"));
    QVERIFY(buffer.isUntouchedFrom(5));
    QVERIFY(buffer.guardsStand());
}

void TestSerialRead::failingReadDoesNotMoveThePosition()
{
    // Always readable for select(), and its first page cannot be read: each pass fails.
    QVERIFY(!m_port->Open("/proc/self/mem", "115200"));
    const Waits waits(Waits::Real);
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), 0);
    QCOMPARE(waits.asked(), passes(100));
    QCOMPARE(buffer.head(4), kFourZeros);
    QVERIFY(buffer.isUntouchedFrom(4));
    QVERIFY(buffer.guardsStand());
}

void TestSerialRead::tooLargeDescriptorIsASelectFailure()
{
    const DescriptorsUpToSelectLimit occupied;
    openLine();
    QVERIFY(m_descriptor >= FD_SETSIZE);
    m_line->send("abcdefgh");
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), -1);
    QCOMPARE(buffer.head(4), kFourZeros);
    QVERIFY(buffer.isUntouchedFrom(4));
    QCOMPARE(m_line->discards(), 1);
}

void TestSerialRead::descriptorClosedElsewhereIsASelectFailure()
{
    openLine();
    close(m_descriptor);
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), -1);
}

QTEST_APPLESS_MAIN(TestSerialRead)
#include "tst_serialread.moc"

#include <memory>
