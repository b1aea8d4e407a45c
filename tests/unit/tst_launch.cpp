#include "capture.h"
#include "child.h"
#include "launch.h"
#include "pty.h"

#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickView>
#include <QWindow>
#include <QtTest>

#include <csignal>
#include <memory>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// A process that leads a session of its own, with one more process in its group. Both only wait.
class Victim {
public:
    Victim()
    {
        int ends[2];
        if (pipe(ends) != 0)
            qFatal("no pipe");
        m_leader = fork();
        if (m_leader == 0) {
            close(ends[0]);
            setsid();
            fork();
            // Tells that it is there; the pipe's end stays open as long as it lives.
            if (write(ends[1], "x", 1) != 1)
                _exit(1);
            for (;;)
                pause();
        }
        close(ends[1]);
        m_alive = ends[0];
        char both[1];
        for (int i = 0; i < 2; ++i) {
            if (read(m_alive, both, 1) != 1)
                qFatal("the victim does not start");
        }
    }
    ~Victim()
    {
        if (m_leader > 1)
            kill(-m_leader, SIGKILL);
        reap();
        close(m_alive);
    }
    Victim(const Victim &) = delete;
    Victim &operator=(const Victim &) = delete;

    pid_t leader() const { return m_leader; }

    /// Raw wait status of the leader, once it has ended.
    int reap()
    {
        if (!m_reaped)
            waitpid(m_leader, &m_status, 0);
        m_reaped = true;
        return m_status;
    }
    bool leaderIsAlive() const { return waitpid(m_leader, nullptr, WNOHANG) == 0; }
    /// Waits until the whole group is gone.
    bool groupIsGone() const
    {
        pollfd alive{m_alive, POLLIN, 0};
        return poll(&alive, 1, kHangMs) == 1;
    }
    bool someoneIsLeft() const
    {
        pollfd alive{m_alive, POLLIN, 0};
        return poll(&alive, 1, 0) == 0;
    }

private:
    pid_t m_leader;
    int m_alive;
    int m_status = 0;
    bool m_reaped = false;
};

/// Takes down what a view is like at the moment when it is shown.
class ShownView : public QObject {
public:
    int count = 0;
    QUrl source;
    QSize size;
    QString mode;
    QString text;
    QPointF topLeft; // of the scene, in the window
    QPointF bottomRight;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        const auto *const view = qobject_cast<QQuickView *>(watched);
        if (!view || event->type() != QEvent::Show)
            return false;
        ++count;
        source = view->source();
        size = view->size();
        const QQuickItem *const root = view->rootObject();
        const auto *const infoTip = root->findChild<QObject *>(QStringLiteral("infoTip"));
        mode = infoTip->property("mode").toString();
        text = infoTip->property("text").toString();
        topLeft = root->mapToItem(view->contentItem(), QPointF(0, 0));
        bottomRight = root->mapToItem(view->contentItem(), QPointF(1280, 800));
        return false;
    }
};

} // namespace

class TestLaunch : public QObject {
    Q_OBJECT

private slots:
    void init();

    void onlyRegularFilesExist();

    void killPidKillsTheNamedProcess();
    void killPidOfGarbageKillsTheGroup_data();
    void killPidOfGarbageKillsTheGroup();
    void killPidOfANegativeNumberKillsThatGroup();
    void killPidOfAMissingFileKillsNothing();
    void killPidOfADirectoryKillsNothing();
    void killPidOfAnEndedProcessIsHarmless();
    void killPidDoesNotSpareItsOwnProcess();

    void firstStartKillsNothingAndSaysNothing();
    void directoryIsNoPreviousInstance();
    void previousInstanceIsKilledAndReported();

    void recordHoldsTheDecimalIdAlone();
    void shorterPidKeepsTheOldTail();
    void recordOnADirectoryWritesNothing();
    void recordInAMissingDirectoryWritesNothing();

    void showTipShowsTheStatusScreenTurned();
    void showTipReturnsZeroAndLeavesNoWindow();

private:
    QString path(const char *name) const { return m_dir->filePath(QString::fromLatin1(name)); }
    QString put(const QByteArray &content) const;
    QByteArray content(const QString &name) const;

    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestLaunch::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

QString TestLaunch::put(const QByteArray &content) const
{
    QFile file(path("pid"));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write the pid file");
    return file.fileName();
}

QByteArray TestLaunch::content(const QString &name) const
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("no such file");
}

void TestLaunch::onlyRegularFilesExist()
{
    const QString file = put("1");
    QVERIFY(isFileExist(file));
    QVERIFY(!isFileExist(m_dir->path()));
    QVERIFY(!isFileExist(path("missing")));
    QVERIFY(!isFileExist(QString()));
    QVERIFY(QFile::link(file, path("link")));
    QVERIFY(isFileExist(path("link")));
    QVERIFY(QFile::link(path("missing"), path("dangling")));
    QVERIFY(!isFileExist(path("dangling")));
}

void TestLaunch::killPidKillsTheNamedProcess()
{
    Victim victim;
    const QString file = put(QByteArray::number(victim.leader()));
    const ChildResult killer = runInChild([&] { return killPid(file) ? 0 : 1; });
    VERIFY_CHILD_PASSED(killer);
    QCOMPARE(victim.reap(), SIGKILL);
    QVERIFY(victim.someoneIsLeft());
    QCOMPARE(killer.out, QByteArray());
    QCOMPARE(killer.err, QByteArray());
}

void TestLaunch::killPidOfGarbageKillsTheGroup_data()
{
    QTest::addColumn<QByteArray>("content");

    QTest::newRow("garbage") << QByteArray("garbage");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("zero") << QByteArray("0");
    QTest::newRow("number and garbage") << QByteArray("1234x");
    QTest::newRow("fraction") << QByteArray("12.5");
    QTest::newRow("too large") << QByteArray("99999999999");
    QTest::newRow("hexadecimal") << QByteArray("0x10");
}

void TestLaunch::killPidOfGarbageKillsTheGroup()
{
    QFETCH(QByteArray, content);

    const QString file = put(content);
    // The child leads a group of its own, so it dies alone.
    const ChildResult child = runInChild([&] { return killPid(file) ? 0 : 1; });
    QVERIFY(child.diedOf(SIGKILL));
}

void TestLaunch::killPidOfANegativeNumberKillsThatGroup()
{
    Victim victim;
    QVERIFY(victim.leader() > 1);
    const QString file = put(QByteArray::number(-victim.leader()));
    const ChildResult killer = runInChild([&] { return killPid(file) ? 0 : 1; });
    VERIFY_CHILD_PASSED(killer);
    QVERIFY(victim.groupIsGone());
    QCOMPARE(victim.reap(), SIGKILL);
}

void TestLaunch::killPidOfAMissingFileKillsNothing()
{
    const QString file = path("missing");
    const ChildResult child = runInChild([&] { return killPid(file) ? 0 : 1; });
    VERIFY_CHILD_PASSED(child);
    QVERIFY(!QFile::exists(file));
}

void TestLaunch::killPidOfADirectoryKillsNothing()
{
    const QString directory = m_dir->path();
    const ChildResult child = runInChild([&] { return killPid(directory) ? 0 : 1; });
    VERIFY_CHILD_PASSED(child);
}

void TestLaunch::killPidOfAnEndedProcessIsHarmless()
{
    const pid_t ended = fork();
    if (ended == 0)
        _exit(0);
    QCOMPARE(waitpid(ended, nullptr, 0), ended);
    const QString file = put(QByteArray::number(ended));
    const ChildResult child = runInChild([&] { return killPid(file) ? 0 : 1; });
    VERIFY_CHILD_PASSED(child);
    // The complaint is the shell's own.
    QVERIFY(!child.err.isEmpty());
    QCOMPARE(content(file), QByteArray::number(ended));
}

void TestLaunch::killPidDoesNotSpareItsOwnProcess()
{
    const QString directory = m_dir->path();
    const ChildResult child = runInChild([&] {
        const QString file = directory + QStringLiteral("/own");
        QFile own(file);
        CHILD_VERIFY(own.open(QIODevice::WriteOnly));
        own.write(QByteArray::number(getpid()));
        own.close();
        killPid(file);
        return 0;
    });
    QVERIFY(child.diedOf(SIGKILL));
}

void TestLaunch::firstStartKillsNothingAndSaysNothing()
{
    const QString file = path("missing");
    const ChildResult child = runInChild([&] {
        const MessageCapture messages;
        stopPreviousInstance(file);
        CHILD_VERIFY(messages.messages().isEmpty());
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestLaunch::directoryIsNoPreviousInstance()
{
    const QString directory = m_dir->path();
    const ChildResult child = runInChild([&] {
        const MessageCapture messages;
        stopPreviousInstance(directory);
        CHILD_VERIFY(messages.messages().isEmpty());
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestLaunch::previousInstanceIsKilledAndReported()
{
    Victim victim;
    const QString file = put(QByteArray::number(victim.leader()));
    const ChildResult child = runInChild([&] {
        const MessageCapture messages;
        stopPreviousInstance(file);
        CHILD_VERIFY(messages.messages() == QStringList(QStringLiteral("enter kill")));
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
    QCOMPARE(victim.reap(), SIGKILL);
}

void TestLaunch::recordHoldsTheDecimalIdAlone()
{
    QFile file(path("pid"));
    recordProcessId(file);
    QVERIFY(!file.isOpen());
    QCOMPARE(content(file.fileName()), QByteArray::number(getpid()));
}

void TestLaunch::shorterPidKeepsTheOldTail()
{
    const QByteArray old("12345678901234567890\n");
    QFile file(put(old));
    recordProcessId(file);
    const QByteArray own = QByteArray::number(getpid());
    QCOMPARE(content(file.fileName()), own + old.mid(own.size()));
}

void TestLaunch::recordOnADirectoryWritesNothing()
{
    const MessageCapture messages;
    QFile file(m_dir->path());
    recordProcessId(file);
    QVERIFY(!file.isOpen());
    QVERIFY(QFileInfo(m_dir->path()).isDir());
    QVERIFY(QDir(m_dir->path()).isEmpty());
    QCOMPARE(messages.messages(), QStringList());
}

void TestLaunch::recordInAMissingDirectoryWritesNothing()
{
    const MessageCapture messages;
    QFile file(path("no/such/pid"));
    recordProcessId(file);
    QVERIFY(!file.isOpen());
    QVERIFY(!file.exists());
    QCOMPARE(messages.messages(), QStringList());
}

void TestLaunch::showTipShowsTheStatusScreenTurned()
{
    ShownView shown;
    qApp->installEventFilter(&shown);
    QCOMPARE(showTip(nullptr), 0);
    qApp->removeEventFilter(&shown);
    QCOMPARE(shown.count, 1);
    QCOMPARE(shown.source, QUrl(QStringLiteral("qrc:/show.qml")));
    QCOMPARE(shown.size, QSize(800, 1280));
    QCOMPARE(shown.mode, QStringLiteral("0000"));
    QCOMPARE(shown.text, QStringLiteral("升级中，请稍后"));
    QCOMPARE(shown.topLeft.toPoint(), QPoint(0, 1280));
    QCOMPARE(shown.bottomRight.toPoint(), QPoint(800, 0));
}

void TestLaunch::showTipReturnsZeroAndLeavesNoWindow()
{
    const MessageCapture messages;
    QCOMPARE(showTip(nullptr), 0);
    QVERIFY(QGuiApplication::allWindows().isEmpty());
    QCOMPARE(messages.messages(), QStringList());
}

QTEST_MAIN(TestLaunch)
#include "tst_launch.moc"
