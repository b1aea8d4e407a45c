#include "capture.h"
#include "fileio.h"
#include "frame.h"
#include "plainframe.h"

#include <QtTest>

#include <algorithm>
#include <cstring>
#include <random>

namespace {

struct V3 {
    using Record = FrameRecordV3;
    static constexpr PlainLayout layout = kPlainV3;
    static constexpr int checkedParamOffset = 66;
    static const Protocol &protocol(const FileIO &io) { return io.protocolV3(); }
    static const Record &record(const FileIO &io) { return io.frameRecordV3(); }
    static int analyze(FileIO &io, unsigned char *buf, const Protocol &protocol)
    {
        return io.analyzeV3(buf, protocol);
    }
    static unsigned source(const FileIO &io, unsigned char *dst, unsigned char *src)
    {
        return io.getSourceFrameBufV3(dst, src);
    }
    static unsigned params(const FileIO &io, unsigned char *out, const Protocol &protocol)
    {
        return io.getParamV3(out, protocol);
    }
};

struct V4 {
    using Record = FrameRecordV4;
    static constexpr PlainLayout layout = kPlainV4;
    static constexpr int checkedParamOffset = 69;
    static const Protocol &protocol(const FileIO &io) { return io.protocolV4(); }
    static const Record &record(const FileIO &io) { return io.frameRecordV4(); }
    static int analyze(FileIO &io, unsigned char *buf, const Protocol &protocol)
    {
        return io.analyzeV4(buf, protocol);
    }
    static unsigned source(const FileIO &io, unsigned char *dst, unsigned char *src)
    {
        return io.getSourceFrameBufV4(dst, src);
    }
    static unsigned params(const FileIO &io, unsigned char *out, const Protocol &protocol)
    {
        return io.getParamV4(out, protocol);
    }
};

void versions()
{
    QTest::addColumn<int>("version");
    QTest::newRow("V3") << 3;
    QTest::newRow("V4") << 4;
}

template <typename Check>
void forVersionOfTheRow(Check check)
{
    QFETCH(int, version);
    if (version == 3)
        check(V3{});
    else
        check(V4{});
}

/// Collects the debug lines and drops them: the analysis of V3 prints on every call.
class Quiet {
    MessageCapture m_messages;
};

template <typename V>
int analyze(FileIO &io, const QByteArray &frame, const Protocol &protocol)
{
    const Quiet quiet;
    Bytes bytes = exact(frame);
    const int result = V::analyze(io, bytes.data(), protocol);
    if (textOf(bytes) != frame)
        qFatal("the analysis writes to the frame");
    return result;
}

template <typename V>
int analyze(FileIO &io, const QByteArray &frame)
{
    return analyze<V>(io, frame, V::protocol(io));
}

/// Random bytes with head, length, foot and sum put right.
QByteArray randomFrame(int length, unsigned seed)
{
    std::mt19937 random(seed);
    QByteArray bytes(length, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random());
    return framed(bytes);
}

template <typename Array>
QByteArray bytesOf(const Array &array)
{
    return {reinterpret_cast<const char *>(array), static_cast<int>(sizeof array)};
}

template <typename Record>
bool sameRecords(const Record &a, const Record &b)
{
    bool same = a.head == b.head && a.len == b.len && a.type == b.type
        && bytesOf(a.addr) == bytesOf(b.addr) && bytesOf(a.block) == bytesOf(b.block)
        && a.cmd == b.cmd && a.arg == b.arg && a.opt1 == b.opt1 && a.opt2 == b.opt2
        && a.opt3 == b.opt3 && bytesOf(a.params) == bytesOf(b.params) && a.sum == b.sum
        && a.foot == b.foot;
    if constexpr (std::is_same_v<Record, FrameRecordV4>)
        same = same && bytesOf(a.ext) == bytesOf(b.ext);
    return same;
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

QByteArray with(QByteArray bytes, int position, int value)
{
    bytes[position] = static_cast<char>(value);
    return bytes;
}

} // namespace

class TestFrames : public QObject {
    Q_OBJECT

private slots:
    void sumEqualsThePlainSumForEveryLength_data();
    void sumEqualsThePlainSumForEveryLength();
    void sumLeavesOutHeadSumAndFoot();
    void orderOfBytesDoesNotChangeTheSum();

    void freshObjectHasNoFrame();

    void parameterBlockIsCopiedWhole_data() { versions(); }
    void parameterBlockIsCopiedWhole();
    void parameterBlockReturnsTheStatusAsItIs();
    void parameterBlockGoesWhereTheDescriptorSays();

    void crcIsTheOnlyByteWritten_data() { versions(); }
    void crcIsTheOnlyByteWritten();
    void crcOfTheShortestFrame();
    void crcRefusesBadFraming_data();
    void crcRefusesBadFraming();
    void crcFollowsTheDescriptor();
    void frameWithoutRoomForItsSumIsBad();

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

    void v3PrintsSixLines_data();
    void v3PrintsSixLines();
    void v3PrintsTheDescriptorsValues();
    void v4PrintsNothing();

    void sourceHasTheRecordsLength_data() { versions(); }
    void sourceHasTheRecordsLength();
    void parametersAreThoseOfTheRecord_data() { versions(); }
    void parametersAreThoseOfTheRecord();
    void parametersBehindAWrongSum_data() { versions(); }
    void parametersBehindAWrongSum();
    void parameterBlockComesBackFromItsFrame_data() { versions(); }
    void parameterBlockComesBackFromItsFrame();
    void shortRecordHasNoParameters_data() { versions(); }
    void shortRecordHasNoParameters();
    void parametersNeverPassTheRecord_data() { versions(); }
    void parametersNeverPassTheRecord();
};

void TestFrames::sumEqualsThePlainSumForEveryLength_data()
{
    QTest::addColumn<int>("pattern");
    QTest::newRow("random") << -1;
    QTest::newRow("all 00") << 0x00;
    QTest::newRow("all 01") << 0x01;
    QTest::newRow("all 7F") << 0x7F;
    QTest::newRow("all 80") << 0x80;
    QTest::newRow("all FF") << 0xFF;
}

void TestFrames::sumEqualsThePlainSumForEveryLength()
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

void TestFrames::sumLeavesOutHeadSumAndFoot()
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

void TestFrames::orderOfBytesDoesNotChangeTheSum()
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

void TestFrames::freshObjectHasNoFrame()
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

void TestFrames::parameterBlockIsCopiedWhole()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        MachineParam param;
        for (std::size_t i = 0; i < sizeof param.bytes; ++i)
            param.bytes[i] = static_cast<std::uint8_t>(200 - i);
        // Ends with the block: neither sum nor foot has a place to be written to.
        Bytes buffer(static_cast<std::size_t>(V::layout.params) + 42, 0x11);
        const MessageCapture messages;
        io.setMachineParam(param, buffer.data(), V::protocol(io));
        QCOMPARE(
            messages.messages(),
            QStringList{
                QStringLiteral("protocolData.param_offset+37: %1").arg(V::checkedParamOffset)});
        QCOMPARE(textOf(buffer), QByteArray(V::layout.params, '\x11') + bytesOf(param.bytes));
    });
}

void TestFrames::parameterBlockReturnsTheStatusAsItIs()
{
    FileIO io;
    const Quiet quiet;
    Bytes frame = exact(plainFrame(kPlainV3, 73));
    QCOMPARE(io.setMachineParam({}, frame.data(), io.protocolV3()), 0);
    QCOMPARE(io.setCrc(frame.data(), io.protocolV3()), int(FRAME_OK));
    QCOMPARE(io.setMachineParam({}, frame.data(), io.protocolV3()), int(FRAME_OK));
    frame[71] ^= 1;
    QCOMPARE(io.analyzeV3(frame.data(), io.protocolV3()), int(FRAME_SUM_BAD));
    QCOMPARE(io.setMachineParam({}, frame.data(), io.protocolV3()), int(FRAME_SUM_BAD));
    frame[72] = 0;
    QCOMPARE(io.setCrc(frame.data(), io.protocolV3()), int(FRAME_BAD));
    QCOMPARE(io.setMachineParam({}, frame.data(), io.protocolV3()), int(FRAME_BAD));
    QCOMPARE(io.frameStatus(), int(FRAME_BAD));
}

void TestFrames::parameterBlockGoesWhereTheDescriptorSays()
{
    FileIO io;
    Protocol protocol = io.protocolV4();
    protocol.param_offset = 3;
    protocol.param_len = 1; // the block has its own size
    MachineParam param;
    std::memset(param.bytes, 0x22, sizeof param.bytes);
    Bytes buffer(60, 0x11);
    const MessageCapture messages;
    io.setMachineParam(param, buffer.data(), protocol);
    QCOMPARE(textOf(buffer),
             QByteArray(3, '\x11') + QByteArray(42, '\x22') + QByteArray(15, '\x11'));
    QCOMPARE(messages.messages(), QStringList{QStringLiteral("protocolData.param_offset+37: 40")});
}

void TestFrames::crcIsTheOnlyByteWritten()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        for (int length = V::layout.shortest; length <= 255; ++length) {
            const QByteArray right = randomFrame(length, static_cast<unsigned>(length));
            Bytes frame = exact(with(right, length - 2, right[length - 2] + 1));
            QCOMPARE(io.setCrc(frame.data(), V::protocol(io)), int(FRAME_OK));
            QCOMPARE(io.frameStatus(), int(FRAME_OK));
            QCOMPARE(textOf(frame), right);
        }
    });
}

void TestFrames::crcOfTheShortestFrame()
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

void TestFrames::crcRefusesBadFraming_data()
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

void TestFrames::crcRefusesBadFraming()
{
    QFETCH(QByteArray, frame);

    forVersionOfTheRow([&frame](auto version) {
        using V = decltype(version);
        FileIO io;
        Bytes good = exact(plainFrame(V::layout, V::layout.shortest));
        QCOMPARE(io.setCrc(good.data(), V::protocol(io)), int(FRAME_OK));
        Bytes bytes = exact(frame);
        QCOMPARE(io.setCrc(bytes.data(), V::protocol(io)), int(FRAME_BAD));
        QCOMPARE(io.frameStatus(), int(FRAME_BAD));
        QCOMPARE(textOf(bytes), frame);
        QVERIFY(sameRecords(V::record(io), typename V::Record{}));
    });
}

void TestFrames::crcFollowsTheDescriptor()
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

void TestFrames::frameWithoutRoomForItsSumIsBad()
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

namespace {

/// Every byte holds its own position, but for head, length, sum and foot.
QByteArray countingFrame(int length)
{
    QByteArray bytes(length, '\0');
    for (int i = 0; i < length; ++i)
        bytes[i] = static_cast<char>(i);
    return framed(bytes);
}

QByteArray counting(int from, int count)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i)
        bytes.append(static_cast<char>(from + i));
    return bytes;
}

} // namespace

void TestFrames::headerFieldsOfV3()
{
    FileIO io;
    const QByteArray frame = countingFrame(111);
    QCOMPARE(analyze<V3>(io, frame), int(FRAME_OK));
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

void TestFrames::headerFieldsOfV4()
{
    FileIO io;
    const QByteArray frame = countingFrame(200);
    QCOMPARE(analyze<V4>(io, frame), int(FRAME_OK));
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

void TestFrames::everyLengthIsTakenWhole()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        for (int length = V::layout.shortest; length <= V::layout.longest; ++length) {
            FileIO io;
            const QByteArray frame = randomFrame(length, static_cast<unsigned>(length));
            QCOMPARE(analyze<V>(io, frame), int(FRAME_OK));
            const typename V::Record &record = V::record(io);
            const int count = length - V::layout.shortest;
            QCOMPARE(int(record.len), length);
            QCOMPARE(record.sum, static_cast<std::uint8_t>(frame[length - 2]));
            QCOMPARE(bytesOf(record.params),
                     frame.mid(V::layout.params, count)
                         + QByteArray(int(sizeof record.params) - count, '\0'));
        }
    });
}

void TestFrames::blockWordsOfEachPairAreSwapped()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        QByteArray frame = plainFrame(V::layout, V::layout.shortest);
        frame.replace(V::protocol(io).block_offset, 16, counting(0, 16));
        QCOMPARE(analyze<V>(io, framed(frame)), int(FRAME_OK));
        const auto &block = V::record(io).block;
        QCOMPARE(block[0], 0x07060504U);
        QCOMPARE(block[1], 0x03020100U);
        QCOMPARE(block[2], 0x0F0E0D0CU);
        QCOMPARE(block[3], 0x0B0A0908U);
    });
}

void TestFrames::onlyTheFirstArgumentByteIsKept()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        QByteArray frame = plainFrame(V::layout, V::layout.shortest);
        frame.replace(V::layout.arg, 2, QByteArray("\xFE\xFF"));
        QCOMPARE(analyze<V>(io, framed(frame)), int(FRAME_OK));
        QCOMPARE(V::record(io).arg, std::uint16_t{0x00FE});
    });
}

void TestFrames::analysisFollowsTheDescriptor()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        // Nothing stands where either version has it.
        Protocol protocol = V::protocol(io);
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
        QCOMPARE(analyze<V>(io, frame, protocol), int(FRAME_OK));
        const typename V::Record &record = V::record(io);
        QCOMPARE(record.head, std::uint8_t{0xA1});
        QCOMPARE(record.foot, std::uint8_t{0xB2});
        QCOMPARE(record.len, std::uint8_t{60});
        QCOMPARE(record.type, std::uint8_t{7});
        QCOMPARE(bytesOf(record.addr), counting(2, sizeof record.addr));
        if constexpr (std::is_same_v<V, V4>)
            QCOMPARE(bytesOf(record.ext), counting(32, 4));
        QCOMPARE(record.block[1], 0x13121110U);
        QCOMPARE(record.cmd, std::uint8_t{15});
        QCOMPARE(record.arg, std::uint16_t{13});
        QCOMPARE(record.opt1, std::uint8_t{12});
        QCOMPARE(record.opt2, std::uint8_t{11});
        QCOMPARE(record.opt3, std::uint8_t{10});
        QCOMPARE(bytesOf(record.params).left(21), counting(38, 20) + QByteArray(1, '\0'));

        // The shortest and the longest length are the descriptor's too.
        QCOMPARE(analyze<V>(io, with(frame, 9, 39), protocol), int(FRAME_BAD));
        QCOMPARE(analyze<V>(io, with(frame, 9, 91), protocol), int(FRAME_BAD));
    });
}

void TestFrames::widthsOfTheDescriptorAreNotConsulted()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        const QByteArray frame = randomFrame(V::layout.longest, 11);
        FileIO io;
        QCOMPARE(analyze<V>(io, frame), int(FRAME_OK));
        for (const int width : {0, 1, 255}) {
            Protocol protocol = V::protocol(io);
            for (std::uint8_t Protocol::*field :
                 {&Protocol::version, &Protocol::param_max_len, &Protocol::head_len,
                  &Protocol::len_len, &Protocol::type_len, &Protocol::addr_len, &Protocol::ext_len,
                  &Protocol::block_len, &Protocol::cmd_len, &Protocol::arg_len, &Protocol::opt1_len,
                  &Protocol::opt2_len, &Protocol::opt3_len, &Protocol::param_len})
                protocol.*field = static_cast<std::uint8_t>(width);
            FileIO other;
            QCOMPARE(analyze<V>(other, frame, protocol), int(FRAME_OK));
            QVERIFY(sameRecords(V::record(other), V::record(io)));
        }
    });
}

void TestFrames::recordsOfTheVersionsAreApart()
{
    FileIO io;
    QCOMPARE(analyze<V3>(io, randomFrame(80, 1)), int(FRAME_OK));
    QVERIFY(sameRecords(io.frameRecordV4(), FrameRecordV4{}));
    const FrameRecordV3 v3 = io.frameRecordV3();
    // The status is one for both.
    QCOMPARE(analyze<V4>(io, with(randomFrame(90, 2), 0, 0)), int(FRAME_BAD));
    QCOMPARE(io.frameStatus(), int(FRAME_BAD));
    QCOMPARE(analyze<V4>(io, randomFrame(90, 2)), int(FRAME_OK));
    QVERIFY(sameRecords(io.frameRecordV3(), v3));
    QCOMPARE(io.frameRecordV4().len, std::uint8_t{90});
}

void TestFrames::v4FrameAnalysedAsV3()
{
    FileIO io;
    const QByteArray frame = countingFrame(76);
    QCOMPARE(analyze<V4>(io, frame), int(FRAME_OK));
    QCOMPARE(analyze<V3>(io, frame), int(FRAME_OK));
    QCOMPARE(io.frameRecordV4().cmd, std::uint8_t{26});
    QCOMPARE(io.frameRecordV3().cmd, std::uint8_t{23});
    QCOMPARE(bytesOf(io.frameRecordV3().addr), counting(3, 4));
    QCOMPARE(io.frameRecordV3().opt1, std::uint8_t{26});
    Bytes params(80, 0);
    QCOMPARE(io.getParamV3(params.data(), io.protocolV3()), 45U);
    QCOMPARE(io.getParamV4(params.data(), io.protocolV4()), 42U);
}

void TestFrames::badFramingLeavesTheRecord()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        QCOMPARE(analyze<V>(io, randomFrame(70, 3)), int(FRAME_OK));
        const typename V::Record before = V::record(io);

        const QByteArray other = randomFrame(50, 4);
        const int belowShortest = V::layout.shortest - 1;
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
            QCOMPARE(analyze<V>(io, randomFrame(70, 3)), int(FRAME_OK));
            QCOMPARE(analyze<V>(io, frame), int(FRAME_BAD));
            QCOMPARE(io.frameStatus(), int(FRAME_BAD));
            QVERIFY(sameRecords(V::record(io), before));
        }
    });
}

void TestFrames::nothingIsReadBehindABadLength()
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

void TestFrames::framingIsCheckedBeforeTheSum()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        const QByteArray wrongSum = with(plainFrame(V::layout, 60), 58, 1);
        QCOMPARE(analyze<V>(io, wrongSum), int(FRAME_SUM_BAD));
        QCOMPARE(analyze<V>(io, with(wrongSum, 0, 1)), int(FRAME_BAD));
        QCOMPARE(analyze<V>(io, with(wrongSum, 59, 1)), int(FRAME_BAD));
        QCOMPARE(analyze<V>(io, with(wrongSum, 1, V::layout.shortest - 1)), int(FRAME_BAD));
    });
}

void TestFrames::lengthBeyondTheMaximumIsBad()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        QCOMPARE(analyze<V>(io, randomFrame(70, 5)), int(FRAME_OK));
        const typename V::Record before = V::record(io);
        for (int length = V::layout.longest + 1; length <= 255; ++length) {
            // In a buffer of the longest frame's size, and as a whole frame.
            QByteArray cut(V::layout.longest, '\xE7');
            cut[1] = static_cast<char>(length);
            QCOMPARE(analyze<V>(io, cut), int(FRAME_BAD));
            QCOMPARE(analyze<V>(io, randomFrame(length, 6)), int(FRAME_BAD));
            QCOMPARE(io.frameStatus(), int(FRAME_BAD));
        }
        QVERIFY(sameRecords(V::record(io), before));
    });
}

void TestFrames::wrongSumReplacesHeadLengthAndFoot()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        QCOMPARE(analyze<V>(io, randomFrame(70, 7)), int(FRAME_OK));
        typename V::Record expected = V::record(io);

        Protocol protocol = V::protocol(io);
        protocol.frame_head = 0xA1;
        protocol.frame_foot = 0xB2;
        QByteArray bad = randomFrame(90, 8);
        bad[0] = '\xA1';
        bad[88] = static_cast<char>(bad[88] ^ 1);
        bad[89] = '\xB2';
        QCOMPARE(analyze<V>(io, bad, protocol), int(FRAME_SUM_BAD));
        QCOMPARE(io.frameStatus(), int(FRAME_SUM_BAD));
        expected.head = 0xA1;
        expected.len = 90;
        expected.foot = 0xB2;
        QVERIFY(sameRecords(V::record(io), expected));
    });
}

void TestFrames::everyWrongSumIsRefused()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        const QByteArray frame = randomFrame(70, 9);
        const int right = static_cast<unsigned char>(frame[68]);
        for (int sum = 0; sum < 256; ++sum)
            QCOMPARE(analyze<V>(io, with(frame, 68, sum)),
                     int(sum == right ? FRAME_OK : FRAME_SUM_BAD));
    });
}

void TestFrames::shorterFrameKeepsOldParameters()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        const QByteArray longest = randomFrame(V::layout.longest, 10);
        const QByteArray shorter = randomFrame(V::layout.shortest + 5, 11);
        QCOMPARE(analyze<V>(io, longest), int(FRAME_OK));
        QCOMPARE(analyze<V>(io, shorter), int(FRAME_OK));
        const typename V::Record &record = V::record(io);
        QCOMPARE(bytesOf(record.params),
                 shorter.mid(V::layout.params, 5)
                     + longest.mid(V::layout.params + 5, int(sizeof record.params) - 5));
        QCOMPARE(int(record.len), V::layout.shortest + 5);
        // One without parameters leaves them all.
        QCOMPARE(analyze<V>(io, plainFrame(V::layout, V::layout.shortest)), int(FRAME_OK));
        QCOMPARE(bytesOf(record.params).left(5), shorter.mid(V::layout.params, 5));
    });
}

void TestFrames::v3PrintsSixLines_data()
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

void TestFrames::v3PrintsSixLines()
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

void TestFrames::v3PrintsTheDescriptorsValues()
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

void TestFrames::v4PrintsNothing()
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

void TestFrames::sourceHasTheRecordsLength()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        for (const int length : {V::layout.shortest, 77, V::layout.longest}) {
            QCOMPARE(analyze<V>(io, randomFrame(length, 12)), int(FRAME_OK));
            // Not the analysed bytes: those that are handed over.
            Bytes src = exact(counting(1, length));
            Bytes dst(static_cast<std::size_t>(length), 0);
            QCOMPARE(V::source(io, dst.data(), src.data()), unsigned(length));
            QCOMPARE(dst, src);
        }
        // The length of a frame with a wrong sum counts; a bad frame changes nothing.
        Bytes src(60, 0x33);
        Bytes dst(60, 0);
        QCOMPARE(analyze<V>(io, with(plainFrame(V::layout, 60), 58, 1)), int(FRAME_SUM_BAD));
        QCOMPARE(V::source(io, dst.data(), src.data()), 60U);
        QCOMPARE(analyze<V>(io, with(plainFrame(V::layout, 80), 0, 1)), int(FRAME_BAD));
        QCOMPARE(V::source(io, dst.data(), src.data()), 60U);
        QCOMPARE(dst, src);
    });
}

void TestFrames::parametersAreThoseOfTheRecord()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        for (int length = V::layout.shortest + 1; length <= V::layout.longest; ++length) {
            const QByteArray frame = randomFrame(length, 13);
            QCOMPARE(analyze<V>(io, frame), int(FRAME_OK));
            const int count = length - V::layout.shortest;
            Bytes out(static_cast<std::size_t>(count), 0);
            QCOMPARE(V::params(io, out.data(), V::protocol(io)), unsigned(count));
            QCOMPARE(textOf(out), frame.mid(V::layout.params, count));
        }
        // None in the shortest frame.
        QCOMPARE(analyze<V>(io, plainFrame(V::layout, V::layout.shortest)), int(FRAME_OK));
        QCOMPARE(V::params(io, nullptr, V::protocol(io)), 0U);
        // The shortest frame is that of the descriptor which is handed over.
        QCOMPARE(analyze<V>(io, randomFrame(60, 14)), int(FRAME_OK));
        Protocol protocol = V::protocol(io);
        protocol.frame_min_len = 60;
        QCOMPARE(V::params(io, nullptr, protocol), 0U);
        protocol.frame_min_len = 58;
        Bytes out(2, 0);
        QCOMPARE(V::params(io, out.data(), protocol), 2U);
        QCOMPARE(textOf(out), randomFrame(60, 14).mid(V::layout.params, 2));
    });
}

void TestFrames::parametersBehindAWrongSum()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        const QByteArray good = randomFrame(V::layout.shortest + 10, 18);
        QCOMPARE(analyze<V>(io, good), int(FRAME_OK));
        const int most = V::layout.longest - V::layout.shortest;
        const QByteArray held = good.mid(V::layout.params, 10) + QByteArray(most - 10, '\0');
        // As many as the refused frame has, but those of the good one.
        for (const int count : {25, 10, 3, 0}) {
            const int length = V::layout.shortest + count;
            QByteArray refused = randomFrame(length, 19);
            refused[length - 2] = static_cast<char>(refused[length - 2] ^ 1);
            QCOMPARE(analyze<V>(io, refused), int(FRAME_SUM_BAD));
            Bytes out(static_cast<std::size_t>(most), 0xAA);
            QCOMPARE(V::params(io, out.data(), V::protocol(io)), unsigned(count));
            QCOMPARE(textOf(out), held.left(count) + QByteArray(most - count, '\xAA'));
        }
    });
}

void TestFrames::parameterBlockComesBackFromItsFrame()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        const Quiet quiet;
        const int length = V::layout.shortest + 42;
        MachineParam param;
        for (std::size_t i = 0; i < sizeof param.bytes; ++i)
            param.bytes[i] = static_cast<std::uint8_t>(255 - 3 * i);
        Bytes frame(static_cast<std::size_t>(V::layout.longest), 0);
        frame[0] = frame[static_cast<std::size_t>(length - 1)] = 0xE7;
        frame[1] = static_cast<unsigned char>(length);

        io.setMachineParam(param, frame.data(), V::protocol(io));
        QCOMPARE(io.setCrc(frame.data(), V::protocol(io)), int(FRAME_OK));
        QCOMPARE(textOf(frame).left(length), plainFrame(V::layout, length, bytesOf(param.bytes)));
        QCOMPARE(V::analyze(io, frame.data(), V::protocol(io)), int(FRAME_OK));
        Bytes out(sizeof param.bytes, 0);
        QCOMPARE(V::params(io, out.data(), V::protocol(io)), 42U);
        QCOMPARE(textOf(out), bytesOf(param.bytes));
    });
}

void TestFrames::shortRecordHasNoParameters()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        Protocol protocol = V::protocol(io);
        QCOMPARE(V::params(io, nullptr, protocol), 0U);
        QCOMPARE(analyze<V>(io, randomFrame(60, 15)), int(FRAME_OK));
        for (const int shortest : {61, 62, 255}) {
            protocol.frame_min_len = static_cast<std::uint8_t>(shortest);
            QCOMPARE(V::params(io, nullptr, protocol), 0U);
        }
    });
}

void TestFrames::parametersNeverPassTheRecord()
{
    forVersionOfTheRow([](auto version) {
        using V = decltype(version);
        FileIO io;
        const QByteArray frame = randomFrame(V::layout.longest, 16);
        QCOMPARE(analyze<V>(io, frame), int(FRAME_OK));
        const int most = V::layout.longest - V::layout.shortest;
        Protocol protocol = V::protocol(io);
        for (const int shortest : {V::layout.shortest, V::layout.shortest - 1, 1, 0}) {
            protocol.frame_min_len = static_cast<std::uint8_t>(shortest);
            Bytes out(static_cast<std::size_t>(most), 0);
            QCOMPARE(V::params(io, out.data(), protocol), unsigned(most));
            QCOMPARE(textOf(out), frame.mid(V::layout.params, most));
        }
        // Nor does an analysis take more, whatever the descriptor allows.
        FileIO other;
        protocol.frame_max_len = 255;
        protocol.frame_min_len = 3;
        protocol.param_offset = 1;
        QCOMPARE(analyze<V>(other, randomFrame(255, 17), protocol), int(FRAME_OK));
        QCOMPARE(bytesOf(V::record(other).params), randomFrame(255, 17).mid(1, most));
        QCOMPARE(V::record(other).foot, std::uint8_t{0xE7});
    });
}

QTEST_APPLESS_MAIN(TestFrames)
#include "tst_frames.moc"
