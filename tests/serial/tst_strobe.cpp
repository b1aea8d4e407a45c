#include "openline.h"
#include "waits.h"

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
};
ModemLines gModem;

const QByteArray kLow("1 x usleep 250000 us\n");
const QByteArray kSettle("1 x usleep 50000 us\n");

int modemLines(unsigned long request, int *bits)
{
    if (request == TIOCMGET) {
        *bits = gModem.bits;
        return 0;
    }
    gModem.writes.append(*bits);
    if (gModem.writes.size() > gModem.writesUntilFailure) {
        errno = EIO;
        return -1;
    }
    gModem.bits = *bits;
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
    void strobe(Waits::Mode mode = Waits::AtOnce);

    QByteArray m_out;
    QByteArray m_err;
    QByteArray m_waits;
    QList<int> m_writesBefore; // each wait
};

void TestStrobe::init()
{
    gModem = {};
    gModem.writesUntilFailure = 2;
    m_writesBefore.clear();
}

void TestStrobe::strobe(Waits::Mode mode)
{
    OpenLine line;
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    Waits waits(mode);
    waits.setBefore([this](const QByteArray &) { m_writesBefore.append(gModem.writes.size()); });
    line.port.StrobeDTRRTS();
    m_waits = waits.asked();
    m_err = err.take();
    m_out = out.take();
}

void TestStrobe::dropsAndRaisesBothLines()
{
    gModem.bits = TIOCM_DTR;
    strobe();
    QCOMPARE(gModem.writes, QList<int>({0, TIOCM_DTR | TIOCM_RTS}));
    QCOMPARE(m_out, QByteArray("Clearing DTR/RTS\nSetting DTR/RTS\n"));
    QCOMPARE(m_err, QByteArray());
}

void TestStrobe::otherLinesStay()
{
    gModem.bits = TIOCM_CTS | TIOCM_RTS | TIOCM_CAR;
    strobe();
    constexpr int others = TIOCM_CTS | TIOCM_CAR;
    QCOMPARE(gModem.writes, QList<int>({others, others | TIOCM_DTR | TIOCM_RTS}));
}

void TestStrobe::holdsEachState()
{
    strobe(Waits::Real);
    QCOMPARE(m_waits, kLow + kSettle);
    QCOMPARE(m_writesBefore, QList<int>({1, 2}));
}

void TestStrobe::failedDropStops()
{
    gModem.writesUntilFailure = 0;
    strobe();
    QCOMPARE(gModem.writes.size(), 1);
    QCOMPARE(m_waits, QByteArray());
    QCOMPARE(m_out, QByteArray("Clearing DTR/RTS\n"));
    QCOMPARE(m_err, QByteArray("ioctl('TIOCMSET'): Input/output error\n"));
}

void TestStrobe::failedRaiseIsReported()
{
    gModem.writesUntilFailure = 1;
    strobe();
    QCOMPARE(gModem.writes.size(), 2);
    QCOMPARE(m_waits, kLow);
    QCOMPARE(m_out, QByteArray("Clearing DTR/RTS\nSetting DTR/RTS\n"));
    QCOMPARE(m_err, QByteArray("ioctl('TIOCMSET'): Input/output error\n"));
}

QTEST_APPLESS_MAIN(TestStrobe)
#include "tst_strobe.moc"
