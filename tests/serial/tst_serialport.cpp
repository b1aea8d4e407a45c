#include "descriptors.h"
#include "openline.h"

#include <QtTest>

#include <climits>
#include <fcntl.h>
#include <unistd.h>

/// What can be done with an open line but to read it.
class TestSerialPort : public QObject {
    Q_OBJECT

private slots:
    void closeTwiceIsHarmless();
    void destructorCloses();
    void closedPortCanBeOpenedAgain();

    void timeoutIsSet_data();
    void timeoutIsSet();
    void timeoutKeepsTheOtherSettings();
    void timeoutDiscardsPendingInput();
    void timeoutOfAClosedPortFailsSilently();

    void writeSendsTheBytesUnchanged();
    void emptyWriteIsNoFailure();
    void partialWriteIsNotRetried();
    void failedWriteIsLogged();

    void strobeWithoutModemLinesSaysSo();
};

void TestSerialPort::closeTwiceIsHarmless()
{
    Pty line;
    SerialPort port;
    const int descriptor = nextDescriptor();
    QVERIFY(port.Open(line.path().constData(), "115200"));
    port.Close();
    QVERIFY(!line.isOpenedByProduct());
    // Another file gets the number that the port had.
    QCOMPARE(dup2(STDERR_FILENO, descriptor), descriptor);
    port.Close();
    QVERIFY(fcntl(descriptor, F_GETFD) >= 0);
    close(descriptor);
    SerialPort neverOpened;
    neverOpened.Close();
}

void TestSerialPort::destructorCloses()
{
    Pty line;
    {
        SerialPort port;
        QVERIFY(port.Open(line.path().constData(), "115200"));
        QVERIFY(line.isOpenedByProduct());
    }
    QVERIFY(!line.isOpenedByProduct());
}

void TestSerialPort::closedPortCanBeOpenedAgain()
{
    OpenLine line;
    line.port.Close();
    QVERIFY(line.port.Open(line.path().constData(), "9600"));
    QVERIFY(line.isOpenedByProduct());
}

void TestSerialPort::timeoutIsSet_data()
{
    QTest::addColumn<unsigned>("milliseconds");
    QTest::addColumn<int>("vmin");
    QTest::addColumn<int>("vtime");

    QTest::newRow("0") << 0U << 1 << 0;
    QTest::newRow("1") << 1U << 0 << 1;
    QTest::newRow("100") << 100U << 0 << 1;
    QTest::newRow("101") << 101U << 0 << 2;
    QTest::newRow("500") << 500U << 0 << 5;
    QTest::newRow("25400") << 25400U << 0 << 254;
    QTest::newRow("25401") << 25401U << 0 << 255;
    QTest::newRow("25501") << 25501U << 0 << 255;
    QTest::newRow("30000") << 30000U << 0 << 255;
    QTest::newRow("nearly the largest") << UINT_MAX - 98 << 0 << 255;
    QTest::newRow("largest") << UINT_MAX << 0 << 255;
}

void TestSerialPort::timeoutIsSet()
{
    QFETCH(unsigned, milliseconds);
    QFETCH(int, vmin);
    QFETCH(int, vtime);

    OpenLine line;
    // Neither value may be left over.
    termios other = line.settings();
    other.c_cc[VMIN] = 9;
    other.c_cc[VTIME] = 9;
    line.setSettings(other);
    const Logged timeout = logged([&] { return line.port.SetTimeout(milliseconds); });
    QVERIFY(timeout.result);
    QCOMPARE(timeout.text, QByteArray());
    QCOMPARE(static_cast<int>(line.settings().c_cc[VMIN]), vmin);
    QCOMPARE(static_cast<int>(line.settings().c_cc[VTIME]), vtime);
}

void TestSerialPort::timeoutKeepsTheOtherSettings()
{
    OpenLine line;
    const termios before = line.settings();
    QVERIFY(line.port.SetTimeout(500));
    const termios after = line.settings();
    QCOMPARE(after.c_iflag, before.c_iflag);
    QCOMPARE(after.c_oflag, before.c_oflag);
    QCOMPARE(after.c_lflag, before.c_lflag);
    QCOMPARE(after.c_cflag, before.c_cflag);
    QCOMPARE(cfgetospeed(&after), speed_t{B115200});
}

void TestSerialPort::timeoutDiscardsPendingInput()
{
    OpenLine line;
    line.deliver("stale");
    QVERIFY(line.port.SetTimeout(500));
    QCOMPARE(line.inputDiscards(), 1);
    line.send("new");
    char bytes[4] = {};
    QCOMPARE(line.port.Read(bytes, 3), 3);
    QCOMPARE(QByteArray(bytes), QByteArray("new"));
}

void TestSerialPort::timeoutOfAClosedPortFailsSilently()
{
    SerialPort port;
    const Logged timeout = logged([&port] { return port.SetTimeout(500); });
    QVERIFY(!timeout.result);
    QCOMPARE(timeout.text, QByteArray());
}

void TestSerialPort::writeSendsTheBytesUnchanged()
{
    OpenLine line;
    QByteArray bytes;
    for (int value = 0; value < 256; ++value)
        bytes.append(static_cast<char>(value));
    QCOMPARE(line.port.Write(bytes.constData(), 256), 256);
    QCOMPARE(line.receive(256), bytes);
    QCOMPARE(line.received(), QByteArray());
}

void TestSerialPort::emptyWriteIsNoFailure()
{
    OpenLine line;
    DescriptorCapture err(2);
    const int count = line.port.Write("", 0);
    QCOMPARE(err.take(), QByteArray());
    QCOMPARE(count, 0);
}

void TestSerialPort::partialWriteIsNotRetried()
{
    OpenLine line;
    const QByteArray bytes(1 << 20, 'p');
    DescriptorCapture err(2);
    const int first = line.port.Write(bytes.constData(), static_cast<unsigned>(bytes.size()));
    // The kernel moves some of it on to the other end: until nothing more fits.
    int total = first;
    for (int count = first; count > 0; total += count)
        count = line.port.Write(bytes.constData(), static_cast<unsigned>(bytes.size()));
    QCOMPARE(err.take(), QByteArray("ERROR: write failed: Resource temporarily unavailable\n"));
    QVERIFY(first > 0);
    QVERIFY(first < bytes.size());

    QCOMPARE(line.receive(total).size(), total);
    QCOMPARE(line.received(), QByteArray());
}

void TestSerialPort::failedWriteIsLogged()
{
    SerialPort port;
    DescriptorCapture closed(2);
    const int fromClosed = port.Write("x", 1);
    QCOMPARE(closed.take(), QByteArray("ERROR: write failed: Bad file descriptor\n"));
    QCOMPARE(fromClosed, 0);

    OpenLine line;
    line.hangUp();
    DescriptorCapture dead(2);
    const int fromDead = line.port.Write("x", 1);
    QCOMPARE(dead.take(), QByteArray("ERROR: write failed: Input/output error\n"));
    QCOMPARE(fromDead, 0);
}

void TestSerialPort::strobeWithoutModemLinesSaysSo()
{
    OpenLine line;
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    line.port.StrobeDTRRTS();
    const QByteArray complaint = err.take();
    QCOMPARE(out.take(), QByteArray());
    QCOMPARE(complaint, QByteArray("ioctl('TIOCMGET'): Inappropriate ioctl for device\n"));
}

QTEST_APPLESS_MAIN(TestSerialPort)
#include "tst_serialport.moc"
