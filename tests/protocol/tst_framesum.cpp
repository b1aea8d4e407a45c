#include "frame.h"
#include "frameversions.h"

#include <algorithm>

/// The sum of a frame, and setCrc(), which puts it in.
class TestFrameSum : public QObject {
    Q_OBJECT

private slots:
    void sumEqualsThePlainSumForEveryLength_data();
    void sumEqualsThePlainSumForEveryLength();
    void sumLeavesOutHeadSumAndFoot();
    void orderOfBytesDoesNotChangeTheSum();

    void crcIsTheOnlyByteWritten_data() { versions(); }
    void crcIsTheOnlyByteWritten();
    void crcOfTheShortestFrame();
    void crcRefusesBadFraming_data();
    void crcRefusesBadFraming();
    void crcFollowsTheDescriptor();
    void frameWithoutRoomForItsSumIsBad();
};

void TestFrameSum::sumEqualsThePlainSumForEveryLength_data()
{
    QTest::addColumn<int>("pattern");
    QTest::newRow("random") << -1;
    QTest::newRow("all 00") << 0x00;
    QTest::newRow("all 01") << 0x01;
    QTest::newRow("all 7F") << 0x7F;
    QTest::newRow("all 80") << 0x80;
    QTest::newRow("all FF") << 0xFF;
}

void TestFrameSum::sumEqualsThePlainSumForEveryLength()
{
    QFETCH(int, pattern);

    std::mt19937 random(0x5EED);
    for (int length = 0; length <= 255; ++length) {
        for (int alignment = 0; alignment < 32; ++alignment) {
            QByteArray frame(length, '\0');
            for (char &byte : frame)
                byte = static_cast<char>(pattern < 0 ? random() : static_cast<unsigned>(pattern));
            const Bytes bytes = exact(QByteArray(alignment, '\xAA') + frame);
            const std::uint8_t sum =
                frameSum(bytes.data() + alignment, static_cast<unsigned>(length));
            if (sum != plainSum(frame, length))
                QFAIL(qPrintable(QStringLiteral("length %1, alignment %2: %3, not %4")
                                     .arg(length)
                                     .arg(alignment)
                                     .arg(sum)
                                     .arg(plainSum(frame, length))));
        }
    }
}

void TestFrameSum::sumLeavesOutHeadSumAndFoot()
{
    for (int length = 4; length <= 255; ++length) {
        const QByteArray zeros(length, '\0');
        for (int position = 0; position < length; ++position) {
            const Bytes bytes = exact(with(zeros, position, 0xA5));
            const bool counts = position > 0 && position < length - 2;
            QCOMPARE(frameSum(bytes.data(), static_cast<unsigned>(length)),
                     std::uint8_t(counts ? 0xA5 : 0));
        }
    }
}

void TestFrameSum::orderOfBytesDoesNotChangeTheSum()
{
    QByteArray params;
    for (int i = 0; i < 42; ++i)
        params.append(static_cast<char>(7 * i));
    const QByteArray forward = plainFrame(kPlainV3, 73, params);
    std::reverse(params.begin(), params.end());
    const QByteArray backward = plainFrame(kPlainV3, 73, params);
    QVERIFY(forward != backward);
    QCOMPARE(frameSum(exact(forward).data(), 73), frameSum(exact(backward).data(), 73));
}

void TestFrameSum::crcIsTheOnlyByteWritten()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        for (int length = v.layout.shortest; length <= 255; ++length) {
            const QByteArray right = randomFrame(length, static_cast<unsigned>(length));
            Bytes frame = exact(with(right, length - 2, right[length - 2] + 1));
            QCOMPARE(io.setCrc(frame.data(), v.protocol(io)), int(FRAME_OK));
            QCOMPARE(io.frameStatus(), int(FRAME_OK));
            QCOMPARE(textOf(frame), right);
        }
    });
}

void TestFrameSum::crcOfTheShortestFrame()
{
    FileIO io;
    Bytes frame(31, 0);
    frame[0] = frame[30] = 0xE7;
    frame[1] = 31;
    for (std::size_t i = 2; i < 29; ++i)
        frame[i] = static_cast<unsigned char>(i);
    QCOMPARE(io.setCrc(frame.data(), io.protocolV3()), int(FRAME_OK));
    // 31 and 2 + 3 + ... + 28 make 436, that is 256 and 180.
    QCOMPARE(frame[29], static_cast<unsigned char>(180));
}

void TestFrameSum::crcRefusesBadFraming_data()
{
    QTest::addColumn<int>("version");
    QTest::addColumn<QByteArray>("frame");
    const QByteArray v3 = with(plainFrame(kPlainV3, 31), 29, 0x99);
    const QByteArray v4 = with(plainFrame(kPlainV4, 34), 32, 0x99);
    QTest::newRow("V3 head") << 3 << with(v3, 0, 0xE6);
    QTest::newRow("V3 length 30") << 3 << with(with(v3, 1, 30), 29, 0xE7);
    QTest::newRow("V3 length 0") << 3 << with(v3, 1, 0);
    QTest::newRow("V3 foot") << 3 << with(v3, 30, 0xE6);
    QTest::newRow("V4 head") << 4 << with(v4, 0, 0);
    QTest::newRow("V4 length 33") << 4 << with(with(v4, 1, 33), 32, 0xE7);
    QTest::newRow("V4 length 0") << 4 << with(v4, 1, 0);
    QTest::newRow("V4 foot") << 4 << with(v4, 33, 0);
    // The foot is not even looked for.
    QTest::newRow("V3 head, two bytes") << 3 << QByteArray("\x00\xFF", 2);
    QTest::newRow("V3 length 30, two bytes") << 3 << QByteArray("\xE7\x1E", 2);
    QTest::newRow("V4 head, two bytes") << 4 << QByteArray("\x00\xFF", 2);
    QTest::newRow("V4 length 33, two bytes") << 4 << QByteArray("\xE7\x21", 2);
}

void TestFrameSum::crcRefusesBadFraming()
{
    QFETCH(QByteArray, frame);

    forVersionOfTheRow([&frame](auto v) {
        FileIO io;
        Bytes good = exact(plainFrame(v.layout, v.layout.shortest));
        QCOMPARE(io.setCrc(good.data(), v.protocol(io)), int(FRAME_OK));
        Bytes bytes = exact(frame);
        QCOMPARE(io.setCrc(bytes.data(), v.protocol(io)), int(FRAME_BAD));
        QCOMPARE(io.frameStatus(), int(FRAME_BAD));
        QCOMPARE(textOf(bytes), frame);
        QVERIFY(sameRecords(v.record(io), typename decltype(v)::Record{}));
    });
}

void TestFrameSum::crcFollowsTheDescriptor()
{
    FileIO io;
    Protocol protocol = io.protocolV3();
    protocol.head_offset = 4;
    protocol.len_offset = 5;
    protocol.frame_min_len = 8;
    protocol.frame_head = 0xA1;
    protocol.frame_foot = 0xB2;
    Bytes frame{1, 2, 4, 8, 0xA1, 8, 0, 0xB2};
    QCOMPARE(io.setCrc(frame.data(), protocol), int(FRAME_OK));
    // From the second byte on, wherever head and length stand.
    QCOMPARE(frame[6], static_cast<unsigned char>(2 + 4 + 8 + 0xA1 + 8));

    frame[5] = 7;
    QCOMPARE(io.setCrc(frame.data(), protocol), int(FRAME_BAD));
    frame[5] = 8;
    frame[4] = 0xE7;
    QCOMPARE(io.setCrc(frame.data(), protocol), int(FRAME_BAD));
    frame[4] = 0xA1;
    frame[7] = 0xE7;
    QCOMPARE(io.setCrc(frame.data(), protocol), int(FRAME_BAD));
}

void TestFrameSum::frameWithoutRoomForItsSumIsBad()
{
    FileIO io;
    Protocol protocol = io.protocolV4();
    protocol.frame_min_len = 0;
    // The one byte that the length promises is head and foot.
    Bytes frame{protocol.frame_head, 1};
    QCOMPARE(io.setCrc(frame.data(), protocol), int(FRAME_BAD));
    QCOMPARE(frame, (Bytes{protocol.frame_head, 1}));
    QCOMPARE(io.analyzeV4(frame.data(), protocol), int(FRAME_BAD));
}

QTEST_APPLESS_MAIN(TestFrameSum)
#include "tst_framesum.moc"
