#include "descriptors.h"
#include "openline.h"
#include "waits.h"

#include <QtTest>

#include <sys/time.h>

namespace {

/// Result and output of one read_uart_port call.
struct UartRead {
    int result;
    QByteArray out;
    QByteArray err;
};

UartRead uartRead(SerialPort &port, unsigned char *buffer, unsigned length, timeval wait)
{
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    const int result = port.read_uart_port(buffer, length, &wait);
    const QByteArray complaint = err.take();
    return {result, out.take(), complaint};
}

void compareRead(const UartRead &read, int result, const QByteArray &out,
                 const QByteArray &err = {})
{
    QCOMPARE(read.result, result);
    QCOMPARE(read.out, out);
    QCOMPARE(read.err, err);
}

constexpr timeval kShort{0, 20000};
constexpr timeval kLong{kHangMs / 1000, 0};

} // namespace

class TestUartRead : public QObject {
    Q_OBJECT

private slots:
    void uartReadTakesWhatIsThere();
    void uartReadTakesNoMoreThanAsked();
    void uartReadWaitsForTheCallersTime();
    void uartReadReturnsBeforeTheTimeIsOver();
    void uartReadThatIsInterruptedIsASelectFailure();
    void uartReadTimesOutWithZero();
    void uartReadOfAClosedPortIsASelectFailure();
    void uartReadOfATooLargeDescriptorIsASelectFailure();
    void failedUartReadIs65535();
    void uartCountHas16Bits();
};

void TestUartRead::uartReadTakesWhatIsThere()
{
    OpenLine line;
    line.deliver("abc");
    unsigned char buffer[8] = {};
    const UartRead read = uartRead(line.port, buffer, 8, kLong);
    compareRead(read, 3, "   CurrentReadNum = 3\n");
    QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer), 8), QByteArray("abc\0\0\0\0\0", 8));
    QCOMPARE(line.discards(), 0);
}

void TestUartRead::uartReadTakesNoMoreThanAsked()
{
    OpenLine line;
    line.deliver("abcdef");
    unsigned char buffer[8] = {};
    QCOMPARE(uartRead(line.port, buffer, 4, kLong).result, 4);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer)), QByteArray("abcd"));
    QCOMPARE(uartRead(line.port, buffer, 4, kLong).result, 2);
}

void TestUartRead::uartReadWaitsForTheCallersTime()
{
    OpenLine line;
    unsigned char buffer[4];
    timeval wait{0, 50000};
    const Waits waits(Waits::Real);
    DescriptorCapture out(1);
    const int count = line.port.read_uart_port(buffer, 4, &wait);
    out.take();
    QCOMPARE(count, 0);
    QCOMPARE(waits.asked(), QByteArray("1 x select 50000 us\n"));
    // The time that is left, where select() tells it; never more than was given.
    QVERIFY(wait.tv_sec == 0 && wait.tv_usec <= 50000);
}

void TestUartRead::uartReadReturnsBeforeTheTimeIsOver()
{
    OpenLine line;
    line.send("x");
    unsigned char buffer[4];
    timeval wait = kLong;
    DescriptorCapture out(1);
    const int count = line.port.read_uart_port(buffer, 4, &wait);
    out.take();
    QCOMPARE(count, 1);
}

void TestUartRead::uartReadThatIsInterruptedIsASelectFailure()
{
    OpenLine line;
    Waits waits(Waits::AtOnce);
    waits.interrupt(5000);
    unsigned char buffer[4];
    const UartRead read = uartRead(line.port, buffer, 4, kShort);
    QCOMPARE(waits.asked(), QByteArray("1 x select 20000 us\n"));
    compareRead(read, -1, {}, "select error!!: Interrupted system call\n");
}

void TestUartRead::uartReadTimesOutWithZero()
{
    OpenLine line;
    unsigned char buffer[4] = {1, 2, 3, 4};
    const UartRead read = uartRead(line.port, buffer, 4, kShort);
    compareRead(read, 0, "   CurrentReadNum = 0\n");
    QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer), 4), QByteArray("\1\2\3\4"));
}

void TestUartRead::uartReadOfAClosedPortIsASelectFailure()
{
    SerialPort port;
    unsigned char buffer[4];
    const UartRead read = uartRead(port, buffer, 4, kShort);
    compareRead(read, -1, {}, "select error!!: Bad file descriptor\n");
}

void TestUartRead::uartReadOfATooLargeDescriptorIsASelectFailure()
{
    Pty line;
    const DescriptorsUpToSelectLimit occupied;
    SerialPort port;
    QVERIFY(nextDescriptor() >= FD_SETSIZE);
    QVERIFY(port.Open(line.path().constData(), "115200"));
    line.send("x");
    unsigned char buffer[4];
    const UartRead read = uartRead(port, buffer, 4, kShort);
    compareRead(read, -1, {}, "select error!!: Bad file descriptor\n");
}

void TestUartRead::failedUartReadIs65535()
{
    // Always readable for select(), and its first page cannot be read.
    SerialPort port;
    QVERIFY(!openLogged(port, "/proc/self/mem").result);
    unsigned char buffer[4] = {1, 2, 3, 4};
    const UartRead read = uartRead(port, buffer, 4, kShort);
    compareRead(read, 65535, "   CurrentReadNum = 65535\n");
}

void TestUartRead::uartCountHas16Bits()
{
    QTemporaryFile file;
    QVERIFY(file.open());
    file.write(QByteArray(70000, 'b'));
    file.flush();
    SerialPort port;
    QVERIFY(!openLogged(port, file.fileName().toLocal8Bit()).result);
    QByteArray buffer(70000, '\0');
    const UartRead read =
        uartRead(port, reinterpret_cast<unsigned char *>(buffer.data()), 70000, kShort);
    QCOMPARE(buffer, QByteArray(70000, 'b'));
    QCOMPARE(read.result, 70000 - 65536);
    QCOMPARE(read.out, QByteArray("   CurrentReadNum = 4464\n"));
}

QTEST_APPLESS_MAIN(TestUartRead)
#include "tst_uartread.moc"
