#include "child.h"
#include "descriptors.h"
#include "peer.h"
#include "pty.h"
#include "serialport.h"

#include <QtTest>

#include <cstring>
#include <unistd.h>

// Every Read that gives up takes a second. It then discards its output once, which is how the
// other end of the line counts them.
class TestSerialRead : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void closedPortIsMinusOne();
    void descriptorZeroCountsAsClosed();
    void silentLineIsZero();
    void fullBufferReturnsAtOnceWithoutDiscarding();
    void noMoreIsTakenThanAsked();
    void piecesAreCollected();
    void shortAnswerIsReturnedAfterASecond();
    void firstByteRenewsTheWait();
    void tricklingLineEndsAfter100Passes();
    void hungUpLineIsZero();
    void hangUpKeepsWhatCame();
    void failingReadDoesNotMoveThePosition();
    void tooLargeDescriptorIsASelectFailure();
    void descriptorClosedElsewhereIsASelectFailure();

private:
    void openLine();

    QScopedPointer<Pty> m_line;
    QScopedPointer<SerialPort> m_port;
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

} // namespace

void TestSerialRead::init()
{
    m_line.reset(new Pty);
    m_port.reset(new SerialPort);
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
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), -1);
    QVERIFY(buffer.isUntouchedFrom(0));
    openLine();
    m_port->Close();
    QCOMPARE(m_port->Read(buffer.bytes, 8), -1);
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

void TestSerialRead::silentLineIsZero()
{
    openLine();
    Buffer buffer;
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(m_port->Read(buffer.bytes, 8), 0);
    QVERIFY(timer.elapsed() >= 1000);
    QVERIFY(timer.elapsed() < kHangMs);
    QCOMPARE(buffer.head(4), kFourZeros);
    QVERIFY(buffer.isUntouchedFrom(4));
    QVERIFY(buffer.guardsStand());
    QCOMPARE(m_line->discards(), 1);
    QCOMPARE(m_line->inputDiscards(), 0);
}

void TestSerialRead::fullBufferReturnsAtOnceWithoutDiscarding()
{
    openLine();
    m_line->send("abcd");
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 4), 4);
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

void TestSerialRead::shortAnswerIsReturnedAfterASecond()
{
    openLine();
    m_line->send("a");
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), 1);
    QCOMPARE(buffer.head(4), QByteArray("a\0\0\0", 4));
    QVERIFY(buffer.isUntouchedFrom(4));
    QCOMPARE(m_line->discards(), 1);
}

void TestSerialRead::firstByteRenewsTheWait()
{
    openLine();
    // More than a second in all, less than one between two events.
    Peer peer(*m_line, [](Pty &line) {
        QThread::msleep(600);
        line.send("a");
        line.waitUntilTaken();
        QThread::msleep(600);
        line.send("b");
    });
    Buffer buffer;
    const int count = m_port->Read(buffer.bytes, 2);
    peer.finish();
    QCOMPARE(count, 2);
    QCOMPARE(buffer.head(4), QByteArray("ab\0\0", 4));
    QCOMPARE(m_line->discards(), 0);
}

void TestSerialRead::tricklingLineEndsAfter100Passes()
{
    openLine();
    constexpr int wanted = 400;
    Peer peer(*m_line, [](Pty &line) {
        for (int i = 0; i < wanted && line.discards() == 0; ++i) {
            line.send("x");
            line.waitUntilTaken();
        }
    });
    QByteArray bytes(wanted, '\0');
    const int count = m_port->Read(bytes.data(), wanted);
    // The peer may be waiting for its last byte to be taken.
    QByteArray rest(wanted, '\0');
    timeval none{0, 0};
    m_port->read_uart_port(reinterpret_cast<unsigned char *>(rest.data()), wanted, &none);
    peer.finish();
    QVERIFY2(count >= 1 && count <= 100, QByteArray::number(count).constData());
    QCOMPARE(m_line->discards(), 1);
}

void TestSerialRead::hungUpLineIsZero()
{
    openLine();
    m_line->hangUp();
    Buffer buffer;
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(m_port->Read(buffer.bytes, 8), 0);
    QVERIFY(timer.elapsed() < kHangMs);
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
    Buffer buffer;
    QCOMPARE(m_port->Read(buffer.bytes, 8), 0);
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
