#include "capture.h"
#include "child.h"
#include "descriptors.h"
#include "emulation.h"
#include "log.h"
#include "machine.h"
#include "pty.h"
#include "serialport.h"
#include "waits.h"

#include <QtTest>

#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kPathMax = 39;
constexpr speed_t kSpeeds[] = {B50,    B75,    B110,    B134,    B150,    B200,  B300,
                               B600,   B1200,  B1800,   B2400,   B4800,   B9600, B19200,
                               B38400, B57600, B115200, B230400, B1000000};
constexpr unsigned kRates[] = {50,   75,   110,  134,   150,   200,   300,    600,    1200,   1800,
                               2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400, 1000000};
static_assert(std::size(kSpeeds) == 19 && std::size(kRates) == 19);

/// What a call logged, with its result.
struct Logged {
    bool result;
    QByteArray text;
};

template <typename Call>
Logged logged(Call call)
{
    DescriptorCapture err(2);
    const bool result = call();
    return {result, err.take()};
}

Logged openLogged(SerialPort &port, const QByteArray &name, const char *baud = "115200")
{
    return logged([&] { return port.Open(name.constData(), baud); });
}

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
        .size();
}

/// Whether the line takes this speed without the product.
bool canHaveSpeed(Pty &line, speed_t speed)
{
    termios settings = line.settings();
    cfsetispeed(&settings, speed);
    cfsetospeed(&settings, speed);
    line.setSettings(settings);
    settings = line.settings();
    return cfgetospeed(&settings) == speed;
}

/// A line that the product has open.
class OpenLine : public Pty {
public:
    OpenLine() { m_open = port.Open(path().constData(), "115200"); }
    bool isOpen() const { return m_open; }

    SerialPort port;

private:
    bool m_open = false;
};

/// Runs `body` in a child process in the background of its terminal `line`, in a process group
/// without a parent in its session: the terminal refuses to let it change settings.
ChildResult runInOrphanedBackground(const QByteArray &line, const std::function<int()> &body)
{
    return runInChild([&] {
        const int terminal = open(line.constData(), O_RDWR); // becomes the controlling terminal
        CHILD_VERIFY(terminal >= 0);
        int ends[2];
        CHILD_VERIFY(pipe(ends) == 0);
        const pid_t middle = fork();
        if (middle == 0) {
            setpgid(0, 0);
            const pid_t self = getpid();
            if (fork() > 0)
                _exit(0);
            while (getppid() == self)
                usleep(1000);
            const int code = body();
            std::fflush(nullptr);
            const char answer = static_cast<char>(code);
            _exit(write(ends[1], &answer, 1) == 1 ? 0 : 1);
        }
        close(ends[1]);
        waitpid(middle, nullptr, 0);
        char answer = 1;
        CHILD_VERIFY(read(ends[0], &answer, 1) == 1);
        return static_cast<int>(answer);
    });
}

} // namespace

class TestSerialPort : public QObject {
    Q_OBJECT

private slots:
    void cleanup();

    void tableHas19RowsInOrder();
    void everyRateOfTheTableIsSet_data();
    void everyRateOfTheTableIsSet();
    void nullBaudIs9600();
    void baudTextIsReadUpToItsDigits_data();
    void baudTextIsReadUpToItsDigits();
    void unrecognisedBaudFailsBeforeTheDevice_data();
    void unrecognisedBaudFailsBeforeTheDevice();

    void nameWithoutSlashIsBelowDev();
    void boardsShortNameOpensItsDevice();
    void absolutePathIsTakenAsItStands();
    void pathIsCutTo39Characters();
    void nameBelowDevIsCutTo39CharactersInAll();
    void openFailureIsLogged_data();
    void openFailureIsLogged();
    void failedSettingsReadLeavesTheDescriptorOpen();
    void failedSettingsWriteIsLogged();
    void verboseOpenIsTraced();
    void quietOpenIsNotTraced();

    void lineIsRaw8N1();
    void openDiscardsNothing();
    void descriptorIsReadWriteAndNonBlocking();
    void childrenDoNotGetTheDescriptor_data();
    void childrenDoNotGetTheDescriptor();
    void openDoesNotCloseAnOpenDescriptor();
    void failedOpenIsStoredToo();
    void sessionLeaderGetsTheLine();

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

void TestSerialPort::cleanup()
{
    gVerbose = 0;
    gQuiet = 0;
}

void TestSerialPort::tableHas19RowsInOrder()
{
    QCOMPARE(kBaudRows, 19);
    QCOMPARE(sizeof gBaudTable, sizeof(std::uint32_t) * 19 * 2);
    for (std::size_t row = 0; row < std::size(kSpeeds); ++row) {
        QCOMPARE(gBaudTable[row].speed, kSpeeds[row]);
        QCOMPARE(gBaudTable[row].rate, kRates[row]);
    }
}

void TestSerialPort::everyRateOfTheTableIsSet_data()
{
    QTest::addColumn<QByteArray>("baud");
    QTest::addColumn<unsigned>("speed");
    for (std::size_t row = 0; row < std::size(kSpeeds); ++row) {
        const QByteArray baud = QByteArray::number(kRates[row]);
        QTest::newRow(baud.constData()) << baud << kSpeeds[row];
    }
}

void TestSerialPort::everyRateOfTheTableIsSet()
{
    QFETCH(QByteArray, baud);
    QFETCH(unsigned, speed);

    Pty line;
    if (isEmulated() && !canHaveSpeed(line, speed))
        QSKIP("the emulator does not know this rate");
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), baud.constData()));
    const termios settings = line.settings();
    QCOMPARE(cfgetispeed(&settings), speed);
    QCOMPARE(cfgetospeed(&settings), speed);
}

void TestSerialPort::nullBaudIs9600()
{
    Pty line;
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), nullptr));
    const termios settings = line.settings();
    QCOMPARE(cfgetispeed(&settings), speed_t{B9600});
    QCOMPARE(cfgetospeed(&settings), speed_t{B9600});
}

void TestSerialPort::baudTextIsReadUpToItsDigits_data()
{
    QTest::addColumn<QByteArray>("baud");
    QTest::newRow("blank first") << QByteArray("  38400");
    QTest::newRow("plus sign") << QByteArray("+38400");
    QTest::newRow("leading zeros") << QByteArray("0038400");
    QTest::newRow("text behind") << QByteArray("38400,8N1");
}

void TestSerialPort::baudTextIsReadUpToItsDigits()
{
    QFETCH(QByteArray, baud);

    Pty line;
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), baud.constData()));
    const termios settings = line.settings();
    QCOMPARE(cfgetospeed(&settings), speed_t{B38400});
}

void TestSerialPort::unrecognisedBaudFailsBeforeTheDevice_data()
{
    QTest::addColumn<QByteArray>("baud");
    for (const char *baud : {"115201", "abc", "0", "-9600", "460800", "500000", "576000", "921600",
                             "2000000", "x9600", "99999999999999999999", "%s"})
        QTest::newRow(baud) << QByteArray(baud);
    QTest::newRow("empty") << QByteArray("");
}

void TestSerialPort::unrecognisedBaudFailsBeforeTheDevice()
{
    QFETCH(QByteArray, baud);

    Pty line;
    SerialPort port;
    const QByteArray message = "ERROR: Unrecognized baud rate: '" + baud + "'\n";
    const Logged present = openLogged(port, line.path(), baud.constData());
    QVERIFY(!present.result);
    QCOMPARE(present.text, message);
    QVERIFY(!line.isOpenedByProduct());

    const Logged missing = openLogged(port, "/no/such/device", baud.constData());
    QVERIFY(!missing.result);
    QCOMPARE(missing.text, message);
}

void TestSerialPort::nameWithoutSlashIsBelowDev()
{
    Pty line;
    SerialPort port;
    QVERIFY(line.path().startsWith("/dev/pts/"));
    QVERIFY(port.Open(line.path().mid(5).constData(), "115200"));
    QVERIFY(line.isOpenedByProduct());
}

void TestSerialPort::boardsShortNameOpensItsDevice()
{
    SKIP_OFF_THE_SIMULATED_MACHINE();
    BoardLine line;
    SerialPort port;
    const Logged open = openLogged(port, "ttymxc1", "115200");
    QVERIFY(open.result);
    QCOMPARE(open.text, QByteArray());
    const termios settings = line.settings();
    QCOMPARE(cfgetispeed(&settings), speed_t{B115200});
    QCOMPARE(cfgetospeed(&settings), speed_t{B115200});
    QCOMPARE(port.Write("x", 1), 1);
    QCOMPARE(line.receive(1), QByteArray("x"));
    QVERIFY(line.isOpenedByProduct());
}

void TestSerialPort::absolutePathIsTakenAsItStands()
{
    Pty line;
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), "115200"));
    QVERIFY(line.isOpenedByProduct());
}

void TestSerialPort::pathIsCutTo39Characters()
{
    const QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/sp-XXXXXX"));
    QByteArray link = dir.path().toLocal8Bit() + '/';
    QVERIFY(link.size() < kPathMax);
    link.append(QByteArray(kPathMax - link.size(), 'x'));
    Pty line;
    QCOMPARE(symlink(line.path().constData(), link.constData()), 0);

    SerialPort port;
    QVERIFY(port.Open((link + "and more").constData(), "115200"));
    QVERIFY(line.isOpenedByProduct());
}

void TestSerialPort::nameBelowDevIsCutTo39CharactersInAll()
{
    SerialPort port;
    QCOMPARE(openLogged(port, QByteArray(100, 'n')).text,
             "ERROR: Unable to open serial port '/dev/" + QByteArray(34, 'n')
                 + "': No such file or directory\n");
}

void TestSerialPort::openFailureIsLogged_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("missing") << QByteArray("/no/such/device")
                             << QByteArray("ERROR: Unable to open serial port '/no/such/device': "
                                           "No such file or directory\n");
    QTest::newRow("directory") << QByteArray("/dev")
                               << QByteArray("ERROR: Unable to open serial port '/dev': "
                                             "Is a directory\n");
    QTest::newRow("empty name") << QByteArray("")
                                << QByteArray("ERROR: Unable to open serial port '/dev/': "
                                              "Is a directory\n");
}

void TestSerialPort::openFailureIsLogged()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, expected);

    SerialPort port;
    const Logged open = openLogged(port, name);
    QVERIFY(!open.result);
    QCOMPARE(open.text, expected);
    char byte[4];
    QCOMPARE(port.Read(byte, 1), -1);
}

void TestSerialPort::failedSettingsReadLeavesTheDescriptorOpen()
{
    QTemporaryFile file;
    QVERIFY(file.open());
    const QByteArray name = file.fileName().toLocal8Bit();
    QVERIFY(name.size() <= kPathMax);
    SerialPort port;
    const Logged open = openLogged(port, name);
    QVERIFY(!open.result);
    QCOMPARE(open.text,
             QByteArray("ERROR: A: Call to tcgetattr failed: Inappropriate ioctl for device\n"));

    QCOMPARE(port.Write("kept", 4), 4);
    QCOMPARE(file.readAll(), QByteArray("kept"));
    const Logged timeout = logged([&port] { return port.SetTimeout(500); });
    QVERIFY(!timeout.result);
    QCOMPARE(timeout.text,
             QByteArray("ERROR: B: Call to tcgetattr failed: Inappropriate ioctl for device\n"));

    const int before = openDescriptors();
    port.Close();
    QCOMPARE(openDescriptors(), before - 1);
}

void TestSerialPort::failedSettingsWriteIsLogged()
{
    Pty line;
    const QByteArray path = line.path();
    const ChildResult child = runInOrphanedBackground(path, [&path] {
        SerialPort port;
        CHILD_VERIFY(!port.Open(path.constData(), "115200"));
        CHILD_VERIFY(!port.SetTimeout(500));
        // The descriptor is kept.
        CHILD_VERIFY(port.Write("kept", 4) == 4);
        return 0;
    });
    QCOMPARE(child.status, 0);
    QCOMPARE(child.err,
             QByteArray("ERROR: Call to tcsetattr failed: Input/output error\n"
                        "ERROR: Call to tcsetattr failed: Input/output error\n"));
    QCOMPARE(line.receive(4), QByteArray("kept"));
}

void TestSerialPort::verboseOpenIsTraced()
{
    QCOMPARE(gVerbose, 0);
    gVerbose = 1;
    Pty line;
    SerialPort port;
    const Logged named = openLogged(port, line.path().mid(5));
    QVERIFY(named.result);
    QCOMPARE(named.text, "Port: '" + line.path() + "' Baud: 115200\n");
    port.Close();
    QCOMPARE(openLogged(port, line.path(), nullptr).text,
             "Port: '" + line.path() + "' Baud: 9600\n");
    port.Close();

    // Traced before the device is tried, not before the rate is known.
    QCOMPARE(openLogged(port, "/no/such/device", "50").text,
             QByteArray("Port: '/no/such/device' Baud: 50\n"
                        "ERROR: Unable to open serial port '/no/such/device': "
                        "No such file or directory\n"));
    QCOMPARE(openLogged(port, line.path(), "51").text,
             QByteArray("ERROR: Unrecognized baud rate: '51'\n"));

    // A plain message, so it can be silenced.
    gQuiet = 1;
    QCOMPARE(openLogged(port, line.path()).text, QByteArray());
}

void TestSerialPort::quietOpenIsNotTraced()
{
    Pty line;
    SerialPort port;
    DescriptorCapture out(1);
    const Logged open = openLogged(port, line.path());
    QCOMPARE(out.take(), QByteArray());
    QVERIFY(open.result);
    QCOMPARE(open.text, QByteArray());
}

void TestSerialPort::lineIsRaw8N1()
{
    Pty line;
    termios cooked{};
    cooked.c_iflag = ICRNL | IXON | ISTRIP | BRKINT;
    cooked.c_oflag = OPOST | ONLCR;
    cooked.c_lflag = ICANON | ECHO | ISIG | IEXTEN;
    cooked.c_cflag = CS7 | CSTOPB | HUPCL | CRTSCTS;
    for (cc_t &character : cooked.c_cc)
        character = 7;
    line.setSettings(cooked);

    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), "115200"));
    const termios settings = line.settings();
    QCOMPARE(settings.c_iflag, tcflag_t{0});
    QCOMPARE(settings.c_oflag, tcflag_t{0});
    QCOMPARE(settings.c_lflag, tcflag_t{0});
    constexpr tcflag_t rate = CBAUD | CIBAUD;
    QCOMPARE(settings.c_cflag & ~rate, tcflag_t{CS8 | CREAD | CLOCAL});
    for (const cc_t character : settings.c_cc)
        QCOMPARE(character, cc_t{0});
}

void TestSerialPort::openDiscardsNothing()
{
    Pty line;
    line.deliver("early");
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), "115200"));
    QCOMPARE(line.discards(), 0);
    QCOMPARE(line.inputDiscards(), 0);
    char bytes[6] = {};
    QCOMPARE(port.Read(bytes, 5), 5);
    QCOMPARE(QByteArray(bytes), QByteArray("early"));
}

void TestSerialPort::descriptorIsReadWriteAndNonBlocking()
{
    Pty line;
    SerialPort port;
    const int descriptor = nextDescriptor();
    QVERIFY(port.Open(line.path().constData(), "115200"));
    const int flags = fcntl(descriptor, F_GETFL);
    QVERIFY(flags & O_NONBLOCK);
    QCOMPARE(flags & O_ACCMODE, O_RDWR);
}

void TestSerialPort::childrenDoNotGetTheDescriptor_data()
{
    QTest::addColumn<bool>("isLine");
    QTest::newRow("line") << true;
    QTest::newRow("what is no line, and stays open") << false;
}

void TestSerialPort::childrenDoNotGetTheDescriptor()
{
    QFETCH(bool, isLine);

    Pty line;
    SerialPort port;
    DescriptorCapture err(2);
    const int descriptor = nextDescriptor();
    QCOMPARE(port.Open(isLine ? line.path().constData() : "/dev/null", "115200"), isLine);
    err.take();
    QVERIFY(fcntl(descriptor, F_GETFL) >= 0);
    const QByteArray look = "test ! -e /proc/self/fd/" + QByteArray::number(descriptor);
    QCOMPARE(std::system(look.constData()), 0);
}

void TestSerialPort::openDoesNotCloseAnOpenDescriptor()
{
    Pty first;
    Pty second;
    SerialPort port;
    const int descriptor = nextDescriptor();
    QVERIFY(port.Open(first.path().constData(), "115200"));
    QVERIFY(port.Open(second.path().constData(), "115200"));
    QVERIFY(first.isOpenedByProduct());
    QCOMPARE(port.Write("x", 1), 1);
    QCOMPARE(second.receive(1), QByteArray("x"));
    port.Close();
    QVERIFY(!second.isOpenedByProduct());
    QVERIFY(first.isOpenedByProduct());
    close(descriptor);
}

void TestSerialPort::failedOpenIsStoredToo()
{
    Pty line;
    SerialPort port;
    const int descriptor = nextDescriptor();
    QVERIFY(port.Open(line.path().constData(), "115200"));
    QVERIFY(!openLogged(port, "/no/such/device").result);
    char byte[4];
    QCOMPARE(port.Read(byte, 1), -1);
    port.Close();
    QVERIFY(line.isOpenedByProduct());
    close(descriptor);
}

void TestSerialPort::sessionLeaderGetsTheLine()
{
    Pty line;
    const QByteArray path = line.path();
    const ChildResult child = runInChild([&path] {
        CHILD_VERIFY(open("/dev/tty", O_RDWR) < 0);
        SerialPort port;
        CHILD_VERIFY(port.Open(path.constData(), "115200"));
        const int own = open(path.constData(), O_RDWR | O_NOCTTY);
        CHILD_VERIFY(tcgetpgrp(own) == getpid()); // of a terminal of its own only
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

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

constexpr timeval kShort{0, 20000};
constexpr timeval kLong{kHangMs / 1000, 0};

} // namespace

void TestSerialPort::uartReadTakesWhatIsThere()
{
    OpenLine line;
    line.deliver("abc");
    unsigned char buffer[8] = {};
    const UartRead read = uartRead(line.port, buffer, 8, kLong);
    QCOMPARE(read.result, 3);
    QCOMPARE(read.out, QByteArray("   CurrentReadNum = 3\n"));
    QCOMPARE(read.err, QByteArray());
    QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer), 8), QByteArray("abc\0\0\0\0\0", 8));
    QCOMPARE(line.discards(), 0);
}

void TestSerialPort::uartReadTakesNoMoreThanAsked()
{
    OpenLine line;
    line.deliver("abcdef");
    unsigned char buffer[8] = {};
    QCOMPARE(uartRead(line.port, buffer, 4, kLong).result, 4);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer)), QByteArray("abcd"));
    QCOMPARE(uartRead(line.port, buffer, 4, kLong).result, 2);
}

void TestSerialPort::uartReadWaitsForTheCallersTime()
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

void TestSerialPort::uartReadReturnsBeforeTheTimeIsOver()
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

void TestSerialPort::uartReadThatIsInterruptedIsASelectFailure()
{
    OpenLine line;
    Waits waits(Waits::AtOnce);
    waits.interrupt(5000);
    unsigned char buffer[4];
    const UartRead read = uartRead(line.port, buffer, 4, kShort);
    QCOMPARE(waits.asked(), QByteArray("1 x select 20000 us\n"));
    QCOMPARE(read.result, -1);
    QCOMPARE(read.out, QByteArray());
    QCOMPARE(read.err, QByteArray("select error!!: Interrupted system call\n"));
}

void TestSerialPort::uartReadTimesOutWithZero()
{
    OpenLine line;
    unsigned char buffer[4] = {1, 2, 3, 4};
    const UartRead read = uartRead(line.port, buffer, 4, kShort);
    QCOMPARE(read.result, 0);
    QCOMPARE(read.out, QByteArray("   CurrentReadNum = 0\n"));
    QCOMPARE(read.err, QByteArray());
    QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer), 4), QByteArray("\1\2\3\4"));
}

void TestSerialPort::uartReadOfAClosedPortIsASelectFailure()
{
    SerialPort port;
    unsigned char buffer[4];
    const UartRead read = uartRead(port, buffer, 4, kShort);
    QCOMPARE(read.result, -1);
    QCOMPARE(read.out, QByteArray());
    QCOMPARE(read.err, QByteArray("select error!!: Bad file descriptor\n"));
}

void TestSerialPort::uartReadOfATooLargeDescriptorIsASelectFailure()
{
    Pty line;
    const DescriptorsUpToSelectLimit occupied;
    SerialPort port;
    QVERIFY(nextDescriptor() >= FD_SETSIZE);
    QVERIFY(port.Open(line.path().constData(), "115200"));
    line.send("x");
    unsigned char buffer[4];
    const UartRead read = uartRead(port, buffer, 4, kShort);
    QCOMPARE(read.result, -1);
    QCOMPARE(read.out, QByteArray());
    QCOMPARE(read.err, QByteArray("select error!!: Bad file descriptor\n"));
}

void TestSerialPort::failedUartReadIs65535()
{
    // Always readable for select(), and its first page cannot be read.
    SerialPort port;
    QVERIFY(!openLogged(port, "/proc/self/mem").result);
    unsigned char buffer[4] = {1, 2, 3, 4};
    const UartRead read = uartRead(port, buffer, 4, kShort);
    QCOMPARE(read.result, 65535);
    QCOMPARE(read.out, QByteArray("   CurrentReadNum = 65535\n"));
    QCOMPARE(read.err, QByteArray());
}

void TestSerialPort::uartCountHas16Bits()
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

QTEST_APPLESS_MAIN(TestSerialPort)
#include "tst_serialport.moc"
