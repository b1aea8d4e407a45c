#include "capture.h"
#include "openbridgetest.h"
#include "peer.h"
#include "plainframe.h"
#include "waits.h"

namespace {

constexpr int kReadMax = 100;

QByteArray requestOf(const PlainLayout &layout)
{
    QByteArray request(layout.shortest + 42, '\0');
    request[layout.cmd] = 15;
    return framed(request);
}

/// A sound V4 frame that fills one read, with these parameters and zeros behind them.
QByteArray v4Answer(const QByteArray &params)
{
    return plainFrame(kPlainV4, kReadMax, params);
}

QStringList v3Analysis()
{
    return {
        QStringLiteral("buf head_offset: 231"),    QStringLiteral("protocolData head_offset: 231"),
        QStringLiteral("buf len_offset: 73"),      QStringLiteral("protocolData frame_min_len: 31"),
        QStringLiteral("buf buf len_offset: 231"), QStringLiteral("protocolData frame_foot: 231"),
    };
}

QStringList byteLines(const char *label, const QByteArray &bytes)
{
    QStringList lines;
    for (int i = 0; i < bytes.size(); ++i)
        lines.append(QStringLiteral("%1[ %2 ]: %3")
                         .arg(QLatin1String(label))
                         .arg(i)
                         .arg(static_cast<unsigned char>(bytes[i])));
    return lines;
}

/// All that the debug stream gets from a V3 exchange that read `count` bytes.
QStringList v3Messages(int count)
{
    QStringList lines;
    for (int checkpoint = 1; checkpoint <= 8; checkpoint += 2) {
        if (checkpoint == 7)
            lines << QStringLiteral("protocolData.param_offset+37: 66");
        lines << QStringLiteral("m_frame_state %1 : 1").arg(checkpoint) << v3Analysis()
              << QStringLiteral("m_frame_state %1 : 1").arg(checkpoint + 1);
    }
    QByteArray buffer = requestOf(kPlainV3);
    buffer.append(QByteArray(111 - buffer.size(), '\0'));
    lines << byteLines("tx_buf", buffer) << QStringLiteral("serialIoctl len: %1").arg(count)
          << byteLines("rx_buf", buffer) << v3Analysis() << QStringLiteral("m_frame_state 9 : 1")
          << QStringLiteral("mcuVersion: \"\"") << QStringLiteral("is K7QX: false");
    return lines;
}

QStringList v4Messages(int count)
{
    return {QStringLiteral("protocolData.param_offset+37: 69"),
            QStringLiteral("serialIoctl len: %1").arg(count)};
}

QList<QByteArray> v4Lines(const QByteArray &received, const char *verdict)
{
    QByteArray text;
    for (int i = 0; i < received.size(); ++i)
        text += "handsharkeV4():rx_buf[" + QByteArray::number(i)
            + "]=" + QByteArray::number(static_cast<unsigned char>(received[i]), 16) + '\n';
    return (text + verdict + '\n').split('\n');
}

/// Of an exchange that finds `count` bytes: a full read ends at once, and nothing is paused for.
QByteArray readWaits(int count)
{
    return count < kReadMax ? "100 x select 10000 us\n" : "1 x select 10000 us\n";
}

} // namespace

class TestHandshake : public OpenBridgeTest {
    Q_OBJECT

private slots:
    void v3JudgesItsOwnRequest_data();
    void v3JudgesItsOwnRequest();
    void v3OnAClosedPort();
    void v3EmptiesTheVersion();

    void v4TakesTheVersion_data();
    void v4TakesTheVersion();
    void textWithoutUnderscoreIsEmpty_data();
    void textWithoutUnderscoreIsEmpty();
    void v4TakesShorterAnswers_data();
    void v4TakesShorterAnswers();
    void v4RefusesBadAnswers_data();
    void v4RefusesBadAnswers();
    void v4AnswerOver100BytesIsCut();
    void v4OnAClosedPort();
    void badAnswerKeepsTheVersion();
    void wrongSumKeepsTheParameters();
    void exchangesLeaveTheRequestsRecordOrTheAnswers();

    void ioctlReads100AndIgnoresItsWait();
    void localVersionIsWhatWasSet();

private:
    using Handshake = int (FileIO::*)();

    struct Exchange {
        int result;
        QList<QByteArray> out; // lines
        QStringList messages;
        QByteArray request;
        QByteArray waits;
    };

    /// One handshake with a board that answers `answer` once the request has come.
    Exchange exchange(Handshake handshake, const QByteArray &answer);
    /// The same, for its result only.
    int resultOf(Handshake handshake, const QByteArray &answer);
};

TestHandshake::Exchange TestHandshake::exchange(Handshake handshake, const QByteArray &answer)
{
    Exchange done;
    Waits waits(Waits::AtOnce);
    waits.setBefore([&](const QByteArray &) {
        if (!done.request.isEmpty())
            return;
        done.request = m_line->received();
        if (!answer.isEmpty())
            m_line->deliver(answer);
    });
    const MessageCapture messages;
    DescriptorCapture out(1);
    done.result = (m_io.get()->*handshake)();
    done.out = out.take().split('\n');
    done.messages = messages.messages();
    done.request += m_line->received();
    done.waits = waits.asked();
    return done;
}

int TestHandshake::resultOf(Handshake handshake, const QByteArray &answer)
{
    return exchange(handshake, answer).result;
}

void TestHandshake::v3JudgesItsOwnRequest_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("silent") << QByteArray();
    QTest::newRow("good answer") << plainFrame(kPlainV3, kReadMax, QByteArray("ABC_K7QX12"));
    QTest::newRow("garbage") << QByteArray(kReadMax, '\x55');
    QTest::newRow("short") << QByteArray("\xE7\x49");
    QTest::newRow("longest frame") << plainFrame(kPlainV3, 111, QByteArray("ABC_K7QX12"));
}

void TestHandshake::v3JudgesItsOwnRequest()
{
    QFETCH(QByteArray, answer);

    const Exchange done = exchange(&FileIO::handsharkeV3, answer);
    const int count = qMin(answer.size(), kReadMax);
    QCOMPARE(done.result, count);
    QCOMPARE(done.request, requestOf(kPlainV3));
    QCOMPARE(done.waits, readWaits(count));
    QCOMPARE(done.out, QByteArray("handsharke: FRAME_OK\n").split('\n'));
    QCOMPARE(done.messages, v3Messages(count));
    QCOMPARE(m_io->frameStatus(), int(FRAME_OK));
    QCOMPARE(m_io->frameRecordV3().len, std::uint8_t{73});
    QCOMPARE(m_io->frameRecordV3().cmd, std::uint8_t{15});
    QCOMPARE(m_io->mcuVersion(), QString());
}

void TestHandshake::v3OnAClosedPort()
{
    m_io->closeSerial();
    const MessageCapture messages;
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    const int result = m_io->handsharkeV3();
    QCOMPARE(err.take(), QByteArray("ERROR: write failed: Bad file descriptor\n"));
    // Its own request is good all the same.
    QCOMPARE(out.take(), QByteArray("handsharke: FRAME_OK\n"));
    QCOMPARE(messages.messages(), v3Messages(-1));
    QCOMPARE(result, -1);
}

void TestHandshake::v3EmptiesTheVersion()
{
    QCOMPARE(resultOf(&FileIO::handsharkeV4, v4Answer("A_B")), kReadMax);
    QCOMPARE(m_io->mcuVersion(), QStringLiteral("B"));
    QCOMPARE(resultOf(&FileIO::handsharkeV3, v4Answer("A_C")), kReadMax);
    QCOMPARE(m_io->mcuVersion(), QString());
}

void TestHandshake::v4TakesTheVersion_data()
{
    QTest::addColumn<QByteArray>("params");
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("isK7qx");

    const QString yes = QStringLiteral("true");
    const QString no = QStringLiteral("false");
    QTest::newRow("behind the underscore")
        << QByteArray("ABC_K7QX12") << QStringLiteral("K7QX12") << yes;
    QTest::newRow("behind the first one")
        << QByteArray("A_B_K7QX_C") << QStringLiteral("B_K7QX_C") << yes;
    QTest::newRow("before the underscore") << QByteArray("K7QX_V1") << QStringLiteral("V1") << no;
    QTest::newRow("lower case") << QByteArray("A_k7qx") << QStringLiteral("k7qx") << no;
    QTest::newRow("at the very start") << QByteArray("_V2.0") << QStringLiteral("V2.0") << no;
    QTest::newRow("nothing behind") << QByteArray("ABC_") << QString() << no;
    QTest::newRow("up to the zero byte")
        << QByteArray("A_V1\0K7QX", 9) << QStringLiteral("V1") << no;
    QTest::newRow("not ASCII") << QByteArray("A_\xE9\xFF") << QString::fromLatin1("\xE9\xFF") << no;
    QTest::newRow("49 bytes") << QByteArray("AB_") + QByteArray(46, 'x')
                              << QString(46, QLatin1Char('x')) << no;
    // The place where it is looked for holds 50.
    QTest::newRow("50 bytes without a zero")
        << QByteArray("AB_") + QByteArray(47, 'x') << QString(47, QLatin1Char('x')) << no;
    QTest::newRow("66 bytes without a zero")
        << QByteArray("AB_") + QByteArray(63, 'x') << QString(47, QLatin1Char('x')) << no;
    QTest::newRow("cut within K7QX") << QByteArray("AB_").leftJustified(47, 'x') + "K7QX"
                                     << QString(44, QLatin1Char('x')) + QStringLiteral("K7Q") << no;
    QTest::newRow("underscore as the 50th byte") << QByteArray(49, 'x') + "_V1" << QString() << no;
}

void TestHandshake::v4TakesTheVersion()
{
    QFETCH(QByteArray, params);
    QFETCH(QString, version);
    QFETCH(QString, isK7qx);

    const QByteArray answer = v4Answer(params);
    const Exchange done = exchange(&FileIO::handsharkeV4, answer);
    QCOMPARE(done.result, kReadMax);
    QCOMPARE(done.request, requestOf(kPlainV4));
    QCOMPARE(done.out, v4Lines(answer, "handsharke: FRAME_OK"));
    QString quoted;
    QDebug(&quoted).nospace() << version;
    const QStringList versionLines{QStringLiteral("mcuVersion: ") + quoted,
                                   QStringLiteral("is K7QX: ") + isK7qx};
    QCOMPARE(done.messages, v4Messages(kReadMax) + versionLines);
    QCOMPARE(m_io->mcuVersion(), version);
    QVERIFY(!m_io->mcuVersion().isNull());
}

void TestHandshake::textWithoutUnderscoreIsEmpty_data()
{
    QTest::addColumn<QByteArray>("params");
    QTest::addColumn<QString>("version");
    QTest::newRow("no parameters") << QByteArray() << QString();
    QTest::newRow("plain text") << QByteArray("ABCK7QX12") << QString();
    // Unless the parameters go on behind the zero byte.
    QTest::newRow("text behind the zero byte")
        << QByteArray("ABC\0K7QX", 8) << QStringLiteral("K7QX");
    QTest::newRow("underscore behind the zero byte")
        << QByteArray("ABC\0D_E", 7) << QStringLiteral("D_E");
    QTest::newRow("zero byte first") << QByteArray("\0ABC", 4) << QStringLiteral("ABC");
    QTest::newRow("two zero bytes") << QByteArray("A\0\0BC", 5) << QString();
    QTest::newRow("zero byte as the 49th")
        << QByteArray(48, 'x') + QByteArray("\0yz", 3) << QStringLiteral("y");
    QTest::newRow("zero byte as the 50th")
        << QByteArray(49, 'x') + QByteArray("\0z", 2) << QString();
    QTest::newRow("50 bytes without a zero") << QByteArray(50, 'x') << QString();
    QTest::newRow("66 bytes without a zero") << QByteArray(66, 'x') << QString();
    QTest::newRow("underscore as the 51st byte") << QByteArray(50, 'x') + "_V1" << QString();
}

void TestHandshake::textWithoutUnderscoreIsEmpty()
{
    QFETCH(QByteArray, params);
    QFETCH(QString, version);

    QCOMPARE(resultOf(&FileIO::handsharkeV4, v4Answer("A_old")), kReadMax);
    QCOMPARE(resultOf(&FileIO::handsharkeV4, v4Answer(params)), kReadMax);
    QCOMPARE(m_io->mcuVersion(), version);
}

void TestHandshake::v4TakesShorterAnswers_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<QByteArray>("params");
    QTest::addColumn<QString>("version");
    QTest::newRow("no parameters") << 34 << QByteArray() << QString();
    QTest::newRow("one block") << 76 << QByteArray("ABC_K7QX12") << QStringLiteral("K7QX12");
    QTest::newRow("just the text") << 44 << QByteArray("ABC_K7QX12") << QStringLiteral("K7QX12");
    QTest::newRow("50 bytes without a zero")
        << 84 << QByteArray("ABC_") + QByteArray(46, 'x') << QString(46, QLatin1Char('x'));
}

void TestHandshake::v4TakesShorterAnswers()
{
    QFETCH(int, length);
    QFETCH(QByteArray, params);
    QFETCH(QString, version);

    const QByteArray answer = plainFrame(kPlainV4, length, params);
    const Exchange done = exchange(&FileIO::handsharkeV4, answer);
    QCOMPARE(done.result, length);
    QCOMPARE(done.out, v4Lines(answer, "handsharke: FRAME_OK"));
    QCOMPARE(done.messages.mid(0, 2), v4Messages(length));
    QCOMPARE(m_io->mcuVersion(), version);
    QCOMPARE(int(m_io->frameRecordV4().len), length);
}

void TestHandshake::v4RefusesBadAnswers_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<int>("status");

    const QByteArray good = v4Answer("ABC_K7QX12");
    const auto with = [&good](int position, int value) {
        QByteArray bytes = good;
        bytes[position] = static_cast<char>(value);
        return bytes;
    };
    const int bad = FRAME_BAD;
    QTest::newRow("silent") << QByteArray() << bad;
    QTest::newRow("one byte short") << plainFrame(kPlainV4, 76).left(75) << bad;
    QTest::newRow("head") << with(0, 0xE6) << bad;
    QTest::newRow("foot") << with(99, 0xE6) << bad;
    QTest::newRow("sum") << with(98, good[98] + 1) << int(FRAME_SUM_BAD);
    QTest::newRow("byte within") << with(40, 'x') << int(FRAME_SUM_BAD);
    QTest::newRow("length 0") << with(1, 0) << bad;
    QTest::newRow("length 33") << framed(QByteArray(33, '\0')).leftJustified(kReadMax, '\0') << bad;
    QTest::newRow("length 99") << with(1, 99) << bad;
    QTest::newRow("length 101") << with(1, 101) << bad;
    QTest::newRow("length 200") << with(1, 200) << bad;
    // Beyond the buffer that the answer is in.
    QTest::newRow("length 201") << with(1, 201) << bad;
    QTest::newRow("length 216") << with(1, 216) << bad;
    QTest::newRow("length 255") << with(1, 255) << bad;
    QTest::newRow("all E7") << QByteArray(kReadMax, '\xE7') << bad;
    QTest::newRow("behind a stray byte") << QByteArray(1, '\0') + good << bad;
}

void TestHandshake::v4RefusesBadAnswers()
{
    QFETCH(QByteArray, answer);
    QFETCH(int, status);

    const Exchange done = exchange(&FileIO::handsharkeV4, answer);
    QCOMPARE(done.result, -1);
    QCOMPARE(done.request, requestOf(kPlainV4));
    QCOMPARE(done.waits, readWaits(answer.size()));
    QCOMPARE(done.out, v4Lines(answer.left(kReadMax), "handsharke: FRAME_BAD"));
    QCOMPARE(done.messages, v4Messages(qMin(answer.size(), kReadMax)));
    QCOMPARE(m_io->frameStatus(), status);
    QVERIFY(m_io->mcuVersion().isNull());
}

void TestHandshake::v4AnswerOver100BytesIsCut()
{
    const QByteArray answer = plainFrame(kPlainV4, 120, "ABC_K7QX12");
    const Exchange done = exchange(&FileIO::handsharkeV4, answer);
    QCOMPARE(done.result, -1);
    QCOMPARE(done.out, v4Lines(answer.left(kReadMax), "handsharke: FRAME_BAD"));
    // What is behind the first 100 bytes is read next, in front of the next answer.
    const QByteArray next = plainFrame(kPlainV4, 80, "A_B");
    const Exchange after = exchange(&FileIO::handsharkeV4, next);
    QCOMPARE(after.result, -1);
    QCOMPARE(after.out, v4Lines(answer.mid(kReadMax) + next, "handsharke: FRAME_BAD"));
}

void TestHandshake::v4OnAClosedPort()
{
    m_io->closeSerial();
    const MessageCapture messages;
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    const int result = m_io->handsharkeV4();
    QCOMPARE(err.take(), QByteArray("ERROR: write failed: Bad file descriptor\n"));
    QCOMPARE(out.take(), QByteArray("handsharke: FRAME_BAD\n"));
    QCOMPARE(messages.messages(), v4Messages(-1));
    QCOMPARE(result, -1);
    QVERIFY(m_io->mcuVersion().isNull());
}

void TestHandshake::badAnswerKeepsTheVersion()
{
    QCOMPARE(resultOf(&FileIO::handsharkeV4, v4Answer("A_B")), kReadMax);
    QCOMPARE(resultOf(&FileIO::handsharkeV4, QByteArray(kReadMax, '\0')), -1);
    QCOMPARE(m_io->mcuVersion(), QStringLiteral("B"));
    // The next good one replaces it.
    QCOMPARE(resultOf(&FileIO::handsharkeV4, v4Answer("A_CD")), kReadMax);
    QCOMPARE(m_io->mcuVersion(), QStringLiteral("CD"));
}

void TestHandshake::wrongSumKeepsTheParameters()
{
    // A frame's own request is analysed first, so the parameters kept are its zeros.
    QByteArray answer = v4Answer(QByteArray(66, 'x'));
    answer[98] = static_cast<char>(answer[98] + 1);
    QCOMPARE(resultOf(&FileIO::handsharkeV4, answer), -1);
    const FrameRecordV4 &record = m_io->frameRecordV4();
    QCOMPARE(record.len, std::uint8_t{100});
    QCOMPARE(record.cmd, std::uint8_t{15});
    for (const std::uint8_t byte : record.params)
        QCOMPARE(byte, std::uint8_t{0});
}

void TestHandshake::exchangesLeaveTheRequestsRecordOrTheAnswers()
{
    QCOMPARE(resultOf(&FileIO::handsharkeV4, QByteArray(kReadMax, '\0')), -1);
    QCOMPARE(m_io->frameRecordV4().len, std::uint8_t{76});
    QCOMPARE(m_io->frameRecordV4().cmd, std::uint8_t{15});
    QCOMPARE(m_io->frameRecordV3().len, std::uint8_t{0});
    QCOMPARE(resultOf(&FileIO::handsharkeV4, v4Answer("A_B")), kReadMax);
    QCOMPARE(m_io->frameRecordV4().len, std::uint8_t{100});
    QCOMPARE(m_io->frameRecordV4().cmd, std::uint8_t{0});
}

void TestHandshake::ioctlReads100AndIgnoresItsWait()
{
    for (const int wait : {0, -1, 1000000}) {
        Peer board(*m_line, [](Pty &line) {
            line.receive(255);
            line.send(QByteArray(50, 'a') + QByteArray(50, 'b'));
        });
        Bytes tx(255, 't');
        Bytes rx(100, 0);
        QCOMPARE(m_io->serialIoctl(tx.data(), 255, rx.data(), wait), 100);
        QCOMPARE(textOf(rx), QByteArray(50, 'a') + QByteArray(50, 'b'));
    }
    m_line->deliver("x");
    Bytes rx(100, 'r');
    const Waits waits(Waits::Real);
    QCOMPARE(m_io->serialIoctl(rx.data(), 0, rx.data(), 1000000), 1);
    QCOMPARE(waits.asked(), readWaits(1));
    QCOMPARE(textOf(rx), QByteArray("x\0\0\0", 4) + QByteArray(96, 'r'));
    QCOMPARE(m_line->received(), QByteArray());
}

void TestHandshake::localVersionIsWhatWasSet()
{
    QVERIFY(m_io->localVersion().isNull());
    m_io->setLocalVersion(QStringLiteral("1.0"));
    QCOMPARE(m_io->localVersion(), QStringLiteral("1.0"));
    m_io->setLocalVersion(QStringLiteral("\u7248 2"));
    QCOMPARE(m_io->localVersion(), QStringLiteral("\u7248 2"));
    m_io->setLocalVersion(QString());
    QCOMPARE(m_io->localVersion(), QString());
    QCOMPARE(m_io->mcuVersion(), QString());
}

QTEST_APPLESS_MAIN(TestHandshake)
#include "tst_handshake.moc"
