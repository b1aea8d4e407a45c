#include "capture.h"
#include "openbridgetest.h"
#include "peer.h"
#include "waits.h"

namespace {

constexpr int kPacketSize = 64;

QByteArray packet(int code, int number, int param = 0)
{
    QByteArray bytes(kPacketSize, '\0');
    bytes[0] = static_cast<char>(code);
    bytes[4] = static_cast<char>(number);
    bytes[8] = static_cast<char>(param);
    return bytes;
}

const QByteArray kConnect = packet(0xAE, 1);
const QByteArray kSyncPackno = packet(0xA4, 1, 1);
const QByteArray kGetDeviceId = packet(0xB1, 3);
const QByteArray kReadConfig = packet(0xA2, 5);

/// Bytes 255, 254, ... so that none is mistaken for its neighbour and all print as unsigned.
QByteArray answer(int size = kPacketSize)
{
    QByteArray bytes;
    for (int i = 0; i < size; ++i)
        bytes.append(static_cast<char>(255 - i));
    return bytes;
}

QByteArray lines(const char *name, const QByteArray &bytes)
{
    QByteArray text;
    for (int i = 0; i < bytes.size(); ++i) {
        text += name;
        text += '[' + QByteArray::number(i) + "] = 0x"
            + QByteArray::number(static_cast<unsigned char>(bytes[i]), 16) + '\n';
    }
    return text;
}

const QByteArray kAnswerPause("1 x usleep 25000 us\n");
const QByteArray kFullRead("1 x select 10000 us\n");
const QByteArray kShortRead("100 x select 10000 us\n");
const QByteArray kRetryPause("1 x nanosleep 100000000 ns\n");

const QByteArray kCommandLines = lines("cmd_buf", kConnect);
const QByteArray kConnected = kCommandLines + "len:64\n" + lines("rx_buf", answer());

} // namespace

class TestBootloader : public OpenBridgeTest {
    Q_OBJECT

private slots:
    void packetsAreExact();
    void portIsLeftOpen();
    void deviceIdIsUnsignedLittleEndian_data();
    void deviceIdIsUnsignedLittleEndian();
    void answersMayComeInPieces();
    void connectIsTriedAgain();
    void connectGivesUpAfter11Attempts_data();
    void connectGivesUpAfter11Attempts();
    void lateShortRepliesTakeTwiceAsLong();
    void retryPauseIsResumedAfterASignal();
    void overlongAnswerIsCutToItsPacket();
    void failedStepEndsTheSequence_data();
    void failedStepEndsTheSequence();
    void closedPortPrintsMinusOne();

private:
    struct Run {
        int result;
        QList<QByteArray> out; // lines
        QByteArray waits;
    };

    /// Runs the sequence against a board that receives a packet and sends an answer in turn, while
    /// it is paused for.
    Run run(const QList<QByteArray> &answers, Waits::Mode mode = Waits::AtOnce);

    QList<QByteArray> m_sent;
};

TestBootloader::Run TestBootloader::run(const QList<QByteArray> &answers, Waits::Mode mode)
{
    m_sent.clear();
    Waits waits(mode);
    waits.setBefore([this, rest = answers](const QByteArray &call) mutable {
        if (!call.startsWith("usleep"))
            return;
        m_sent.append(m_line->received());
        if (!rest.isEmpty())
            m_line->deliver(rest.takeFirst());
    });
    DescriptorCapture out(1);
    const int result = m_io->sendCmdFromConnect2Config();
    return {result, out.take().split('\n'), waits.asked()};
}

void TestBootloader::packetsAreExact()
{
    const Run sequence = run({answer(), answer(), answer(), answer()});
    QCOMPARE(sequence.result, 1);
    const QList<QByteArray> packets{kConnect, kSyncPackno, kGetDeviceId, kReadConfig};
    QCOMPARE(m_sent, packets);
    QCOMPARE(m_line->received(), QByteArray());
    QCOMPARE(sequence.out, (kConnected + "device id:4109760247\n").split('\n'));
    QCOMPARE(sequence.waits, (kAnswerPause + kFullRead).repeated(4));
}

void TestBootloader::portIsLeftOpen()
{
    QCOMPARE(run({answer(), answer(), answer(), answer()}).result, 1);
    // The same port once more.
    QCOMPARE(run({answer(), answer(), answer(), answer()}).result, 1);
    QVERIFY(m_line->isOpenedByProduct());
    m_io->closeSerial();
    QVERIFY(!m_line->isOpenedByProduct());
}

void TestBootloader::deviceIdIsUnsignedLittleEndian_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArray>("id");
    QTest::newRow("zero") << QByteArray(4, '\0') << QByteArray("0");
    QTest::newRow("largest") << QByteArray(4, '\xFF') << QByteArray("4294967295");
    QTest::newRow("sign bit") << QByteArray("\0\0\0\x80", 4) << QByteArray("2147483648");
    QTest::newRow("byte order") << QByteArray("\x01\x02\x03\x04", 4) << QByteArray("67305985");
}

void TestBootloader::deviceIdIsUnsignedLittleEndian()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, id);

    QByteArray identified = answer();
    identified.replace(8, 4, bytes);
    const Run sequence = run({answer(), answer(), identified, answer()});
    QCOMPARE(sequence.result, 1);
    QCOMPARE(sequence.out, (kConnected + "device id:" + id + '\n').split('\n'));
}

void TestBootloader::answersMayComeInPieces()
{
    Peer board(*m_line, [](Pty &line) {
        for (int step = 0; step < 4; ++step) {
            line.receive(kPacketSize);
            for (const char byte : answer())
                line.send(QByteArray(1, byte));
        }
    });
    DescriptorCapture out(1);
    const int result = m_io->sendCmdFromConnect2Config();
    QCOMPARE(out.take().split('\n'), (kConnected + "device id:4109760247\n").split('\n'));
    QCOMPARE(result, 1);
}

void TestBootloader::connectIsTriedAgain()
{
    // The one that is waited for.
    const Run sequence = run({"", answer(63), answer(), answer(), answer(), answer()}, Waits::Real);
    QCOMPARE(sequence.result, 1);
    QCOMPARE(sequence.waits,
             (kAnswerPause + kShortRead + kRetryPause).repeated(2)
                 + (kAnswerPause + kFullRead).repeated(4));
    const QList<QByteArray> packets{kConnect,    kConnect,     kConnect,
                                    kSyncPackno, kGetDeviceId, kReadConfig};
    QCOMPARE(m_sent, packets);
    const QByteArray retries = "len:0 line:734\nlen:63 line:734\nlen:64\n";
    QCOMPARE(sequence.out,
             (kCommandLines + retries + lines("rx_buf", answer()) + "device id:4109760247\n")
                 .split('\n'));
}

void TestBootloader::connectGivesUpAfter11Attempts_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArray>("received");
    QTest::newRow("silent board") << QByteArray() << QByteArray();
    QTest::newRow("short answers")
        << QByteArray("\x41\xFF", 2) << QByteArray("rx_buf[0] = 0x41\nrx_buf[1] = 0xff\n");
}

void TestBootloader::connectGivesUpAfter11Attempts()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, received);

    const Run sequence = run(QVector<QByteArray>(12, bytes).toList());
    QCOMPARE(sequence.result, -1);
    const QByteArray length = "len:" + QByteArray::number(bytes.size());
    QCOMPARE(sequence.out,
             (kCommandLines + (length + " line:734\n").repeated(10) + length + '\n' + received
              + "device ack error:CMD_CONNECT\n")
                 .split('\n'));
    QCOMPARE(m_sent, QVector<QByteArray>(11, kConnect).toList());
    QCOMPARE(sequence.waits,
             (kAnswerPause + kShortRead + kRetryPause).repeated(10) + kAnswerPause + kShortRead);
    QCOMPARE(m_line->received(), QByteArray());
    QVERIFY(m_line->isOpenedByProduct());
}

void TestBootloader::lateShortRepliesTakeTwiceAsLong()
{
    Waits waits(Waits::AtOnce);
    int passes = 0;
    waits.setBefore([&](const QByteArray &call) {
        if (call.startsWith("usleep"))
            passes = 0;
        else if (call.startsWith("select") && ++passes == 100)
            m_line->deliver("A"); // in the last pass that a silent board is given
    });
    DescriptorCapture out(1);
    QCOMPARE(m_io->sendCmdFromConnect2Config(), -1);
    out.take();
    // 23.2 s in all.
    const QByteArray lateRead("199 x select 10000 us\n");
    QCOMPARE(waits.asked(),
             (kAnswerPause + lateRead + kRetryPause).repeated(10) + kAnswerPause + lateRead);
}

void TestBootloader::retryPauseIsResumedAfterASignal()
{
    m_io->closeSerial();
    Waits waits(Waits::AtOnce);
    QList<long> left{60000000, 10000000};
    waits.setBefore([&](const QByteArray &call) {
        if (call.startsWith("nanosleep") && !left.isEmpty())
            waits.interrupt(left.takeFirst());
    });
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    QCOMPARE(m_io->sendCmdFromConnect2Config(), -1);
    err.take();
    out.take();
    QCOMPARE(waits.asked(),
             kAnswerPause + kRetryPause + "1 x nanosleep 60000000 ns\n1 x nanosleep 10000000 ns\n"
                 + (kAnswerPause + kRetryPause).repeated(9) + kAnswerPause);
}

void TestBootloader::overlongAnswerIsCutToItsPacket()
{
    // What is left over is the next answer.
    const Run sequence = run({answer() + answer(), "", answer(), answer()});
    QCOMPARE(sequence.result, 1);
    QCOMPARE(sequence.out, (kConnected + "device id:4109760247\n").split('\n'));
}

void TestBootloader::failedStepEndsTheSequence_data()
{
    QTest::addColumn<QList<QByteArray>>("answers");
    QTest::addColumn<QByteArray>("out");

    const QByteArray sync = "device ack error:CMD_SYNC_packno\n";
    const QByteArray deviceId = "device ack error:CMD_GET_DEVICEID\n";
    const QByteArray config = "device id:4109760247\ndevice ack error:CMD_READ_CONFIG\n";
    using Answers = QList<QByteArray>;
    QTest::newRow("no sync") << Answers{answer(), ""} << kConnected + sync;
    QTest::newRow("short sync") << Answers{answer(), answer(63)} << kConnected + sync;
    QTest::newRow("no id") << Answers{answer(), answer(), ""} << kConnected + deviceId;
    QTest::newRow("short id") << Answers{answer(), answer(), answer(12)} << kConnected + deviceId;
    QTest::newRow("no configuration")
        << Answers{answer(), answer(), answer(), ""} << kConnected + config;
    QTest::newRow("short configuration")
        << Answers{answer(), answer(), answer(), answer(1)} << kConnected + config;
}

void TestBootloader::failedStepEndsTheSequence()
{
    QFETCH(QList<QByteArray>, answers);
    QFETCH(QByteArray, out);

    const Run sequence = run(answers);
    QCOMPARE(sequence.result, -1);
    QCOMPARE(sequence.out, out.split('\n'));
    const QList<QByteArray> packets{kConnect, kSyncPackno, kGetDeviceId, kReadConfig};
    QCOMPARE(m_sent, packets.mid(0, answers.size()));
    QCOMPARE(m_line->received(), QByteArray());
    QVERIFY(m_line->isOpenedByProduct());
}

void TestBootloader::closedPortPrintsMinusOne()
{
    m_io->closeSerial();
    const Waits waits(Waits::AtOnce);
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    const int result = m_io->sendCmdFromConnect2Config();
    QCOMPARE(out.take(),
             kCommandLines + QByteArray("len:-1 line:734\n").repeated(10)
                 + "len:-1\ndevice ack error:CMD_CONNECT\n");
    QCOMPARE(err.take(), QByteArray("ERROR: write failed: Bad file descriptor\n").repeated(11));
    QCOMPARE(result, -1);
}

QTEST_APPLESS_MAIN(TestBootloader)
#include "tst_bootloader.moc"
