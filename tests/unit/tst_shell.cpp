#include "capture.h"
#include "child.h"
#include "emulation.h"
#include "fileio.h"
#include "pty.h"

#include <QtTest>

#include <csignal>
#include <memory>
#include <sys/resource.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

/// What threadExeFinish brings to the thread of the test. A QSignalSpy would be written to by the
/// worker, and its wait would miss a signal that comes before it.
class Results {
public:
    explicit Results(FileIO &fileIO)
    {
        QObject::connect(&fileIO, &FileIO::threadExeFinish, &m_receiver,
                         [this](int status, int index) {
                             m_all.append({status, index});
                         });
    }

    bool wait(int count = 1) const
    {
        return QTest::qWaitFor([&] { return m_all.size() >= count; }, kHangMs);
    }
    const QVector<QPair<int, int>> &all() const { return m_all; }

private:
    QObject m_receiver; // in this thread, so that the signal is queued
    QVector<QPair<int, int>> m_all;
};

} // namespace

class TestShell : public QObject {
    Q_OBJECT

private slots:
    void init();

    void exeReturnsTheRawStatus_data();
    void exeReturnsTheRawStatus();
    void exeWaitsForTheCommand();
    void exeWithoutAShellIsMinusOne();
    void exeUnderstandsShellSyntax();
    void outputIsTheProgramsOwn();
    void commandIsUtf8();
    void nothingIsPrinted();

    void threadExeReportsTheRawStatus_data();
    void threadExeReportsTheRawStatus();
    void threadExeWithoutAShellReportsMinusOne();
    void signalComesFromAWorkerThread();
    void signalIsDeliveredInTheGuiThread();
    void threadExeReturnsBeforeTheCommandEnds();
    void commandsRunSideBySide();
    void exe2RunsInTheCallersThread();
    void commandOutlivesTheProgram();
    void threadThatCannotBeMadeThrows();

private:
    QString path(const char *name) const { return m_dir->filePath(QString::fromLatin1(name)); }
    bool exists(const char *name) const { return QFile::exists(path(name)); }
    void touch(const char *name) const;
    /// A shell command that goes on once the file is there.
    QString waitingFor(const char *name) const;

    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestShell::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void TestShell::touch(const char *name) const
{
    QFile file(path(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
}

QString TestShell::waitingFor(const char *name) const
{
    return QStringLiteral("until [ -e %1 ]; do sleep 0.01; done").arg(path(name));
}

void TestShell::exeReturnsTheRawStatus_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("status");

    QTest::newRow("true") << QStringLiteral("true") << 0;
    QTest::newRow("exit 1") << QStringLiteral("false") << 256;
    QTest::newRow("exit 3") << QStringLiteral("exit 3") << 768;
    QTest::newRow("exit 255") << QStringLiteral("exit 255") << 65280;
    QTest::newRow("not found") << QStringLiteral("/no/such/program 2>/dev/null") << 127 * 256;
    QTest::newRow("killed") << QStringLiteral("kill -9 $$") << SIGKILL;
    QTest::newRow("terminated") << QStringLiteral("kill -15 $$") << SIGTERM;
    QTest::newRow("empty") << QStringLiteral("") << 0;
    QTest::newRow("null") << QString() << 0;
    QTest::newRow("last of several") << QStringLiteral("false; exit 2") << 512;
}

void TestShell::exeReturnsTheRawStatus()
{
    QFETCH(QString, command);
    QFETCH(int, status);

    QCOMPARE(FileIO().exe(command), status);
}

void TestShell::exeWaitsForTheCommand()
{
    FileIO().exe(QStringLiteral("sleep 0.1; touch ") + path("done"));
    QVERIFY(exists("done"));
}

void TestShell::exeWithoutAShellIsMinusOne()
{
    const ChildResult child = runInChild([] {
        FileIO fileIO;
        // Nothing is left to wait for, so there is no status.
        std::signal(SIGCHLD, SIG_IGN);
        CHILD_VERIFY(fileIO.exe(QStringLiteral("true")) == -1);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestShell::exeUnderstandsShellSyntax()
{
    QCOMPARE(
        FileIO().exe(QStringLiteral("echo text > %1 && [ \"$(cat %1)\" = text ]").arg(path("a"))),
        0);
}

void TestShell::outputIsTheProgramsOwn()
{
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    FileIO().exe(QStringLiteral("echo out; echo err >&2"));
    const QByteArray errors = err.take();
    QCOMPARE(out.take(), QByteArray("out\n"));
    QCOMPARE(errors, QByteArray("err\n"));
}

void TestShell::commandIsUtf8()
{
    const QString text = QString::fromUtf8("升级 é €");
    QCOMPARE(
        FileIO().exe(QStringLiteral("printf '%s' '") + text + QStringLiteral("' > ") + path("a")),
        0);
    QFile file(path("a"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), text.toUtf8());
}

void TestShell::nothingIsPrinted()
{
    const MessageCapture messages;
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    FileIO fileIO;
    Results finished(fileIO);
    fileIO.exe(QStringLiteral("exit 3"));
    fileIO.threadExe(QStringLiteral("exit 3"), 0);
    const bool came = finished.wait();
    const QByteArray errors = err.take();
    QCOMPARE(out.take(), QByteArray());
    QCOMPARE(errors, QByteArray());
    QCOMPARE(messages.messages(), QStringList());
    QVERIFY(came);
}

void TestShell::threadExeReportsTheRawStatus_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("status");

    QTest::newRow("false") << QStringLiteral("false") << 7 << 256;
    QTest::newRow("true") << QStringLiteral("true") << 0 << 0;
    QTest::newRow("exit 3") << QStringLiteral("exit 3") << -1 << 768;
    QTest::newRow("killed") << QStringLiteral("kill -9 $$") << 2147483647 << 9;
    QTest::newRow("empty") << QString() << 1 << 0;
}

void TestShell::threadExeReportsTheRawStatus()
{
    QFETCH(QString, command);
    QFETCH(int, index);
    QFETCH(int, status);

    FileIO fileIO;
    Results finished(fileIO);
    fileIO.threadExe(command, index);
    QVERIFY(finished.wait());
    QCOMPARE(finished.all(), (QVector<QPair<int, int>>{{status, index}}));
}

void TestShell::threadExeWithoutAShellReportsMinusOne()
{
    const ChildResult child = runInChild([] {
        std::signal(SIGCHLD, SIG_IGN);
        FileIO fileIO;
        Results finished(fileIO);
        fileIO.threadExe(QStringLiteral("true"), 4);
        CHILD_VERIFY(finished.wait());
        CHILD_VERIFY((finished.all() == QVector<QPair<int, int>>{{-1, 4}}));
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestShell::signalComesFromAWorkerThread()
{
    FileIO fileIO;
    std::thread::id emitter = std::this_thread::get_id();
    connect(
        &fileIO, &FileIO::threadExeFinish, &fileIO,
        [&emitter] { emitter = std::this_thread::get_id(); }, Qt::DirectConnection);
    Results finished(fileIO);
    fileIO.threadExe(QStringLiteral("true"), 0);
    QVERIFY(finished.wait());
    QVERIFY(emitter != std::this_thread::get_id());
}

void TestShell::signalIsDeliveredInTheGuiThread()
{
    FileIO fileIO;
    QObject receiver;
    int deliveries = 0;
    std::thread::id receiverThread;
    connect(&fileIO, &FileIO::threadExeFinish, &receiver, [&](int result, int index) {
        receiverThread = std::this_thread::get_id();
        deliveries += result == 0 && index == 5 ? 1 : 100;
    });
    fileIO.threadExe(QStringLiteral("touch ") + path("done"), 5);
    QTRY_VERIFY_WITH_TIMEOUT(deliveries > 0, kHangMs);
    QVERIFY(exists("done"));
    QCOMPARE(deliveries, 1);
    QVERIFY(receiverThread == std::this_thread::get_id());
}

void TestShell::threadExeReturnsBeforeTheCommandEnds()
{
    FileIO fileIO;
    Results finished(fileIO);
    fileIO.threadExe(waitingFor("go"), 0);
    QVERIFY(finished.all().isEmpty());
    touch("go");
    QVERIFY(finished.wait());
}

void TestShell::commandsRunSideBySide()
{
    FileIO fileIO;
    Results finished(fileIO);
    // The first ends only once the second, started later, has run.
    fileIO.threadExe(waitingFor("second"), 1);
    fileIO.threadExe(QStringLiteral("touch ") + path("second"), 2);
    QVERIFY(finished.wait(2));
}

void TestShell::exe2RunsInTheCallersThread()
{
    FileIO fileIO;
    Results finished(fileIO);
    fileIO.exe2(QStringLiteral("exit 2"), 9);
    QCOMPARE(finished.all(), (QVector<QPair<int, int>>{{512, 9}}));
}

void TestShell::commandOutlivesTheProgram()
{
    const QString command = QStringLiteral("touch %1; %2; touch %3")
                                .arg(path("started"), waitingFor("go"), path("finished"));
    const ChildResult child = runInChild([&] {
        auto *const fileIO = new FileIO;
        fileIO->threadExe(command, 0);
        while (!exists("started"))
            QThread::msleep(1);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
    QVERIFY(!exists("finished"));
    touch("go");
    QTRY_VERIFY_WITH_TIMEOUT(exists("finished"), kHangMs);
}

void TestShell::threadThatCannotBeMadeThrows()
{
#ifdef __SANITIZE_ADDRESS__
    QSKIP("the sanitizer needs the address space that this test takes away");
#else
    const rlimit room{256UL << 20U, 256UL << 20U};
    const ChildResult limited = runInChild([&room] {
        rlimit now{};
        CHILD_VERIFY(setrlimit(RLIMIT_AS, &room) == 0);
        CHILD_VERIFY(getrlimit(RLIMIT_AS, &now) == 0);
        return now.rlim_cur == room.rlim_cur ? 0 : 1;
    });
    if (isEmulated() && !limited.passed())
        QSKIP("the emulator does not limit the address space");
    const ChildResult child = runInChild([&room] {
        auto *const fileIO = new FileIO;
        CHILD_VERIFY(setrlimit(RLIMIT_AS, &room) == 0);
        // Use up the room (and the stacks that the library keeps) until no thread fits any more.
        bool thrown = false;
        for (int i = 0; i < 1000 && !thrown; ++i) {
            try {
                fileIO->threadExe(QStringLiteral("sleep 1"), 0);
            } catch (const std::system_error &) {
                thrown = true;
            }
        }
        CHILD_VERIFY(thrown);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
#endif
}

QTEST_GUILESS_MAIN(TestShell)
#include "tst_shell.moc"
