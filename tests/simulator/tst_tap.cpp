#include "assistantline.h"
#include "linequeue.h"
#include "linewatch.h"

#include <QtTest>

#include <array>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

using namespace boardsim;

namespace {

/// A tap on a thread of its own, and the board behind it.
class TestTap {
public:
    explicit TestTap(Tap::Unheard unheard)
        : m_watch(
            m_report, [this](const QByteArray &line) { m_transcript += line + '\n'; },
            HexStyle::Short, Clock::now())
        , m_link(m_directory.filePath(QStringLiteral("line")))
    {
        m_watch.record([this](const QByteArray &text) { m_recording += text; });
        if (!m_board.open({}))
            qFatal("no pseudo-terminal");
        m_tap = std::make_unique<Tap>(m_board.slaveName(), m_link, unheard, m_queue);
        if (!m_tap->open())
            qFatal("no tap");
        m_thread = std::thread([this] { static_cast<void>(m_tap->run(m_end)); });
    }

    ~TestTap()
    {
        end();
        close(m_end);
    }

    void end()
    {
        if (!m_thread.joinable())
            return;
        static_cast<void>(eventfd_write(m_end, 1));
        m_thread.join();
        takeEvents();
        m_watch.end(Clock::now(), QStringLiteral("end"));
    }

    QString link() const { return m_link; }
    bool send(const QByteArray &bytes)
    {
        const auto size = static_cast<size_t>(bytes.size());
        return write(m_board.masterDescriptor(), bytes.constData(), size) == bytes.size();
    }
    /// How many bytes reach the board until nothing comes for a while.
    int receiveAll()
    {
        constexpr int kQuietMs = 1000;
        int received = 0;
        std::array<char, 4096> buffer{};
        for (pollfd polled{m_board.masterDescriptor(), POLLIN, 0}; poll(&polled, 1, kQuietMs) == 1;)
            received += static_cast<int>(read(polled.fd, buffer.data(), buffer.size()));
        return received;
    }
    bool told(const QByteArray &text)
    {
        takeEvents();
        return m_transcript.contains(text);
    }
    QByteArray recording() const { return m_recording; }

private:
    void takeEvents()
    {
        while (const LineQueue::Event event = m_queue.take(Clock::now()))
            event(m_watch);
        m_watch.step(Clock::now());
    }

    QByteArray m_transcript;
    QByteArray m_recording;
    Report m_report;
    LineWatch m_watch;
    LineQueue m_queue;
    QTemporaryDir m_directory;
    const QString m_link;
    PseudoTerminal m_board;
    std::unique_ptr<Tap> m_tap;
    const int m_end = eventfd(0, EFD_CLOEXEC);
    std::thread m_thread;
};

} // namespace

class TestTheTap : public QObject {
    Q_OBJECT

private slots:
    void closedSerialPortHearsNothing();
    void closedPseudoTerminalKeepsAll();
    void closingDropsWhatIsUnread();
    void bytesOfAProgramThatHasClosedReachTheBoard();
    void lineIsOpenUntilTheLastOneCloses();
    void pseudoTerminalIsToldFromOthers();
};

void TestTheTap::closedSerialPortHearsNothing()
{
    TestTap tap(Tap::Unheard::Dropped);
    QVERIFY(tap.send("boot\r\n"));
    QTRY_VERIFY(tap.told("-- no program has the line open: what the board sends is lost\n"));
    QTRY_VERIFY(tap.told(" <- console text \"boot\\r\\n\" (6 bytes)"));
    AssistantLine line(tap.link());
    QVERIFY(tap.send("x"));
    QCOMPARE(line.receive(1), QByteArray("x"));
    tap.end();
    QVERIFY(tap.recording().contains("\n#     0."));
    QVERIFY(tap.recording().contains(" <- 62 6f 6f 74 0d 0a\n"));
    QString error;
    const auto recording =
        parseRecording(recordingHead(kLineSpeed, QStringLiteral("1")) + tap.recording(), error);
    QVERIFY2(recording, qPrintable(error));
    QCOMPARE(recording->records.size(), 1);
    QCOMPARE(recording->records.first().bytes, QByteArray("x"));
}

void TestTheTap::closedPseudoTerminalKeepsAll()
{
    TestTap tap(Tap::Unheard::Kept);
    QVERIFY(tap.send("boot\r\n"));
    QTRY_VERIFY(tap.told(" <- console text \"boot\\r\\n\" (6 bytes)"));
    AssistantLine line(tap.link());
    QCOMPARE(line.receive(6), QByteArray("boot\r\n"));
}

void TestTheTap::closingDropsWhatIsUnread()
{
    TestTap tap(Tap::Unheard::Dropped);
    AssistantLine first(tap.link());
    QVERIFY(tap.send("abc\n"));
    QTRY_VERIFY(tap.told(" <- console text \"abc\\n\" (4 bytes)"));
    first.close();
    QTRY_VERIFY(tap.told("-- no program reads: 4 bytes are lost\n"));
    AssistantLine second(tap.link());
    QVERIFY(tap.send("x"));
    QCOMPARE(second.receive(1), QByteArray("x"));
}

void TestTheTap::bytesOfAProgramThatHasClosedReachTheBoard()
{
    TestTap tap(Tap::Unheard::Dropped);
    AssistantLine line(tap.link());
    const int sent = line.fill("0123456789abcdef"); // the board takes nothing
    QVERIFY(sent > 64 * 1024);
    line.close();
    QCOMPARE(tap.receiveAll(), sent);
}

void TestTheTap::lineIsOpenUntilTheLastOneCloses()
{
    TestTap tap(Tap::Unheard::Dropped);
    AssistantLine stays(tap.link());
    {
        const AssistantLine goes(tap.link());
        QVERIFY(goes.isOpen());
    }
    QVERIFY(tap.send("x"));
    QCOMPARE(stays.receive(1), QByteArray("x"));
}

void TestTheTap::pseudoTerminalIsToldFromOthers()
{
    PseudoTerminal terminal;
    QVERIFY(terminal.open({}));
    QVERIFY(isPseudoTerminal(terminal.slaveName()));
    QVERIFY(!isPseudoTerminal(QStringLiteral("/dev/null")));
    QVERIFY(!isPseudoTerminal(QStringLiteral("/missing/device")));
}

QTEST_GUILESS_MAIN(TestTheTap)
#include "tst_tap.moc"
