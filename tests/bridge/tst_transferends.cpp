#include "capture.h"
#include "fileio.h"
#include "handmadeframes.h"
#include "machine.h"
#include "waits.h"

#include <QtTest>

#include <memory>

// How a transfer ends by itself: after ten silent reads of 100 passes each. A read that gives up
// discards its output once, which is looked for before each pass: two at once would count as one.
class TestTransferEnds : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void silentBoardIsGivenUpAfterTenReads();
    void silenceAfterAWordIsSuccessAfterTenReads();
    void silentReadsCountInARowOnly();

private:
    int updateMcu();

    std::unique_ptr<FirmwareDir> m_directory;
    std::unique_ptr<BoardLine> m_line;
    QByteArray m_image;
};

namespace {

constexpr int kSilentReads = 10;

QByteArray passes(int count)
{
    return QByteArray::number(count) + " x select 10000 us\n";
}

} // namespace

void TestTransferEnds::initTestCase()
{
    SKIP_OFF_THE_SIMULATED_MACHINE();
}

void TestTransferEnds::init()
{
    m_directory = std::make_unique<FirmwareDir>();
    m_line = std::make_unique<BoardLine>();
    m_image = firmwareOfSize(2000);
    m_directory->put(QStringLiteral("UpdataSystem.bin"), m_image);
}

void TestTransferEnds::cleanup()
{
    m_line.reset();
    m_directory.reset();
}

int TestTransferEnds::updateMcu()
{
    DescriptorCapture out(1);
    return FileIO().updateMcu();
}

void TestTransferEnds::silentBoardIsGivenUpAfterTenReads()
{
    // The one that is waited for, ten seconds in all.
    Waits waits(Waits::Real);
    waits.setBefore([this](const QByteArray &) { m_line->discards(); });
    QCOMPARE(updateMcu(), -1);
    QCOMPARE(waits.asked(), passes(kSilentReads * 100));
    QCOMPARE(m_line->discards(), kSilentReads);
    QCOMPARE(m_line->received(), QByteArray());
    QVERIFY(!m_line->isOpenedByProduct());
}

void TestTransferEnds::silenceAfterAWordIsSuccessAfterTenReads()
{
    Waits waits(Waits::AtOnce);
    int pass = 0;
    QByteArray start;
    waits.setBefore([&](const QByteArray &) {
        m_line->discards();
        ++pass;
        if (pass == 1)
            m_line->deliver(QByteArray(10, 'C'));
        if (pass == 2)
            start = m_line->received();
    });
    QCOMPARE(updateMcu(), 0);
    QCOMPARE(waits.asked(), passes(1 + kSilentReads * 100));
    QCOMPARE(m_line->discards(), kSilentReads);
    QCOMPARE(start, startFrame("UpdataSystem.bin", "7d0"));
    // Nothing is sent again into the silence.
    QCOMPARE(m_line->received(), QByteArray());
    QVERIFY(!m_line->isOpenedByProduct());
}

void TestTransferEnds::silentReadsCountInARowOnly()
{
    Waits waits(Waits::AtOnce);
    int pass = 0;
    QByteArray start;
    QByteArray block;
    // Each in the last pass of the last silent read.
    waits.setBefore([&](const QByteArray &) {
        m_line->discards();
        ++pass;
        if (pass == 1000)
            m_line->deliver(QByteArray(10, 'C'));
        if (pass == 1001)
            start = m_line->received();
        if (pass == 2000)
            m_line->deliver(QByteArray(10, '\x06'));
        if (pass == 2001)
            block = m_line->received();
    });
    QCOMPARE(updateMcu(), 0);
    QCOMPARE(waits.asked(), passes(3000));
    QCOMPARE(m_line->discards(), 9 + 9 + kSilentReads);
    QCOMPARE(start, startFrame("UpdataSystem.bin", "7d0"));
    QVERIFY(block == dataBlock(1, m_image.left(kYModemPayload)));
}

QTEST_APPLESS_MAIN(TestTransferEnds)
#include "tst_transferends.moc"
