#include "frame.h"
#include "frameversions.h"

/// What an analysis of a malformed frame leaves in the record.
class TestBadFrames : public QObject {
    Q_OBJECT

private slots:
    void badFramingLeavesTheRecord_data() { versions(); }
    void badFramingLeavesTheRecord();
    void nothingIsReadBehindABadLength();
    void framingIsCheckedBeforeTheSum_data() { versions(); }
    void framingIsCheckedBeforeTheSum();
    void lengthBeyondTheMaximumIsBad_data() { versions(); }
    void lengthBeyondTheMaximumIsBad();
    void wrongSumReplacesHeadLengthAndFoot_data() { versions(); }
    void wrongSumReplacesHeadLengthAndFoot();
    void everyWrongSumIsRefused_data() { versions(); }
    void everyWrongSumIsRefused();
    void shorterFrameKeepsOldParameters_data() { versions(); }
    void shorterFrameKeepsOldParameters();
};

void TestBadFrames::badFramingLeavesTheRecord()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        QCOMPARE(analyze(v, io, randomFrame(70, 3)), int(FRAME_OK));
        const auto before = v.record(io);

        const QByteArray other = randomFrame(50, 4);
        const int belowShortest = v.layout.shortest - 1;
        const QByteArray bad[] = {
            with(other, 0, 0xE6),
            with(other, 49, 0xE6),
            with(other, 1, 0),
            with(other, 1, 1),
            with(other, 1, 2),
            // Its foot is right, and so is its sum.
            framed(other.left(belowShortest)),
        };
        for (const QByteArray &frame : bad) {
            // Something to be replaced by the failure.
            QCOMPARE(analyze(v, io, randomFrame(70, 3)), int(FRAME_OK));
            QCOMPARE(analyze(v, io, frame), int(FRAME_BAD));
            QCOMPARE(io.frameStatus(), int(FRAME_BAD));
            QVERIFY(sameRecords(v.record(io), before));
        }
    });
}

void TestBadFrames::nothingIsReadBehindABadLength()
{
    const FileIO io;
    for (const Protocol &protocol : {io.protocolV3(), io.protocolV4()}) {
        // There is no byte at the place of the foot.
        const Bytes wrongHead{0xE6, protocol.frame_min_len};
        QVERIFY(!isFramed(wrongHead.data(), protocol));
        const Bytes tooShort{0xE7, static_cast<unsigned char>(protocol.frame_min_len - 1)};
        QVERIFY(!isFramed(tooShort.data(), protocol));
    }
}

void TestBadFrames::framingIsCheckedBeforeTheSum()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        const QByteArray wrongSum = with(plainFrame(v.layout, 60), 58, 1);
        QCOMPARE(analyze(v, io, wrongSum), int(FRAME_SUM_BAD));
        QCOMPARE(analyze(v, io, with(wrongSum, 0, 1)), int(FRAME_BAD));
        QCOMPARE(analyze(v, io, with(wrongSum, 59, 1)), int(FRAME_BAD));
        QCOMPARE(analyze(v, io, with(wrongSum, 1, v.layout.shortest - 1)), int(FRAME_BAD));
    });
}

void TestBadFrames::lengthBeyondTheMaximumIsBad()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        QCOMPARE(analyze(v, io, randomFrame(70, 5)), int(FRAME_OK));
        const auto before = v.record(io);
        for (int length = v.layout.longest + 1; length <= 255; ++length) {
            // In a buffer of the longest frame's size, and as a whole frame.
            QByteArray cut(v.layout.longest, '\xE7');
            cut[1] = static_cast<char>(length);
            QCOMPARE(analyze(v, io, cut), int(FRAME_BAD));
            QCOMPARE(analyze(v, io, randomFrame(length, 6)), int(FRAME_BAD));
            QCOMPARE(io.frameStatus(), int(FRAME_BAD));
        }
        QVERIFY(sameRecords(v.record(io), before));
    });
}

void TestBadFrames::wrongSumReplacesHeadLengthAndFoot()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        QCOMPARE(analyze(v, io, randomFrame(70, 7)), int(FRAME_OK));
        auto expected = v.record(io);

        Protocol protocol = v.protocol(io);
        protocol.frame_head = 0xA1;
        protocol.frame_foot = 0xB2;
        QByteArray bad = randomFrame(90, 8);
        bad[0] = '\xA1';
        bad[88] = static_cast<char>(bad[88] ^ 1);
        bad[89] = '\xB2';
        QCOMPARE(analyze(v, io, bad, protocol), int(FRAME_SUM_BAD));
        QCOMPARE(io.frameStatus(), int(FRAME_SUM_BAD));
        expected.head = 0xA1;
        expected.len = 90;
        expected.foot = 0xB2;
        QVERIFY(sameRecords(v.record(io), expected));
    });
}

void TestBadFrames::everyWrongSumIsRefused()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        const QByteArray frame = randomFrame(70, 9);
        const int right = static_cast<unsigned char>(frame[68]);
        for (int sum = 0; sum < 256; ++sum)
            QCOMPARE(analyze(v, io, with(frame, 68, sum)),
                     int(sum == right ? FRAME_OK : FRAME_SUM_BAD));
    });
}

void TestBadFrames::shorterFrameKeepsOldParameters()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        const QByteArray longest = randomFrame(v.layout.longest, 10);
        const QByteArray shorter = randomFrame(v.layout.shortest + 5, 11);
        QCOMPARE(analyze(v, io, longest), int(FRAME_OK));
        QCOMPARE(analyze(v, io, shorter), int(FRAME_OK));
        const auto &record = v.record(io);
        QCOMPARE(bytesOf(record.params),
                 shorter.mid(v.layout.params, 5)
                     + longest.mid(v.layout.params + 5, int(sizeof record.params) - 5));
        QCOMPARE(int(record.len), v.layout.shortest + 5);
        // One without parameters leaves them all.
        QCOMPARE(analyze(v, io, plainFrame(v.layout, v.layout.shortest)), int(FRAME_OK));
        QCOMPARE(bytesOf(record.params).left(5), shorter.mid(v.layout.params, 5));
    });
}

QTEST_APPLESS_MAIN(TestBadFrames)
#include "tst_badframes.moc"
