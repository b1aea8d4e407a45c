#include "capture.h"
#include "fileio.h"
#include "peer.h"
#include "pty.h"
#include "serialport.h"

#include <QtTest>

// Apart from tst_bootloader, since each case here takes twelve seconds.

namespace {

constexpr int kPacketSize = 64;
constexpr int kAttempts = 11;

QByteArray commandLines(const QByteArray &packet)
{
    QByteArray text;
    for (int i = 0; i < packet.size(); ++i)
        text += "cmd_buf[" + QByteArray::number(i) + "] = 0x"
            + QByteArray::number(static_cast<unsigned char>(packet[i]), 16) + '\n';
    return text;
}

} // namespace

class TestBootloaderSilence : public QObject {
    Q_OBJECT

private slots:
    void connectGivesUpAfter11Attempts_data();
    void connectGivesUpAfter11Attempts();
};

void TestBootloaderSilence::connectGivesUpAfter11Attempts_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<QByteArray>("received");
    QTest::newRow("silent board") << QByteArray() << QByteArray();
    QTest::newRow("short answers")
        << QByteArray("\x41\xFF", 2) << QByteArray("rx_buf[0] = 0x41\nrx_buf[1] = 0xff\n");
}

void TestBootloaderSilence::connectGivesUpAfter11Attempts()
{
    QFETCH(QByteArray, answer);
    QFETCH(QByteArray, received);

    Pty line;
    FileIO io;
    QVERIFY(io.serialPort()->Open(line.path().constData(), "115200"));
    QList<QByteArray> sent;
    Peer board(line, [&](Pty &pty) {
        for (int attempt = 0; attempt < kAttempts; ++attempt) {
            sent.append(pty.receive(kPacketSize));
            if (!answer.isEmpty())
                pty.send(answer);
        }
    });
    DescriptorCapture out(1);
    const int result = io.sendCmdFromConnect2Config();
    const QByteArray text = out.take();
    board.finish();

    QByteArray connect(kPacketSize, '\0');
    connect[0] = '\xAE';
    connect[4] = 1;
    const QByteArray length = "len:" + QByteArray::number(answer.size());
    QCOMPARE(text,
             commandLines(connect) + (length + " line:734\n").repeated(kAttempts - 1) + length
                 + '\n' + received + "device ack error:CMD_CONNECT\n");
    QCOMPARE(result, -1);
    QCOMPARE(sent.size(), kAttempts);
    QCOMPARE(sent.count(connect), kAttempts);
    QCOMPARE(line.received(), QByteArray());
    QVERIFY(line.isOpenedByProduct());
}

QTEST_APPLESS_MAIN(TestBootloaderSilence)
#include "tst_bootloadersilence.moc"
