#include "child.h"
#include "descriptors.h"
#include "log.h"
#include "machine.h"
#include "openline.h"

#include <QtTest>

#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kPathMax = 39;

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
        .size();
}

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

/// What Open() takes for a name, what it logs, and how the line and the descriptor are then.
class TestSerialOpen : public QObject {
    Q_OBJECT

private slots:
    void cleanup();

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
};

void TestSerialOpen::cleanup()
{
    gVerbose = 0;
    gQuiet = 0;
}

void TestSerialOpen::nameWithoutSlashIsBelowDev()
{
    Pty line;
    SerialPort port;
    QVERIFY(line.path().startsWith("/dev/pts/"));
    QVERIFY(port.Open(line.path().mid(5).constData(), "115200"));
    QVERIFY(line.isOpenedByProduct());
}

void TestSerialOpen::boardsShortNameOpensItsDevice()
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

void TestSerialOpen::absolutePathIsTakenAsItStands()
{
    Pty line;
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), "115200"));
    QVERIFY(line.isOpenedByProduct());
}

void TestSerialOpen::pathIsCutTo39Characters()
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

void TestSerialOpen::nameBelowDevIsCutTo39CharactersInAll()
{
    SerialPort port;
    QCOMPARE(openLogged(port, QByteArray(100, 'n')).text,
             "ERROR: Unable to open serial port '/dev/" + QByteArray(34, 'n')
                 + "': No such file or directory\n");
}

void TestSerialOpen::openFailureIsLogged_data()
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

void TestSerialOpen::openFailureIsLogged()
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

void TestSerialOpen::failedSettingsReadLeavesTheDescriptorOpen()
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

void TestSerialOpen::failedSettingsWriteIsLogged()
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

void TestSerialOpen::verboseOpenIsTraced()
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

void TestSerialOpen::quietOpenIsNotTraced()
{
    Pty line;
    SerialPort port;
    DescriptorCapture out(1);
    const Logged open = openLogged(port, line.path());
    QCOMPARE(out.take(), QByteArray());
    QVERIFY(open.result);
    QCOMPARE(open.text, QByteArray());
}

void TestSerialOpen::lineIsRaw8N1()
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

void TestSerialOpen::openDiscardsNothing()
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

void TestSerialOpen::descriptorIsReadWriteAndNonBlocking()
{
    Pty line;
    SerialPort port;
    const int descriptor = nextDescriptor();
    QVERIFY(port.Open(line.path().constData(), "115200"));
    const int flags = fcntl(descriptor, F_GETFL);
    QVERIFY(flags & O_NONBLOCK);
    QCOMPARE(flags & O_ACCMODE, O_RDWR);
}

void TestSerialOpen::childrenDoNotGetTheDescriptor_data()
{
    QTest::addColumn<bool>("isLine");
    QTest::newRow("line") << true;
    QTest::newRow("what is no line, and stays open") << false;
}

void TestSerialOpen::childrenDoNotGetTheDescriptor()
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

void TestSerialOpen::openDoesNotCloseAnOpenDescriptor()
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

void TestSerialOpen::failedOpenIsStoredToo()
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

void TestSerialOpen::sessionLeaderGetsTheLine()
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

QTEST_APPLESS_MAIN(TestSerialOpen)
#include "tst_serialopen.moc"
