#include "capture.h"
#include "fileio.h"
#include "handmadeframes.h"
#include "machine.h"
#include "peer.h"
#include "serialport.h"

#include <QtTest>

#include <memory>

namespace {

constexpr char kAck = '\x06';
constexpr char kNak = '\x15';
constexpr char kCancel = '\x18';

const QByteArray kLoaded("[info]: Ymodem loading file successfully, waiting for updating...\n");
const QByteArray kStartPrinted("Filename: UpdataSystem.bin\n"
                               "Filesize: 3000(BB8H)\n"
                               "[YModem]: send the start package.\n");

QByteArray requestPrinted(char control)
{
    return "[YModem]: recv [C] or [ACK] (value: " + QByteArray::number(control) + ").\n";
}

QByteArray dataPrinted(int block)
{
    return "[YModem]: send the data package (" + QByteArray::number(block) + "/3).\n";
}

/// Ten bytes in one write: the product's read of ten returns at once.
QByteArray tenTimes(char control)
{
    return QByteArray(10, control);
}

/// What the line carries after `control` and before the product reads again.
QByteArray answerTo(Pty &line, const QByteArray &control)
{
    line.send(control);
    line.waitUntilTaken();
    // Ignored itself. Once it is taken, the answer to what came before has been written.
    line.send(tenTimes('.'));
    line.waitUntilTaken();
    return line.received();
}

} // namespace

// Every script ends with a hang-up: the product's remaining reads then cost no time.
class TestTransfer : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void fileIsSentFrameByFrame();
    void lineIsSetUpAndClosed();
    void ackAndCAreAlike();
    void ackAndCTogetherAdvanceOneFrame();
    void onlyTheFirstByteCounts();
    void singleControlBytesAreAnswered();
    void nakCausesNoResend();
    void cancelDoesNotEndTheTransfer();
    void otherBytesAreIgnored_data();
    void otherBytesAreIgnored();
    void furtherRequestsRepeatTheEndFrame();
    void anyByteCountsAsSuccess_data();
    void anyByteCountsAsSuccess();
    void hangUpAtOnceIsMinusOne();
    void hangUpInTheMiddleIsZero();
    void unreadableFileGoesToEot();
    void missingFirmwareLeavesTheLineOpen_data();
    void missingFirmwareLeavesTheLineOpen();
    void commandsDoNotGetTheOpenLine();
    void nextOperationReplacesTheOpenLine();
    void missingLineIsMinusOne();
    void secondTransferStartsOver();

private:
    int run(const Peer::Script &script);

    std::unique_ptr<FirmwareDir> m_directory;
    std::unique_ptr<BoardLine> m_line;
    std::unique_ptr<FileIO> m_fileIO;
    QByteArray m_image;
    QByteArray m_printed;
};

void TestTransfer::initTestCase()
{
    SKIP_OFF_THE_SIMULATED_MACHINE();
}

void TestTransfer::init()
{
    m_directory = std::make_unique<FirmwareDir>();
    m_line = std::make_unique<BoardLine>();
    m_fileIO = std::make_unique<FileIO>();
    m_image = firmwareOfSize(3000);
    m_directory->put(QStringLiteral("UpdataSystem.bin"), m_image);
}

void TestTransfer::cleanup()
{
    m_fileIO.reset();
    m_line.reset();
    m_directory.reset();
}

/// Runs the transfer against `script`, which starts once the line is set up.
int TestTransfer::run(const Peer::Script &script)
{
    Peer peer(*m_line, [&script](Pty &line) {
        line.waitForTimeout(5);
        script(line);
        line.hangUp();
    });
    DescriptorCapture out(1);
    const int result = m_fileIO->updateMcu();
    m_printed = out.take();
    return result;
}

void TestTransfer::fileIsSentFrameByFrame()
{
    QList<QByteArray> frames;
    const int result = run([&frames](Pty &line) {
        for (const char control : {'C', kAck, kAck, kAck, kAck, kAck})
            frames.append(answerTo(line, tenTimes(control)));
    });
    QCOMPARE(result, 0);
    QCOMPARE(frames.size(), 6);
    QCOMPARE(frames.at(0), startFrame("UpdataSystem.bin", "bb8"));
    for (int block = 1; block <= 3; ++block)
        QVERIFY(frames.at(block) == dataBlock(block, m_image.mid((block - 1) * 1024, 1024)));
    QCOMPARE(frames.at(4), eot());
    QCOMPARE(frames.at(5), endFrame());
    QCOMPARE(m_printed,
             kLoaded + requestPrinted('C') + kStartPrinted + requestPrinted(kAck) + dataPrinted(1)
                 + requestPrinted(kAck) + dataPrinted(2) + requestPrinted(kAck) + dataPrinted(3)
                 + requestPrinted(kAck) + "[YModem]: send EOT package.\n" + requestPrinted(kAck)
                 + "[YModem]: send the last package.\n");
}

void TestTransfer::lineIsSetUpAndClosed()
{
    QVERIFY(!m_fileIO->serialPort()->SetTimeout(1));
    termios settings{};
    run([&settings](Pty &line) { settings = line.settings(); });
    QCOMPARE(cfgetispeed(&settings), speed_t{B115200});
    QCOMPARE(cfgetospeed(&settings), speed_t{B115200});
    QCOMPARE(settings.c_iflag | settings.c_oflag | settings.c_lflag, tcflag_t{0});
    QCOMPARE(settings.c_cc[VMIN], cc_t{0});
    QCOMPARE(settings.c_cc[VTIME], cc_t{5});
    // A closed port refuses silently, an open one on a dead line would complain.
    DescriptorCapture err(2);
    const bool isOpen = m_fileIO->serialPort()->SetTimeout(1);
    QCOMPARE(err.take(), QByteArray());
    QVERIFY(!isOpen);
}

void TestTransfer::ackAndCAreAlike()
{
    QList<QByteArray> frames;
    run([&frames](Pty &line) {
        for (const char control : {kAck, 'C', 'C'})
            frames.append(answerTo(line, tenTimes(control)));
    });
    QCOMPARE(frames.at(0), startFrame("UpdataSystem.bin", "bb8"));
    QVERIFY(frames.at(1) == dataBlock(1, m_image.left(1024)));
    QVERIFY(frames.at(2) == dataBlock(2, m_image.mid(1024, 1024)));
    QVERIFY(m_printed.contains(requestPrinted(kAck) + kStartPrinted));
}

void TestTransfer::ackAndCTogetherAdvanceOneFrame()
{
    QList<QByteArray> frames;
    run([&frames](Pty &line) {
        frames.append(answerTo(line, tenTimes('C')));
        frames.append(answerTo(line,
                               QByteArray("\x06"
                                          "C")
                                   .repeated(5)));
        frames.append(answerTo(line, QByteArray("C\x06").repeated(5)));
    });
    QVERIFY(frames.at(1) == dataBlock(1, m_image.left(1024)));
    QVERIFY(frames.at(2) == dataBlock(2, m_image.mid(1024, 1024)));
}

void TestTransfer::onlyTheFirstByteCounts()
{
    QList<QByteArray> frames;
    run([&frames](Pty &line) {
        frames.append(answerTo(line, "x" + QByteArray(9, 'C')));
        frames.append(answerTo(line, "C" + QByteArray(9, kCancel)));
        frames.append(answerTo(line, kNak + QByteArray(9, kAck)));
        frames.append(answerTo(line, kAck + QByteArray(9, kNak)));
    });
    QCOMPARE(frames.at(0), QByteArray());
    QCOMPARE(frames.at(1), startFrame("UpdataSystem.bin", "bb8"));
    QCOMPARE(frames.at(2), QByteArray());
    QVERIFY(frames.at(3) == dataBlock(1, m_image.left(1024)));
}

void TestTransfer::singleControlBytesAreAnswered()
{
    QList<QByteArray> frames;
    int discards = 0;
    const int result = run([&](Pty &line) {
        // No more bytes follow, so each takes the product's full wait.
        line.send("C");
        frames.append(line.receive(133));
        line.send(QByteArray(1, kAck));
        frames.append(line.receive(1029));
        discards = line.discards();
    });
    QCOMPARE(result, 0);
    QCOMPARE(frames.at(0), startFrame("UpdataSystem.bin", "bb8"));
    QVERIFY(frames.at(1) == dataBlock(1, m_image.left(1024)));
    QCOMPARE(discards, 2);
}

void TestTransfer::nakCausesNoResend()
{
    QList<QByteArray> frames;
    run([&frames](Pty &line) {
        for (const char control : {kNak, 'C', kNak, kAck, kNak, kNak, kAck})
            frames.append(answerTo(line, tenTimes(control)));
    });
    for (const int nak : {0, 2, 4, 5})
        QCOMPARE(frames.at(nak), QByteArray());
    QCOMPARE(frames.at(1), startFrame("UpdataSystem.bin", "bb8"));
    QVERIFY(frames.at(3) == dataBlock(1, m_image.left(1024)));
    QVERIFY(frames.at(6) == dataBlock(2, m_image.mid(1024, 1024)));
    const QByteArray refused("[NAK]\n[CA]\n");
    QCOMPARE(m_printed,
             kLoaded + refused + requestPrinted('C') + kStartPrinted + refused
                 + requestPrinted(kAck) + dataPrinted(1) + refused + refused + requestPrinted(kAck)
                 + dataPrinted(2));
}

void TestTransfer::cancelDoesNotEndTheTransfer()
{
    QList<QByteArray> frames;
    const int result = run([&frames](Pty &line) {
        for (const char control : {'C', kCancel, kCancel, kAck})
            frames.append(answerTo(line, tenTimes(control)));
    });
    QCOMPARE(result, 0);
    QCOMPARE(frames.at(1), QByteArray());
    QCOMPARE(frames.at(2), QByteArray());
    QVERIFY(frames.at(3) == dataBlock(1, m_image.left(1024)));
    QCOMPARE(m_printed,
             kLoaded + requestPrinted('C') + kStartPrinted + "[CA]\n[CA]\n" + requestPrinted(kAck)
                 + dataPrinted(1));
}

void TestTransfer::otherBytesAreIgnored_data()
{
    QTest::addColumn<int>("byte");
    for (const int byte :
         {0x00, 0x01, 0x02, 0x04, 0x05, 0x14, 0x16, 0x17, 0x19, 0x1A, 0x42, 0x44, 0x63, 0x86, 0xFF})
        QTest::newRow(QByteArray::number(byte, 16).constData()) << byte;
}

void TestTransfer::otherBytesAreIgnored()
{
    QFETCH(int, byte);

    QByteArray sent;
    const int result =
        run([&](Pty &line) { sent = answerTo(line, tenTimes(static_cast<char>(byte))); });
    QCOMPARE(result, 0);
    QCOMPARE(sent, QByteArray());
    QCOMPARE(m_printed, kLoaded);
}

void TestTransfer::furtherRequestsRepeatTheEndFrame()
{
    m_directory->put(QStringLiteral("UpdataSystem.bin"), "x");
    QList<QByteArray> frames;
    run([&frames](Pty &line) {
        for (int i = 0; i < 6; ++i)
            frames.append(answerTo(line, tenTimes(kAck)));
    });
    QVERIFY(frames.at(1) == dataBlock(1, "x"));
    QCOMPARE(frames.at(2), eot());
    for (int i = 3; i < 6; ++i)
        QCOMPARE(frames.at(i), endFrame());
}

void TestTransfer::anyByteCountsAsSuccess_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("garbage") << QByteArray("garbage...");
    QTest::newRow("refusals") << tenTimes(kNak);
    QTest::newRow("cancel") << tenTimes(kCancel);
    QTest::newRow("no acknowledgement of the start frame") << tenTimes('C');
    QTest::newRow("zero byte") << QByteArray(10, '\0');
}

void TestTransfer::anyByteCountsAsSuccess()
{
    QFETCH(QByteArray, bytes);

    QCOMPARE(run([&bytes](Pty &line) {
                 line.send(bytes);
                 line.waitUntilTaken();
             }),
             0);
}

void TestTransfer::hangUpAtOnceIsMinusOne()
{
    QCOMPARE(run([](Pty &) {}), -1);
    QCOMPARE(m_printed, kLoaded);
}

void TestTransfer::hangUpInTheMiddleIsZero()
{
    const int result = run([](Pty &line) {
        answerTo(line, tenTimes('C'));
        answerTo(line, tenTimes(kAck));
    });
    QCOMPARE(result, 0);
}

void TestTransfer::unreadableFileGoesToEot()
{
    // A kernel attribute that has a size and refuses to be read.
    const QByteArray attribute("/sys/class/net/lo/speed");
    if (QFileInfo(QString::fromLatin1(attribute)).size() < 1)
        QSKIP("needs /sys/class/net/lo/speed, which cannot be read");
    QFile::remove(m_directory->path(QStringLiteral("UpdataSystem.bin")));
    m_directory->link(QStringLiteral("UpdataSystem.bin"), attribute);
    QList<QByteArray> frames;
    const int result = run([&frames](Pty &line) {
        for (int i = 0; i < 4; ++i)
            frames.append(answerTo(line, tenTimes('C')));
    });
    QCOMPARE(result, 0);
    QCOMPARE(frames.at(1), QByteArray());
    QCOMPARE(frames.at(2), eot());
    QCOMPARE(frames.at(3), endFrame());
}

void TestTransfer::missingFirmwareLeavesTheLineOpen_data()
{
    QTest::addColumn<bool>("isEmpty");
    QTest::newRow("missing") << false;
    QTest::newRow("empty") << true;
}

void TestTransfer::missingFirmwareLeavesTheLineOpen()
{
    QFETCH(bool, isEmpty);

    QFile::remove(m_directory->path(QStringLiteral("UpdataSystem.bin")));
    if (isEmpty)
        m_directory->put(QStringLiteral("UpdataSystem.bin"), QByteArray());
    m_directory->put(QStringLiteral("other.bin"), "x");
    DescriptorCapture out(1);
    const int result = m_fileIO->updateMcu();
    QCOMPARE(out.take(), QByteArray("[error]: Ymodem loading file failed.\n"));
    QCOMPARE(result, -1);
    // Nothing was waited for.
    QCOMPARE(m_line->discards(), 0);
    QCOMPARE(m_line->received(), QByteArray());
    QVERIFY(m_line->isOpenedByProduct());
    m_fileIO->closeSerial();
    QVERIFY(!m_line->isOpenedByProduct());
}

void TestTransfer::commandsDoNotGetTheOpenLine()
{
    QFile::remove(m_directory->path(QStringLiteral("UpdataSystem.bin")));
    DescriptorCapture out(1);
    for (int attempt = 0; attempt < 3; ++attempt)
        m_fileIO->updateMcu(); // leaves the line open each time
    const int result = m_fileIO->exe(QStringLiteral("ls -l /proc/self/fd </dev/null 2>/dev/null"));
    const QByteArray printed = out.take();
    QVERIFY(m_line->isOpenedByProduct());
    QCOMPARE(result, 0);
    QVERIFY(printed.contains(" 1 -> ")); // the list is there
    QCOMPARE(printed.count(m_line->path()), 0);
}

void TestTransfer::nextOperationReplacesTheOpenLine()
{
    QFile::remove(m_directory->path(QStringLiteral("UpdataSystem.bin")));
    DescriptorCapture out(1);
    m_fileIO->updateMcu();
    out.take();
    m_directory->put(QStringLiteral("UpdataSystem.bin"), m_image);
    // A new line at the same place; the port's old descriptor is on the dead one.
    m_line.reset();
    m_line = std::make_unique<BoardLine>();
    QByteArray frame;
    const int result = run([&frame](Pty &line) { frame = answerTo(line, tenTimes('C')); });
    QCOMPARE(result, 0);
    QCOMPARE(frame, startFrame("UpdataSystem.bin", "bb8"));
}

void TestTransfer::missingLineIsMinusOne()
{
    m_line.reset();
    DescriptorCapture err(2);
    DescriptorCapture out(1);
    const int result = m_fileIO->updateMcu();
    const QByteArray printed = out.take();
    QCOMPARE(err.take(),
             QByteArray("ERROR: Unable to open serial port '/dev/ttymxc1': "
                        "No such file or directory\n"));
    QCOMPARE(result, -1);
    QCOMPARE(printed, kLoaded);
}

void TestTransfer::secondTransferStartsOver()
{
    run([](Pty &line) {
        for (const char control : {'C', kAck, kAck})
            answerTo(line, tenTimes(control));
    });
    m_line.reset();
    m_line = std::make_unique<BoardLine>();
    QList<QByteArray> frames;
    run([&frames](Pty &line) {
        for (const char control : {'C', kAck})
            frames.append(answerTo(line, tenTimes(control)));
    });
    QCOMPARE(frames.at(0), startFrame("UpdataSystem.bin", "bb8"));
    QVERIFY(frames.at(1) == dataBlock(1, m_image.left(1024)));
}

QTEST_APPLESS_MAIN(TestTransfer)
#include "tst_transfer.moc"
