#include "capture.h"
#include "fileio.h"
#include "handmadeframes.h"
#include "machine.h"
#include "peer.h"

#include <QtTest>

// How a transfer ends by itself: after ten silent reads of a second each. A read that gives up
// discards its output once, which is how the other end counts them.
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

    QScopedPointer<FirmwareDir> m_directory;
    QScopedPointer<BoardLine> m_line;
    QByteArray m_image;
};

namespace {

constexpr int kSilentReads = 10;

} // namespace

void TestTransferEnds::initTestCase()
{
    SKIP_OFF_THE_SIMULATED_MACHINE();
}

void TestTransferEnds::init()
{
    m_directory.reset(new FirmwareDir);
    m_line.reset(new BoardLine);
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
    bool waited = false;
    Peer board(*m_line, [&waited](Pty &line) { waited = line.waitForDiscards(kSilentReads); });
    QCOMPARE(updateMcu(), -1);
    board.finish();
    QVERIFY(waited);
    QCOMPARE(m_line->discards(), kSilentReads);
    QCOMPARE(m_line->received(), QByteArray());
    QVERIFY(!m_line->isOpenedByProduct());
}

void TestTransferEnds::silenceAfterAWordIsSuccessAfterTenReads()
{
    bool waited = false;
    Peer board(*m_line, [&waited](Pty &line) {
        line.waitForTimeout(5);
        line.send(QByteArray(10, 'C'));
        line.receive(133);
        waited = line.waitForDiscards(kSilentReads);
    });
    QCOMPARE(updateMcu(), 0);
    board.finish();
    QVERIFY(waited);
    QCOMPARE(m_line->discards(), kSilentReads);
    // Nothing is sent again into the silence.
    QCOMPARE(m_line->received(), QByteArray());
    QVERIFY(!m_line->isOpenedByProduct());
}

void TestTransferEnds::silentReadsCountInARowOnly()
{
    QByteArray start;
    QByteArray block;
    Peer board(*m_line, [&](Pty &line) {
        line.waitForDiscards(6);
        line.send(QByteArray(10, 'C'));
        start = line.receive(133);
        line.waitForDiscards(12);
        line.send(QByteArray(10, '\x06'));
        block = line.receive(1029);
        line.hangUp();
    });
    QCOMPARE(updateMcu(), 0);
    board.finish();
    QCOMPARE(start, startFrame("UpdataSystem.bin", "7d0"));
    QVERIFY(block == dataBlock(1, m_image.left(kYModemPayload)));
}

QTEST_APPLESS_MAIN(TestTransferEnds)
#include "tst_transferends.moc"
