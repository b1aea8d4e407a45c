#include "boardsimulator.h"
#include "capture.h"
#include "fileio.h"
#include "handmadeframes.h"
#include "machine.h"

#include <QtTest>

#include <chrono>
#include <thread>

// The whole control-board update against the simulator, which checks every byte of it.
class TestTransferImage : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void imageArrivesWhole_data();
    void imageArrivesWhole();
    void boardIsAskedStartedAndUpdated();
};

namespace {

constexpr std::chrono::milliseconds kHang{kHangMs};

/// A board whose control bytes come ten at a time, so that the product answers at once.
boardsim::Options quickBoard()
{
    boardsim::Options options;
    options.linkPath = QStringLiteral("/dev/ttymxc1");
    options.controlRepeat = 10;
    options.requestInterval = boardsim::Milliseconds(200);
    return options;
}

bool endFrameWasSentAgain(const boardsim::Report &report)
{
    return report.lastTransfer().complete && report.lastTransfer().extraEndFrames > 0;
}

QByteArray violationsOf(const boardsim::Report &report)
{
    QStringList texts;
    for (const boardsim::Violation &violation : report.violations)
        texts.append(violation.text);
    return texts.join(QLatin1Char('\n')).toUtf8();
}

} // namespace

void TestTransferImage::initTestCase()
{
    SKIP_OFF_THE_SIMULATED_MACHINE();
}

void TestTransferImage::imageArrivesWhole_data()
{
    QTest::addColumn<int>("size");
    for (const int size : {1, 952, 1024, 3000, 12288})
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void TestTransferImage::imageArrivesWhole()
{
    QFETCH(int, size);

    const FirmwareDir directory;
    const QByteArray image = firmwareOfSize(size);
    directory.put(QStringLiteral("UpdataSystem.bin"), image);
    boardsim::Options options = quickBoard();
    options.startInBootLoader = true;
    BoardSimulator board(options);
    QVERIFY2(board.start(), qPrintable(board.errorText()));

    int result = 1;
    DescriptorCapture out(1);
    std::thread product([&result] { result = FileIO().updateMcu(); });
    const bool arrived = board.waitFor(endFrameWasSentAgain, kHang);
    board.stop(); // hangs up, so that the product ends at once
    product.join();
    out.take();

    const boardsim::Report report = board.report();
    QVERIFY2(report.violations.isEmpty(), violationsOf(report).constData());
    QVERIFY(arrived);
    QCOMPARE(result, 0);
    QCOMPARE(report.transfers.size(), 1);
    const boardsim::Transfer transfer = report.lastTransfer();
    QCOMPARE(transfer.fileName, QStringLiteral("UpdataSystem.bin"));
    QCOMPARE(transfer.announcedSize, qint64{size});
    QCOMPARE(transfer.blocksReceived, qint64{size / 1024 + 1});
    QVERIFY(transfer.eotReceived);
    QVERIFY(transfer.image == image);
}

void TestTransferImage::boardIsAskedStartedAndUpdated()
{
    const FirmwareDir directory;
    const QByteArray image = firmwareOfSize(2500);
    directory.put(QStringLiteral("UpdataSystem.bin"), image);
    boardsim::Options options = quickBoard();
    options.versionText = "V4.2.0-simulated";
    BoardSimulator board(options);
    QVERIFY2(board.start(), qPrintable(board.errorText()));

    QString version;
    int startResult = 1;
    int updateResult = 1;
    DescriptorCapture out(1);
    std::thread product([&] {
        FileIO fileIO;
        version = fileIO.getMcuVersion();
        startResult = fileIO.startMcuSoftwareUpdate();
        updateResult = fileIO.updateMcu();
    });
    const bool arrived = board.waitFor(endFrameWasSentAgain, kHang);
    board.stop();
    product.join();
    out.take();

    const boardsim::Report report = board.report();
    QVERIFY2(report.violations.isEmpty(), violationsOf(report).constData());
    QVERIFY(arrived);
    QCOMPARE(version, QStringLiteral("V4.2.0-simulated"));
    QCOMPARE(startResult, 0);
    QCOMPARE(updateResult, 0);
    QCOMPARE(report.versionQueries, 1);
    QCOMPARE(report.startCommands, 1);
    QVERIFY(report.lastTransfer().image == image);
}

QTEST_APPLESS_MAIN(TestTransferImage)
#include "tst_transferimage.moc"
