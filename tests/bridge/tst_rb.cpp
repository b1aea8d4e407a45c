#include "capture.h"
#include "fileio.h"
#include "handmadeframes.h"
#include "machine.h"
#include "peer.h"

#include <QDeadlineTimer>
#include <QStandardPaths>
#include <QtTest>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// A receiver that nobody here wrote, rb of lrzsz, at the other end of the line. It reads the size
// text as decimal, so the sizes are such whose hexadecimal text begins with a letter: it then takes
// the size as unknown and keeps the padding.
class TestRb : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void receivesTheFile_data();
    void receivesTheFile();
};

namespace {

constexpr int kRelayMs = 5;
constexpr int kEnoughMs = 60000;

/// rb with a socket as its line, writing into `directory`.
class Receiver {
public:
    explicit Receiver(const QByteArray &directory)
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            qFatal("no socket pair");
        m_process = fork();
        if (m_process == 0) {
            dup2(ends[1], STDIN_FILENO);
            dup2(ends[1], STDOUT_FILENO);
            if (chdir(directory.constData()) == 0)
                execlp("rb", "rb", "--quiet", nullptr);
            _exit(127);
        }
        close(ends[1]);
        m_socket = ends[0];
        fcntl(m_socket, F_SETFL, O_NONBLOCK);
    }
    ~Receiver()
    {
        kill(m_process, SIGKILL);
        wait();
        close(m_socket);
    }
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

    /// Carries bytes between the line and rb until rb ends.
    void relay(Pty &line) const
    {
        const QDeadlineTimer deadline(kEnoughMs);
        while (!deadline.hasExpired()) {
            const QByteArray toReceiver = line.receive(4096, kRelayMs);
            if (!toReceiver.isEmpty()
                && write(m_socket, toReceiver.constData(),
                         static_cast<std::size_t>(toReceiver.size()))
                    != toReceiver.size())
                return;
            char bytes[1024];
            const ssize_t count = read(m_socket, bytes, sizeof bytes);
            if (count == 0)
                return;
            if (count > 0)
                line.send(QByteArray(bytes, static_cast<int>(count)));
        }
    }

    /// Raw wait status.
    int wait()
    {
        if (!m_ended)
            waitpid(m_process, &m_status, 0);
        m_ended = true;
        return m_status;
    }

private:
    pid_t m_process;
    int m_socket;
    int m_status = -1;
    bool m_ended = false;
};

} // namespace

void TestRb::initTestCase()
{
    SKIP_OFF_THE_SIMULATED_MACHINE();
    if (QStandardPaths::findExecutable(QStringLiteral("rb")).isEmpty())
        QSKIP("needs rb: install lrzsz");
}

void TestRb::receivesTheFile_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("short last block") << 0xbb8;
    QTest::newRow("whole blocks") << 0xc00;
}

void TestRb::receivesTheFile()
{
    QFETCH(int, size);

    const FirmwareDir directory;
    const QByteArray image = firmwareOfSize(size);
    directory.put(QStringLiteral("UpdataSystem.bin"), image);
    const QTemporaryDir received;
    int status = -1;
    BoardLine line;
    Peer peer(line, [&](Pty &board) {
        board.waitForTimeout(5);
        Receiver receiver(received.path().toLocal8Bit());
        receiver.relay(board);
        status = receiver.wait();
        board.hangUp();
    });
    DescriptorCapture out(1);
    const int result = FileIO().updateMcu();
    const QByteArray printed = out.take();
    peer.finish();

    QCOMPARE(status, 0);
    QCOMPARE(result, 0);
    QFile file(received.filePath(QStringLiteral("UpdataSystem.bin")));
    QVERIFY2(file.open(QIODevice::ReadOnly), printed.constData());
    const QByteArray content = file.readAll();
    QVERIFY(content.left(size) == image);
    const int padding = (size / 1024 + 1) * 1024 - size;
    QVERIFY(content.mid(size) == QByteArray(padding, '\x1A'));
}

QTEST_APPLESS_MAIN(TestRb)
#include "tst_rb.moc"
