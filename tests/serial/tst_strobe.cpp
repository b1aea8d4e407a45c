#include "capture.h"
#include "pty.h"
#include "serialport.h"

#include <QElapsedTimer>
#include <QtTest>

#include <cerrno>
#include <cstdarg>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// The modem lines that no pseudo-terminal has.
struct ModemLines {
    int bits = 0;
    int writesUntilFailure = 0;
    QList<int> writes;
    QList<qint64> writtenAtMs;
    QElapsedTimer clock;
};
ModemLines modem;

int modemLines(unsigned long request, int *bits)
{
    if (request == TIOCMGET) {
        *bits = modem.bits;
        return 0;
    }
    modem.writes.append(*bits);
    modem.writtenAtMs.append(modem.clock.elapsed());
    if (modem.writes.size() > modem.writesUntilFailure) {
        errno = EIO;
        return -1;
    }
    modem.bits = *bits;
    return 0;
}

} // namespace

// Stands before the C library's, and adds modem lines to every line.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void *const argument = va_arg(args, void *);
    va_end(args);
    if (request == TIOCMGET || request == TIOCMSET)
        return modemLines(request, static_cast<int *>(argument));
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

class TestStrobe : public QObject {
    Q_OBJECT

private slots:
    void init();

    void dropsAndRaisesBothLines();
    void otherLinesStay();
    void holdsEachState();
    void failedDropStops();
    void failedRaiseIsReported();

private:
    void strobe();

    QByteArray m_out;
    QByteArray m_err;
    qint64 m_endedAtMs = 0;
};

void TestStrobe::init()
{
    modem = {};
    modem.writesUntilFailure = 2;
}

void TestStrobe::strobe()
{
    Pty line;
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), "115200"));
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    modem.clock.start();
    port.StrobeDTRRTS();
    m_endedAtMs = modem.clock.elapsed();
    m_err = err.take();
    m_out = out.take();
}

void TestStrobe::dropsAndRaisesBothLines()
{
    modem.bits = TIOCM_DTR;
    strobe();
    QCOMPARE(modem.writes, QList<int>({0, TIOCM_DTR | TIOCM_RTS}));
    QCOMPARE(m_out, QByteArray("Clearing DTR/RTS\nSetting DTR/RTS\n"));
    QCOMPARE(m_err, QByteArray());
}

void TestStrobe::otherLinesStay()
{
    modem.bits = TIOCM_CTS | TIOCM_RTS | TIOCM_CAR;
    strobe();
    constexpr int others = TIOCM_CTS | TIOCM_CAR;
    QCOMPARE(modem.writes, QList<int>({others, others | TIOCM_DTR | TIOCM_RTS}));
}

void TestStrobe::holdsEachState()
{
    strobe();
    QCOMPARE(modem.writtenAtMs.size(), 2);
    QVERIFY(modem.writtenAtMs.at(1) - modem.writtenAtMs.at(0) >= 249);
    QVERIFY(m_endedAtMs - modem.writtenAtMs.at(1) >= 49);
}

void TestStrobe::failedDropStops()
{
    modem.writesUntilFailure = 0;
    strobe();
    QCOMPARE(modem.writes.size(), 1);
    QCOMPARE(m_out, QByteArray("Clearing DTR/RTS\n"));
    QCOMPARE(m_err, QByteArray("ioctl('TIOCMSET'): Input/output error\n"));
}

void TestStrobe::failedRaiseIsReported()
{
    modem.writesUntilFailure = 1;
    strobe();
    QCOMPARE(modem.writes.size(), 2);
    QCOMPARE(m_out, QByteArray("Clearing DTR/RTS\nSetting DTR/RTS\n"));
    QCOMPARE(m_err, QByteArray("ioctl('TIOCMSET'): Input/output error\n"));
}

QTEST_APPLESS_MAIN(TestStrobe)
#include "tst_strobe.moc"
