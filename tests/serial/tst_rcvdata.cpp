#include "capture.h"
#include "openbridgetest.h"
#include "waits.h"

#include <QtTest>

#include <vector>

// The block's time-out is beyond 1000 ticks of the processor's time. Each read takes one here, so
// 1001 reads end it.

namespace {

constexpr int kCapacity = 128; // of the caller's buffer
constexpr char kUntouched = '#';
constexpr int kReads = 1001; // up to the time-out
const QByteArray kTimeOut = "Time out:line = 232\n\r";

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

class TestRcvData : public OpenBridgeTest {
    Q_OBJECT

private slots:
    void wholeBlockIsTakenAtOnce();
    void piecesThatMakeABlockEndEarly_data();
    void piecesThatMakeABlockEndEarly();
    void moreThanABlockIsLeftOnTheLine();
    void passing64RunsIntoTheTimeOut_data();
    void passing64RunsIntoTheTimeOut();
    void silentLineIsZero();
    void waitCarriesOver();
    void silentLineIsWaitedForOnce();
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

    Block receive();
    /// Receives with a piece before each wait, until there are no more.
    Block receive(Waits &waits, QByteArrayList pieces);
};

TestRcvData::Block TestRcvData::receive()
{
    // On the heap in exactly its size, so that the sanitizers see every byte beyond it.
    std::vector<unsigned char> buffer(kCapacity, kUntouched);
    DescriptorCapture out(1);
    const int total = m_io->RcvData(buffer.data());
    return {total, out.take(), {reinterpret_cast<const char *>(buffer.data()), kCapacity}};
}

TestRcvData::Block TestRcvData::receive(Waits &waits, QByteArrayList pieces)
{
    waits.setBefore([this, pieces](const QByteArray &) mutable {
        if (!pieces.isEmpty())
            m_line->deliver(pieces.takeFirst());
    });
    return receive();
}

void TestRcvData::wholeBlockIsTakenAtOnce()
{
    m_line->deliver(bytesUpTo(64));
    const Block block = receive();
    QCOMPARE(block.total, 64);
    QCOMPARE(block.out, readLine(64));
    QCOMPARE(block.bytes, bytesUpTo(64) + QByteArray(64, kUntouched));
    // And the next one too.
    m_line->deliver(bytesUpTo(64));
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
    Waits waits(Waits::AtOnce);
    const Block block = receive(waits, {bytes.left(first), bytes.mid(first)});
    QCOMPARE(block.out, readLine(first) + readLine(64 - first));
    QCOMPARE(block.total, 64);
    QCOMPARE(block.bytes, bytes + QByteArray(64, kUntouched));
}

void TestRcvData::moreThanABlockIsLeftOnTheLine()
{
    m_line->deliver(bytesUpTo(100));
    QCOMPARE(receive().total, 64);
    QCOMPARE(m_line->pending(), 36);
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
    Waits waits(Waits::AtOnce);
    const Block block = receive(waits, pieces);
    QCOMPARE(block.total, bytes.size());
    QCOMPARE(block.out, taken + readLine(0).repeated(kReads - pieces.size()) + kTimeOut);
    QCOMPARE(block.bytes, bytes.leftJustified(kCapacity, kUntouched));
}

void TestRcvData::silentLineIsZero()
{
    const Waits waits(Waits::AtOnce);
    const Block block = receive();
    QCOMPARE(waits.asked(), QByteArray("1 x select 1100000 us\n1000 x select 0 us\n"));
    QCOMPARE(block.total, 0);
    QCOMPARE(block.out, readLine(0).repeated(kReads) + kTimeOut);
    QCOMPARE(block.bytes, QByteArray(kCapacity, kUntouched));
}

void TestRcvData::waitCarriesOver()
{
    // Each piece leaves a bit less; the first silent read waits for all of it.
    Waits waits(Waits::AtOnce);
    QCOMPARE(receive(waits, {"a", "b"}).total, 2);
    QCOMPARE(waits.asked(),
             QByteArray("1 x select 1100000 us\n1 x select 1099999 us\n1 x select 1099998 us\n"
                        "998 x select 0 us\n"));
}

void TestRcvData::silentLineIsWaitedForOnce()
{
    // With the real time, and the processor's.
    const Waits waits(Waits::Real);
    const Block block = receive();
    const int reads = block.out.count(readLine(0));
    QVERIFY(reads > 1);
    QCOMPARE(block.out, readLine(0).repeated(reads) + kTimeOut);
    QCOMPARE(waits.asked(),
             "1 x select 1100000 us\n" + QByteArray::number(reads - 1) + " x select 0 us\n");
}

void TestRcvData::failedWaitsMakeANegativeTotal()
{
    m_io->closeSerial();
    const Waits waits(Waits::AtOnce);
    DescriptorCapture err(2);
    const Block block = receive();
    QCOMPARE(err.take(), QByteArray("select error!!: Bad file descriptor\n").repeated(kReads));
    QCOMPARE(block.total, -kReads);
    QCOMPARE(block.out,
             QByteArray("read failed! (Bad file descriptor)\n").repeated(kReads) + kTimeOut);
    QCOMPARE(block.bytes, QByteArray(kCapacity, kUntouched));
}

void TestRcvData::failedReadsCount65535()
{
    // Always readable for select(), and its first page cannot be read.
    m_io->closeSerial();
    DescriptorCapture err(2);
    QVERIFY(!m_io->serialPort()->Open("/proc/self/mem", "115200"));
    err.take();
    const Waits waits(Waits::AtOnce);
    const Block block = receive();
    QCOMPARE(block.total, kReads * 65535);
    QCOMPARE(block.out, readLine(65535).repeated(kReads) + kTimeOut);
    QCOMPARE(block.bytes, QByteArray(kCapacity, kUntouched));
}

void TestRcvData::nothingIsWrittenBehindTheBuffer()
{
    const QByteArray bytes = bytesUpTo(240);
    Waits waits(Waits::AtOnce);
    const Block block = receive(waits, {bytes.left(40), bytes.mid(40)});
    QCOMPARE(block.total, 240);
    QCOMPARE(block.out,
             readLine(40) + readLine(64) + readLine(64) + readLine(64) + readLine(8)
                 + readLine(0).repeated(kReads - 5) + kTimeOut);
    // The third read begins within the buffer and ends behind it.
    QCOMPARE(block.bytes, bytes.left(kCapacity));
}

void TestRcvData::nothingIsWrittenBeforeTheBuffer()
{
    // A signal ends the first wait, and what then comes finds a negative total.
    Waits waits(Waits::AtOnce);
    waits.interrupt(1000000);
    const Block block = receive(waits, {{}, bytesUpTo(64)});
    QCOMPARE(block.total, 63);
    QCOMPARE(block.out,
             "read failed! (Interrupted system call)\n" + readLine(64) + readLine(0).repeated(999)
                 + kTimeOut);
    // The rest of the first wait, and what the second left of it.
    QCOMPARE(waits.asked(),
             QByteArray("1 x select 1100000 us\n1 x select 1000000 us\n"
                        "1 x select 999999 us\n998 x select 0 us\n"));
    // The first byte would stand before the buffer.
    QCOMPARE(block.bytes, bytesUpTo(64).mid(1).leftJustified(kCapacity, kUntouched));
}

QTEST_APPLESS_MAIN(TestRcvData)
#include "tst_rcvdata.moc"
