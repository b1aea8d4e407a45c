#include "frameversions.h"

namespace {

/// Every byte holds its own position, but for head, length, sum and foot.
QByteArray countingFrame(int length)
{
    QByteArray bytes(length, '\0');
    for (int i = 0; i < length; ++i)
        bytes[i] = static_cast<char>(i);
    return framed(bytes);
}

QStringList linesOf(int head, int length, int foot)
{
    return {
        QStringLiteral("buf head_offset: %1").arg(head),
        QStringLiteral("protocolData head_offset: 231"),
        QStringLiteral("buf len_offset: %1").arg(length),
        QStringLiteral("protocolData frame_min_len: 31"),
        QStringLiteral("buf buf len_offset: %1").arg(foot),
        QStringLiteral("protocolData frame_foot: 231"),
    };
}

} // namespace

/// What an analysis takes out of a frame, and what it prints.
class TestFrameAnalysis : public QObject {
    Q_OBJECT

private slots:
    void freshObjectHasNoFrame();

    void headerFieldsOfV3();
    void headerFieldsOfV4();
    void everyLengthIsTakenWhole_data() { versions(); }
    void everyLengthIsTakenWhole();
    void blockWordsOfEachPairAreSwapped_data() { versions(); }
    void blockWordsOfEachPairAreSwapped();
    void onlyTheFirstArgumentByteIsKept_data() { versions(); }
    void onlyTheFirstArgumentByteIsKept();
    void analysisFollowsTheDescriptor_data() { versions(); }
    void analysisFollowsTheDescriptor();
    void widthsOfTheDescriptorAreNotConsulted_data() { versions(); }
    void widthsOfTheDescriptorAreNotConsulted();
    void recordsOfTheVersionsAreApart();
    void v4FrameAnalysedAsV3();

    void v3PrintsSixLines_data();
    void v3PrintsSixLines();
    void v3PrintsTheDescriptorsValues();
    void v4PrintsNothing();
};

void TestFrameAnalysis::freshObjectHasNoFrame()
{
    const FileIO io;
    QCOMPARE(io.frameStatus(), 0);
    QVERIFY(sameRecords(io.frameRecordV3(), FrameRecordV3{}));
    QVERIFY(sameRecords(io.frameRecordV4(), FrameRecordV4{}));
    QCOMPARE(io.getSourceFrameBufV3(nullptr, nullptr), 0U);
    QCOMPARE(io.getSourceFrameBufV4(nullptr, nullptr), 0U);
    QCOMPARE(io.getParamV3(nullptr, io.protocolV3()), 0U);
    QCOMPARE(io.getParamV4(nullptr, io.protocolV4()), 0U);
}

void TestFrameAnalysis::headerFieldsOfV3()
{
    FileIO io;
    const QByteArray frame = countingFrame(111);
    QCOMPARE(analyze(V3{}, io, frame), int(FRAME_OK));
    QCOMPARE(io.frameStatus(), int(FRAME_OK));
    const FrameRecordV3 &record = io.frameRecordV3();
    QCOMPARE(record.head, std::uint8_t{0xE7});
    QCOMPARE(record.len, std::uint8_t{111});
    QCOMPARE(record.type, std::uint8_t{2});
    QCOMPARE(bytesOf(record.addr), counting(3, 4));
    QCOMPARE(record.block[0], 0x0E0D0C0BU);
    QCOMPARE(record.block[1], 0x0A090807U);
    QCOMPARE(record.block[2], 0x16151413U);
    QCOMPARE(record.block[3], 0x1211100FU);
    QCOMPARE(record.cmd, std::uint8_t{23});
    QCOMPARE(record.arg, std::uint16_t{24});
    QCOMPARE(record.opt1, std::uint8_t{26});
    QCOMPARE(record.opt2, std::uint8_t{27});
    QCOMPARE(record.opt3, std::uint8_t{28});
    QCOMPARE(bytesOf(record.params), counting(29, 80));
    QCOMPARE(record.sum, plainSum(frame, 111));
    QCOMPARE(record.foot, std::uint8_t{0xE7});
}

void TestFrameAnalysis::headerFieldsOfV4()
{
    FileIO io;
    const QByteArray frame = countingFrame(200);
    QCOMPARE(analyze(V4{}, io, frame), int(FRAME_OK));
    QCOMPARE(io.frameStatus(), int(FRAME_OK));
    const FrameRecordV4 &record = io.frameRecordV4();
    QCOMPARE(record.head, std::uint8_t{0xE7});
    QCOMPARE(record.len, std::uint8_t{200});
    QCOMPARE(record.type, std::uint8_t{2});
    QCOMPARE(bytesOf(record.addr), counting(3, 3));
    QCOMPARE(bytesOf(record.ext), counting(6, 4));
    QCOMPARE(record.block[0], 0x11100F0EU);
    QCOMPARE(record.block[1], 0x0D0C0B0AU);
    QCOMPARE(record.block[2], 0x19181716U);
    QCOMPARE(record.block[3], 0x15141312U);
    QCOMPARE(record.cmd, std::uint8_t{26});
    QCOMPARE(record.arg, std::uint16_t{27});
    QCOMPARE(record.opt1, std::uint8_t{29});
    QCOMPARE(record.opt2, std::uint8_t{30});
    QCOMPARE(record.opt3, std::uint8_t{31});
    QCOMPARE(bytesOf(record.params), counting(32, 166));
    QCOMPARE(record.sum, plainSum(frame, 200));
    QCOMPARE(record.foot, std::uint8_t{0xE7});
}

void TestFrameAnalysis::everyLengthIsTakenWhole()
{
    forVersionOfTheRow([](auto v) {
        for (int length = v.layout.shortest; length <= v.layout.longest; ++length) {
            FileIO io;
            const QByteArray frame = randomFrame(length, static_cast<unsigned>(length));
            QCOMPARE(analyze(v, io, frame), int(FRAME_OK));
            const auto &record = v.record(io);
            const int count = length - v.layout.shortest;
            QCOMPARE(int(record.len), length);
            QCOMPARE(record.sum, static_cast<std::uint8_t>(frame[length - 2]));
            QCOMPARE(bytesOf(record.params),
                     frame.mid(v.layout.params, count)
                         + QByteArray(int(sizeof record.params) - count, '\0'));
        }
    });
}

void TestFrameAnalysis::blockWordsOfEachPairAreSwapped()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        QByteArray frame = plainFrame(v.layout, v.layout.shortest);
        frame.replace(v.protocol(io).block_offset, 16, counting(0, 16));
        QCOMPARE(analyze(v, io, framed(frame)), int(FRAME_OK));
        const auto &block = v.record(io).block;
        QCOMPARE(block[0], 0x07060504U);
        QCOMPARE(block[1], 0x03020100U);
        QCOMPARE(block[2], 0x0F0E0D0CU);
        QCOMPARE(block[3], 0x0B0A0908U);
    });
}

void TestFrameAnalysis::onlyTheFirstArgumentByteIsKept()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        QByteArray frame = plainFrame(v.layout, v.layout.shortest);
        frame.replace(v.layout.arg, 2, QByteArray("\xFE\xFF"));
        QCOMPARE(analyze(v, io, framed(frame)), int(FRAME_OK));
        QCOMPARE(v.record(io).arg, std::uint16_t{0x00FE});
    });
}

void TestFrameAnalysis::analysisFollowsTheDescriptor()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        // Nothing stands where either version has it.
        Protocol protocol = v.protocol(io);
        protocol.frame_head = 0xA1;
        protocol.frame_foot = 0xB2;
        protocol.frame_min_len = 40;
        protocol.frame_max_len = 90;
        protocol.len_offset = 9;
        protocol.head_offset = 8;
        protocol.opt3_offset = 10;
        protocol.opt2_offset = 11;
        protocol.opt1_offset = 12;
        protocol.arg_offset = 13;
        protocol.cmd_offset = 15;
        protocol.block_offset = 16;
        protocol.ext_offset = 32;
        protocol.addr_offset = 2;
        protocol.type_offset = 7;
        protocol.param_offset = 38;

        QByteArray frame = counting(0, 60);
        frame[8] = '\xA1';
        frame[9] = 60;
        frame[58] = static_cast<char>(plainSum(frame, 60));
        frame[59] = '\xB2';
        QCOMPARE(analyze(v, io, frame, protocol), int(FRAME_OK));
        const auto &record = v.record(io);
        QCOMPARE(record.head, std::uint8_t{0xA1});
        QCOMPARE(record.foot, std::uint8_t{0xB2});
        QCOMPARE(record.len, std::uint8_t{60});
        QCOMPARE(record.type, std::uint8_t{7});
        QCOMPARE(bytesOf(record.addr), counting(2, sizeof record.addr));
        if constexpr (std::is_same_v<decltype(v), V4>)
            QCOMPARE(bytesOf(record.ext), counting(32, 4));
        QCOMPARE(record.block[1], 0x13121110U);
        QCOMPARE(record.cmd, std::uint8_t{15});
        QCOMPARE(record.arg, std::uint16_t{13});
        QCOMPARE(record.opt1, std::uint8_t{12});
        QCOMPARE(record.opt2, std::uint8_t{11});
        QCOMPARE(record.opt3, std::uint8_t{10});
        QCOMPARE(bytesOf(record.params).left(21), counting(38, 20) + QByteArray(1, '\0'));

        // The shortest and the longest length are the descriptor's too.
        QCOMPARE(analyze(v, io, with(frame, 9, 39), protocol), int(FRAME_BAD));
        QCOMPARE(analyze(v, io, with(frame, 9, 91), protocol), int(FRAME_BAD));
    });
}

void TestFrameAnalysis::widthsOfTheDescriptorAreNotConsulted()
{
    forVersionOfTheRow([](auto v) {
        const QByteArray frame = randomFrame(v.layout.longest, 11);
        FileIO io;
        QCOMPARE(analyze(v, io, frame), int(FRAME_OK));
        for (const int width : {0, 1, 255}) {
            Protocol protocol = v.protocol(io);
            for (std::uint8_t Protocol::*field :
                 {&Protocol::version, &Protocol::param_max_len, &Protocol::head_len,
                  &Protocol::len_len, &Protocol::type_len, &Protocol::addr_len, &Protocol::ext_len,
                  &Protocol::block_len, &Protocol::cmd_len, &Protocol::arg_len, &Protocol::opt1_len,
                  &Protocol::opt2_len, &Protocol::opt3_len, &Protocol::param_len})
                protocol.*field = static_cast<std::uint8_t>(width);
            FileIO other;
            QCOMPARE(analyze(v, other, frame, protocol), int(FRAME_OK));
            QVERIFY(sameRecords(v.record(other), v.record(io)));
        }
    });
}

void TestFrameAnalysis::recordsOfTheVersionsAreApart()
{
    FileIO io;
    QCOMPARE(analyze(V3{}, io, randomFrame(80, 1)), int(FRAME_OK));
    QVERIFY(sameRecords(io.frameRecordV4(), FrameRecordV4{}));
    const FrameRecordV3 v3 = io.frameRecordV3();
    // The status is one for both.
    QCOMPARE(analyze(V4{}, io, with(randomFrame(90, 2), 0, 0)), int(FRAME_BAD));
    QCOMPARE(io.frameStatus(), int(FRAME_BAD));
    QCOMPARE(analyze(V4{}, io, randomFrame(90, 2)), int(FRAME_OK));
    QVERIFY(sameRecords(io.frameRecordV3(), v3));
    QCOMPARE(io.frameRecordV4().len, std::uint8_t{90});
}

void TestFrameAnalysis::v4FrameAnalysedAsV3()
{
    FileIO io;
    const QByteArray frame = countingFrame(76);
    QCOMPARE(analyze(V4{}, io, frame), int(FRAME_OK));
    QCOMPARE(analyze(V3{}, io, frame), int(FRAME_OK));
    QCOMPARE(io.frameRecordV4().cmd, std::uint8_t{26});
    QCOMPARE(io.frameRecordV3().cmd, std::uint8_t{23});
    QCOMPARE(bytesOf(io.frameRecordV3().addr), counting(3, 4));
    QCOMPARE(io.frameRecordV3().opt1, std::uint8_t{26});
    Bytes params(80, 0);
    QCOMPARE(io.getParamV3(params.data(), io.protocolV3()), 45U);
    QCOMPARE(io.getParamV4(params.data(), io.protocolV4()), 42U);
}

void TestFrameAnalysis::v3PrintsSixLines_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QStringList>("lines");
    const QByteArray good = plainFrame(kPlainV3, 73);
    QTest::newRow("good") << good << linesOf(231, 73, 231);
    QTest::newRow("longest") << plainFrame(kPlainV3, 111) << linesOf(231, 111, 231);
    QTest::newRow("wrong sum") << with(good, 71, 1) << linesOf(231, 73, 231);
    QTest::newRow("wrong head") << with(good, 0, 230) << linesOf(230, 73, 231);
    QTest::newRow("wrong foot") << with(good, 72, 5) << linesOf(231, 73, 5);
    QTest::newRow("too short") << with(good, 1, 30) << linesOf(231, 30, 0);
    QTest::newRow("length 1") << with(good, 1, 1) << linesOf(231, 1, 231);
    QTest::newRow("length 2") << with(good, 1, 2) << linesOf(231, 2, 2);
    QTest::newRow("length 0") << with(good, 1, 0) << linesOf(231, 0, 0);
    // A byte behind the longest frame does not exist either.
    QTest::newRow("length 112") << with(plainFrame(kPlainV3, 111), 1, 112) << linesOf(231, 112, 0);
    QTest::newRow("length 255") << with(plainFrame(kPlainV3, 111), 1, 255) << linesOf(231, 255, 0);
    QTest::newRow("two bytes") << QByteArray(2, '\0') << linesOf(0, 0, 0);
}

void TestFrameAnalysis::v3PrintsSixLines()
{
    QFETCH(QByteArray, frame);
    QFETCH(QStringList, lines);

    FileIO io;
    Bytes bytes = exact(frame);
    const MessageCapture messages;
    static_cast<void>(io.analyzeV3(bytes.data(), io.protocolV3()));
    QCOMPARE(messages.messages(), lines);
    static_cast<void>(io.analyzeV3(bytes.data(), io.protocolV3()));
    QCOMPARE(messages.messages(), lines + lines);
}

void TestFrameAnalysis::v3PrintsTheDescriptorsValues()
{
    FileIO io;
    Protocol protocol = io.protocolV3();
    protocol.head_offset = 2;
    protocol.len_offset = 3;
    protocol.frame_min_len = 40;
    protocol.frame_head = 0xA1;
    protocol.frame_foot = 0xB2;
    Bytes bytes{10, 20, 30, 5, 50};
    const MessageCapture messages;
    static_cast<void>(io.analyzeV3(bytes.data(), protocol));
    const QStringList lines{
        QStringLiteral("buf head_offset: 30"),    QStringLiteral("protocolData head_offset: 161"),
        QStringLiteral("buf len_offset: 5"),      QStringLiteral("protocolData frame_min_len: 40"),
        QStringLiteral("buf buf len_offset: 50"), QStringLiteral("protocolData frame_foot: 178"),
    };
    QCOMPARE(messages.messages(), lines);
}

void TestFrameAnalysis::v4PrintsNothing()
{
    FileIO io;
    const MessageCapture messages;
    DescriptorCapture out(1);
    for (const QByteArray &frame :
         {plainFrame(kPlainV4, 76), with(plainFrame(kPlainV4, 76), 74, 1), QByteArray(2, '\0')}) {
        Bytes bytes = exact(frame);
        static_cast<void>(io.analyzeV4(bytes.data(), io.protocolV4()));
    }
    QCOMPARE(out.take(), QByteArray());
    QCOMPARE(messages.messages(), QStringList());
}

QTEST_APPLESS_MAIN(TestFrameAnalysis)
#include "tst_frameanalysis.moc"
