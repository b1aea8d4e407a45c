#include "capture.h"
#include "cymodem.h"
#include "handmadeframes.h"
#include "machine.h"
#include "serialport.h"

#include <QtTest>

#include <memory>
#include <unistd.h>

namespace {

constexpr char kImageName[] = "UpdataSystem.bin";

} // namespace

class TestCYModem : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void loadFileReturnsTheSize();
    void missingOrEmptyFileIsMinusOne_data();
    void missingOrEmptyFileIsMinusOne();
    void loadFileRestartsTheSequence();

    void startFrameCarriesTheSizeInHex_data();
    void startFrameCarriesTheSizeInHex();
    void startFrameIsPrinted();
    void nameIsCopiedByItsCharacterCount();
    void longNameStaysInThePayload_data();
    void longNameStaysInThePayload();

    void shortLastBlockIsPaddedWith1A_data();
    void shortLastBlockIsPaddedWith1A();
    void wholeBlocksAreFollowedByOneOfPadding_data();
    void wholeBlocksAreFollowedByOneOfPadding();
    void blockNumbersWrapAfter255();
    void blockNumberIsTheIndex();
    void dataFramesArePrinted();
    void endFrameIsRepeated();
    void endFrameCanBeSentAtAnyTime();

    void requestBeforeLoadFileSendsEot();
    void startFrameBeforeLoadFileHasNoName();
    void directoryIsSentAsEmpty();
    void readErrorEndsTheFile();
    void shrunkFileIsPadded();
    void resultIsThatOfTheWrite();
    void failedEotIsNotRepeated();

private:
    int load(const QByteArray &content, const char *name = kImageName);
    /// Answers one request as the transfer loop does, and returns what went out on the line.
    QByteArray request();

    std::unique_ptr<FirmwareDir> m_directory;
    std::unique_ptr<Pty> m_line;
    std::unique_ptr<SerialPort> m_port;
    std::unique_ptr<CYModem> m_sender;
    int m_result = 0;
    QByteArray m_printed;
};

void TestCYModem::initTestCase()
{
    SKIP_OFF_THE_SIMULATED_MACHINE();
}

void TestCYModem::init()
{
    m_directory = std::make_unique<FirmwareDir>();
    m_line = std::make_unique<Pty>();
    m_port = std::make_unique<SerialPort>();
    QVERIFY(m_port->Open(m_line->path().constData(), "115200"));
    m_sender = std::make_unique<CYModem>();
}

void TestCYModem::cleanup()
{
    m_sender.reset();
    m_port.reset();
    m_line.reset();
    m_directory.reset();
}

int TestCYModem::load(const QByteArray &content, const char *name)
{
    m_directory->put(QString::fromUtf8(name), content);
    return m_sender->load_file(QString::fromUtf8(name));
}

QByteArray TestCYModem::request()
{
    DescriptorCapture out(1);
    m_result = m_sender->index() == 0 ? m_sender->send_start_frame(m_port.get())
                                      : m_sender->send_data_frame(m_port.get());
    m_sender->index_added();
    m_printed = out.take();
    return m_line->received();
}

void TestCYModem::loadFileReturnsTheSize()
{
    QCOMPARE(load("x"), 1);
    QCOMPARE(load(QByteArray(3000, 'x')), 3000);
    QCOMPARE(load(QByteArray(70000, 'x'), "other.bin"), 70000);
}

void TestCYModem::missingOrEmptyFileIsMinusOne_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("missing") << QStringLiteral("missing.bin");
    QTest::newRow("empty") << QStringLiteral("empty.bin");
    QTest::newRow("dangling link") << QStringLiteral("dangling.bin");
}

void TestCYModem::missingOrEmptyFileIsMinusOne()
{
    QFETCH(QString, name);

    m_directory->put(QStringLiteral("empty.bin"), QByteArray());
    m_directory->link(QStringLiteral("dangling.bin"), "nowhere");
    QCOMPARE(m_sender->load_file(name), -1);
    QCOMPARE(m_sender->index(), 0U);
    // The file is closed, so a data request ends it.
    m_sender->index_added();
    QCOMPARE(request(), eot());
}

void TestCYModem::loadFileRestartsTheSequence()
{
    load("first");
    for (int i = 0; i < 4; ++i)
        request();
    QCOMPARE(m_sender->index(), 4U);
    QCOMPARE(load("second", "second.bin"), 6);
    QCOMPARE(m_sender->index(), 0U);
    QCOMPARE(request(), startFrame("second.bin", "6"));
    QCOMPARE(request(), dataBlock(1, "second"));
    QCOMPARE(request(), eot());
}

void TestCYModem::startFrameCarriesTheSizeInHex_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QByteArray>("text");

    QTest::newRow("1") << 1 << QByteArray("1");
    QTest::newRow("10") << 10 << QByteArray("a");
    QTest::newRow("1024") << 1024 << QByteArray("400");
    QTest::newRow("2048") << 2048 << QByteArray("800");
    QTest::newRow("3000") << 3000 << QByteArray("bb8");
    QTest::newRow("70000") << 70000 << QByteArray("11170");
}

void TestCYModem::startFrameCarriesTheSizeInHex()
{
    QFETCH(int, size);
    QFETCH(QByteArray, text);

    QCOMPARE(load(firmwareOfSize(size)), size);
    const QByteArray frame = request();
    QCOMPARE(frame.size(), 133);
    QCOMPARE(frame, startFrame(kImageName, text));
    QCOMPARE(m_result, 133);
    QCOMPARE(m_sender->index(), 1U);
}

void TestCYModem::startFrameIsPrinted()
{
    load(firmwareOfSize(70000));
    request();
    QCOMPARE(m_printed,
             QByteArray("Filename: UpdataSystem.bin\n"
                        "Filesize: 70000(11170H)\n"
                        "[YModem]: send the start package.\n"));
    load(firmwareOfSize(3000));
    request();
    QVERIFY2(m_printed.contains("\nFilesize: 3000(BB8H)\n"), m_printed.constData());
}

void TestCYModem::nameIsCopiedByItsCharacterCount()
{
    // Nine characters, twelve bytes: nine of them are sent.
    const QByteArray name = QByteArrayLiteral("é中.binary");
    QCOMPARE(QString::fromUtf8(name).size(), 9);
    QCOMPARE(name.size(), 12);
    QCOMPARE(load("content", name.constData()), 7);
    QCOMPARE(request(), startFrame(name.left(9), "7"));
    QVERIFY2(m_printed.startsWith("Filename: " + name + '\n'), m_printed.constData());
}

void TestCYModem::longNameStaysInThePayload_data()
{
    QTest::addColumn<int>("length");
    for (const int length : {123, 124, 125, 126, 127, 128, 129, 150, 255})
        QTest::newRow(QByteArray::number(length).constData()) << length;
}

void TestCYModem::longNameStaysInThePayload()
{
    QFETCH(int, length);

    const QByteArray name(length, 'n');
    QCOMPARE(load(firmwareOfSize(3000), name.constData()), 3000);
    const QByteArray payload = (name + '\0' + "bb8" + '\0').left(128);
    QCOMPARE(request(), shortBlock(0, payload));
    QCOMPARE(m_result, 133);
}

void TestCYModem::shortLastBlockIsPaddedWith1A_data()
{
    QTest::addColumn<int>("size");
    for (const int size : {1, 952, 1023, 1025, 3000, 70000})
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void TestCYModem::shortLastBlockIsPaddedWith1A()
{
    QFETCH(int, size);

    const QByteArray image = firmwareOfSize(size);
    load(image);
    request();
    const int blocks = size / kYModemPayload + 1;
    for (int block = 1; block <= blocks; ++block) {
        const QByteArray frame = request();
        QCOMPARE(frame.size(), 1029);
        QVERIFY(frame == dataBlock(block, image.mid((block - 1) * kYModemPayload, kYModemPayload)));
        QCOMPARE(m_result, 1029);
    }
    QCOMPARE(request(), eot());
    QCOMPARE(m_result, 1);
    QCOMPARE(request(), endFrame());
    QCOMPARE(m_result, 0);
}

void TestCYModem::wholeBlocksAreFollowedByOneOfPadding_data()
{
    QTest::addColumn<int>("blocks");
    QTest::newRow("1024") << 1;
    QTest::newRow("2048") << 2;
}

void TestCYModem::wholeBlocksAreFollowedByOneOfPadding()
{
    QFETCH(int, blocks);

    const QByteArray image = firmwareOfSize(blocks * kYModemPayload);
    load(image);
    request();
    for (int block = 1; block <= blocks; ++block)
        QVERIFY(request()
                == dataBlock(block, image.mid((block - 1) * kYModemPayload, kYModemPayload)));
    QVERIFY(request() == dataBlock(blocks + 1, QByteArray(kYModemPayload, '\x1A')));
    QCOMPARE(request(), eot());
}

void TestCYModem::blockNumbersWrapAfter255()
{
    const QByteArray image = firmwareOfSize(257 * kYModemPayload + 1);
    load(image);
    request();
    for (int block = 1; block <= 258; ++block) {
        const QByteArray frame = request();
        QVERIFY(frame == dataBlock(block, image.mid((block - 1) * kYModemPayload, kYModemPayload)));
        QCOMPARE(frame.at(1), static_cast<char>(block % 256));
    }
    QCOMPARE(request(), eot());
}

void TestCYModem::blockNumberIsTheIndex()
{
    const QByteArray image = firmwareOfSize(3000);
    load(image);
    // Nothing but index_added() counts.
    for (int i = 0; i < 5; ++i)
        m_sender->index_added();
    QVERIFY(request() == dataBlock(5, image.left(kYModemPayload)));
    m_sender->index_added();
    QVERIFY(request() == dataBlock(7, image.mid(kYModemPayload, kYModemPayload)));
}

void TestCYModem::dataFramesArePrinted()
{
    load(firmwareOfSize(3000));
    request();
    request();
    QCOMPARE(m_printed, QByteArray("[YModem]: send the data package (1/3).\n"));
    request();
    QCOMPARE(m_printed, QByteArray("[YModem]: send the data package (2/3).\n"));
    request();
    QCOMPARE(m_printed, QByteArray("[YModem]: send the data package (3/3).\n"));
    request();
    QCOMPARE(m_printed, QByteArray("[YModem]: send EOT package.\n"));
    request();
    QCOMPARE(m_printed, QByteArray("[YModem]: send the last package.\n"));

    load(firmwareOfSize(1024));
    request();
    request();
    QCOMPARE(m_printed, QByteArray("[YModem]: send the data package (1/2).\n"));
    request();
    QCOMPARE(m_printed, QByteArray("[YModem]: send the data package (2/2).\n"));
}

void TestCYModem::endFrameIsRepeated()
{
    load("x");
    for (int i = 0; i < 3; ++i)
        request();
    const QByteArray frame = endFrame();
    QCOMPARE(frame.right(2), QByteArray("\0\0", 2));
    for (unsigned index = 3; index < 6; ++index) {
        QCOMPARE(m_sender->index(), index);
        QCOMPARE(request(), frame);
        QCOMPARE(m_result, 0);
    }
}

void TestCYModem::endFrameCanBeSentAtAnyTime()
{
    load("x");
    DescriptorCapture out(1);
    const int result = m_sender->send_end_frame(m_port.get());
    QCOMPARE(out.take(), QByteArray("[YModem]: send the last package.\n"));
    QCOMPARE(result, 133);
    QCOMPARE(m_line->received(), endFrame());
    QCOMPARE(m_sender->index(), 0U);
}

void TestCYModem::requestBeforeLoadFileSendsEot()
{
    m_sender->index_added();
    QCOMPARE(request(), eot());
    QCOMPARE(request(), endFrame());
}

void TestCYModem::startFrameBeforeLoadFileHasNoName()
{
    QCOMPARE(request(), startFrame(QByteArray(), "0"));
    QCOMPARE(m_printed,
             QByteArray("Filename: \nFilesize: 0(0H)\n[YModem]: send the start package.\n"));
}

void TestCYModem::directoryIsSentAsEmpty()
{
    QVERIFY(QDir().mkpath(m_directory->path(QStringLiteral("directory/inner"))));
    const QFileInfo info(m_directory->path(QStringLiteral("directory")));
    QVERIFY(info.size() >= 1);
    const MessageCapture messages; // the framework complains about the open
    QCOMPARE(m_sender->load_file(QStringLiteral("directory")), static_cast<int>(info.size()));
    QCOMPARE(request(), startFrame("directory", QByteArray::number(info.size(), 16)));
    QCOMPARE(request(), eot());
    QCOMPARE(request(), endFrame());
}

void TestCYModem::readErrorEndsTheFile()
{
    // A kernel attribute that has a size and refuses to be read.
    const QByteArray attribute("/sys/class/net/lo/speed");
    QFile unreadable(QString::fromLatin1(attribute));
    if (unreadable.size() < 1 || !unreadable.open(QIODevice::ReadOnly) || unreadable.read(1) != "")
        QSKIP("needs /sys/class/net/lo/speed, which cannot be read");
    m_directory->link(QStringLiteral("image.bin"), attribute);
    QVERIFY(m_sender->load_file(QStringLiteral("image.bin")) > 0);
    request();
    QCOMPARE(request(), QByteArray());
    QCOMPARE(m_result, -1);
    QCOMPARE(m_printed, QByteArray());
    QCOMPARE(request(), eot());
    QCOMPARE(request(), endFrame());
}

void TestCYModem::shrunkFileIsPadded()
{
    load(firmwareOfSize(3000));
    request();
    QCOMPARE(truncate("/root/mcu/UpdataSystem.bin", 0), 0);
    QVERIFY(request() == dataBlock(1, QByteArray()));
    QCOMPARE(m_printed, QByteArray("[YModem]: send the data package (1/3).\n"));
    QCOMPARE(request(), eot());
}

void TestCYModem::resultIsThatOfTheWrite()
{
    load(firmwareOfSize(3000));
    m_port->Close();
    DescriptorCapture err(2);
    request();
    const int startResult = m_result;
    request();
    const int dataResult = m_result;
    DescriptorCapture out(1);
    const int endResult = m_sender->send_end_frame(m_port.get());
    out.take();
    QCOMPARE(err.take(), QByteArray("ERROR: write failed: Bad file descriptor\n").repeated(3));
    QCOMPARE(startResult, 0);
    QCOMPARE(dataResult, 0);
    QCOMPARE(endResult, 0);
}

void TestCYModem::failedEotIsNotRepeated()
{
    load("x");
    request();
    request();
    m_port->Close();
    DescriptorCapture err(2);
    request();
    err.take();
    QCOMPARE(m_result, 0);
    QCOMPARE(m_printed, QByteArray("[YModem]: send EOT package.\n"));
    QVERIFY(m_port->Open(m_line->path().constData(), "115200"));
    QCOMPARE(request(), endFrame());
}

QTEST_APPLESS_MAIN(TestCYModem)
#include "tst_cymodem.moc"
