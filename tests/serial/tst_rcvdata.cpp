#include "capture.h"
#include "fileio.h"
#include "pty.h"
#include "serialport.h"

#include <QElapsedTimer>
#include <QtTest>

#include <csignal>
#include <functional>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// The block's time-out counts this process's processor time, so the board of these tests plays in
// a process of its own. A case that ends by the time-out waits a second once.

namespace {

constexpr int kCapacity = 128; // of the caller's buffer
constexpr char kUntouched = '#';
const QByteArray kTimeOut = "Time out:line = 232\n\r";

class BoardProcess {
public:
    explicit BoardProcess(const std::function<void()> &script)
        : m_child(fork())
    {
        if (m_child < 0)
            qFatal("cannot fork");
        if (m_child > 0)
            return;
        alarm(kHangMs / 1000);
        script();
        _exit(0);
    }
    ~BoardProcess() { waitpid(m_child, nullptr, 0); }
    BoardProcess(const BoardProcess &) = delete;
    BoardProcess &operator=(const BoardProcess &) = delete;

private:
    pid_t m_child;
};

QByteArray readLine(int count)
{
    return "   CurrentReadNum = " + QByteArray::number(count) + '\n';
}

QByteArray bytesUpTo(int count)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i)
        bytes.append(static_cast<char>(i));
    return bytes;
}

} // namespace

class TestRcvData : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void wholeBlockIsTakenAtOnce();
    void piecesThatMakeABlockEndEarly_data();
    void piecesThatMakeABlockEndEarly();
    void moreThanABlockIsLeftOnTheLine();
    void passing64RunsIntoTheTimeOut_data();
    void passing64RunsIntoTheTimeOut();
    void silentLineIsZero();
    void waitCarriesOver();
    void failedWaitsMakeANegativeTotal();
    void failedReadsCount65535();
    void nothingIsWrittenBehindTheBuffer();
    void nothingIsWrittenBeforeTheBuffer();

private:
    struct Block {
        int total;
        QByteArray out;
        QByteArray bytes; // all that the caller's buffer can hold
    };

    void arrive(const QByteArray &bytes);
    Block receive();
    /// Receives the pieces, each sent once the one before is taken.
    Block receivePieces(const QByteArrayList &pieces);

    QScopedPointer<Pty> m_line;
    QScopedPointer<FileIO> m_io;
};

void TestRcvData::init()
{
    m_line.reset(new Pty);
    m_io.reset(new FileIO);
    QVERIFY(m_io->serialPort()->Open(m_line->path().constData(), "115200"));
}

void TestRcvData::cleanup()
{
    m_io.reset();
    m_line.reset();
}

/// Sends `bytes` and waits until they stand ready for the product.
void TestRcvData::arrive(const QByteArray &bytes)
{
    m_line->send(bytes);
    int ready = 0;
    QTRY_VERIFY_WITH_TIMEOUT(ioctl(m_line->slave(), FIONREAD, &ready) == 0 && ready == bytes.size(),
                             kHangMs);
}

TestRcvData::Block TestRcvData::receive()
{
    // On the heap in exactly its size, so that the sanitizers see every byte beyond it.
    std::vector<unsigned char> buffer(kCapacity, kUntouched);
    DescriptorCapture out(1);
    const int total = m_io->RcvData(buffer.data());
    return {total, out.take(), {reinterpret_cast<const char *>(buffer.data()), kCapacity}};
}

TestRcvData::Block TestRcvData::receivePieces(const QByteArrayList &pieces)
{
    arrive(pieces.first());
    const BoardProcess board([&] {
        for (const QByteArray &piece : pieces.mid(1)) {
            m_line->waitUntilTaken();
            m_line->send(piece);
        }
    });
    return receive();
}

void TestRcvData::wholeBlockIsTakenAtOnce()
{
    arrive(bytesUpTo(64));
    const Block block = receive();
    QCOMPARE(block.total, 64);
    QCOMPARE(block.out, readLine(64));
    QCOMPARE(block.bytes, bytesUpTo(64) + QByteArray(64, kUntouched));
    // And the next one too.
    arrive(bytesUpTo(64));
    QCOMPARE(receive().total, 64);
}

void TestRcvData::piecesThatMakeABlockEndEarly_data()
{
    QTest::addColumn<int>("first");
    QTest::newRow("32 and 32") << 32;
    QTest::newRow("1 and 63") << 1;
    QTest::newRow("63 and 1") << 63;
}

void TestRcvData::piecesThatMakeABlockEndEarly()
{
    QFETCH(int, first);

    const QByteArray bytes = bytesUpTo(64);
    const Block block = receivePieces({bytes.left(first), bytes.mid(first)});
    QCOMPARE(block.out, readLine(first) + readLine(64 - first));
    QCOMPARE(block.total, 64);
    QCOMPARE(block.bytes, bytes + QByteArray(64, kUntouched));
}

void TestRcvData::moreThanABlockIsLeftOnTheLine()
{
    arrive(bytesUpTo(100));
    QCOMPARE(receive().total, 64);
    int ready = 0;
    QCOMPARE(ioctl(m_line->slave(), FIONREAD, &ready), 0);
    QCOMPARE(ready, 36);
}

void TestRcvData::passing64RunsIntoTheTimeOut_data()
{
    QTest::addColumn<QList<int>>("sizes");
    QTest::newRow("40 and 30") << QList<int>{40, 30};
    QTest::newRow("1 and 64") << QList<int>{1, 64};
    QTest::newRow("63 and 2") << QList<int>{63, 2};
    // The last of them ask for more than the buffer has room for.
    QTest::newRow("40, 30 and 10") << QList<int>{40, 30, 10};
    QTest::newRow("up to the last byte") << QList<int>{63, 64, 1};
}

void TestRcvData::passing64RunsIntoTheTimeOut()
{
    QFETCH(QList<int>, sizes);

    QByteArray bytes;
    QByteArrayList pieces;
    QByteArray taken;
    for (const int size : sizes) {
        pieces.append(bytesUpTo(bytes.size() + size).mid(bytes.size()));
        bytes += pieces.last();
        taken += readLine(size);
    }
    const Block block = receivePieces(pieces);
    QCOMPARE(block.total, bytes.size());
    QCOMPARE(block.out.left(taken.size()), taken);
    // Silence up to the end.
    const int silent = block.out.count(readLine(0));
    QCOMPARE(block.out, taken + readLine(0).repeated(silent) + kTimeOut);
    QVERIFY(silent > 0);
    QCOMPARE(block.bytes, bytes.leftJustified(kCapacity, kUntouched));
}

void TestRcvData::silentLineIsZero()
{
    const Block block = receive();
    QCOMPARE(block.total, 0);
    QCOMPARE(block.out, readLine(0).repeated(block.out.count(readLine(0))) + kTimeOut);
    QCOMPARE(block.bytes, QByteArray(kCapacity, kUntouched));
}

void TestRcvData::waitCarriesOver()
{
    // The first read waits the whole 1.1 s and leaves nothing, so the many others do not wait: a
    // millisecond of processor time would be many seconds otherwise.
    QElapsedTimer clock;
    clock.start();
    const Block block = receive();
    QVERIFY(block.out.count(readLine(0)) > 10);
    QVERIFY2(clock.elapsed() < 10000, qPrintable(QString::number(clock.elapsed())));
}

void TestRcvData::failedWaitsMakeANegativeTotal()
{
    m_io->closeSerial();
    DescriptorCapture err(2);
    const Block block = receive();
    const QByteArray failed = "read failed! (Bad file descriptor)\n";
    const int failures = block.out.count(failed);
    QVERIFY(failures > 0);
    QCOMPARE(block.total, -failures);
    QCOMPARE(block.out, failed.repeated(failures) + kTimeOut);
    QCOMPARE(err.take(), QByteArray("select error!!: Bad file descriptor\n").repeated(failures));
    QCOMPARE(block.bytes, QByteArray(kCapacity, kUntouched));
}

void TestRcvData::failedReadsCount65535()
{
    // Always readable for select(), and its first page cannot be read.
    m_io->closeSerial();
    DescriptorCapture err(2);
    QVERIFY(!m_io->serialPort()->Open("/proc/self/mem", "115200"));
    err.take();
    const Block block = receive();
    const int failures = block.out.count(readLine(65535));
    QVERIFY(failures > 0);
    QCOMPARE(block.total, failures * 65535);
    QCOMPARE(block.out, readLine(65535).repeated(failures) + kTimeOut);
    QCOMPARE(block.bytes, QByteArray(kCapacity, kUntouched));
}

void TestRcvData::nothingIsWrittenBehindTheBuffer()
{
    const QByteArray bytes = bytesUpTo(240);
    const Block block = receivePieces({bytes.left(40), bytes.mid(40)});
    QCOMPARE(block.total, 240);
    const QByteArray taken =
        readLine(40) + readLine(64) + readLine(64) + readLine(64) + readLine(8);
    QCOMPARE(block.out.left(taken.size()), taken);
    QVERIFY(block.out.endsWith(kTimeOut));
    // The third read begins within the buffer and ends behind it.
    QCOMPARE(block.bytes, bytes.left(kCapacity));
}

namespace {

Pty *interruptedLine = nullptr;
QByteArray lateBytes;

} // namespace

void TestRcvData::nothingIsWrittenBeforeTheBuffer()
{
    // A signal ends the first wait, and what then comes finds a negative total. The bytes are sent
    // by the handler, which runs behind the wait that it has interrupted.
    interruptedLine = m_line.data();
    lateBytes = bytesUpTo(64);
    struct sigaction sendLate { };
    sendLate.sa_handler = [](int) { interruptedLine->send(lateBytes); };
    struct sigaction before { };
    sigaction(SIGALRM, &sendLate, &before);
    Block block{};
    // Once more with more time if the signal came before the wait.
    for (int delayMs = 100; delayMs < kHangMs / 2; delayMs *= 2) {
        const itimerval once{{0, 0}, {delayMs / 1000, delayMs % 1000 * 1000L}};
        setitimer(ITIMER_REAL, &once, nullptr);
        block = receive();
        if (block.total != 64)
            break;
    }
    sigaction(SIGALRM, &before, nullptr);

    QCOMPARE(block.total, 63);
    const QByteArray start = "read failed! (Interrupted system call)\n" + readLine(64);
    QCOMPARE(block.out.left(start.size()), start);
    QVERIFY(block.out.endsWith(kTimeOut));
    // The first byte would stand before the buffer.
    QCOMPARE(block.bytes, lateBytes.mid(1).leftJustified(kCapacity, kUntouched));
}

QTEST_APPLESS_MAIN(TestRcvData)
#include "tst_rcvdata.moc"
