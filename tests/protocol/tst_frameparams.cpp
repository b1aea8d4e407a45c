#include "frameversions.h"

#include <cstring>

/// The parameters on their way into a frame and out of the record.
class TestFrameParams : public QObject {
    Q_OBJECT

private slots:
    void parameterBlockIsCopiedWhole_data() { versions(); }
    void parameterBlockIsCopiedWhole();
    void parameterBlockReturnsTheStatusAsItIs();
    void parameterBlockGoesWhereTheDescriptorSays();

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

void TestFrameParams::parameterBlockIsCopiedWhole()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        MachineParam param;
        for (std::size_t i = 0; i < sizeof param.bytes; ++i)
            param.bytes[i] = static_cast<std::uint8_t>(200 - i);
        // Ends with the block: neither sum nor foot has a place to be written to.
        Bytes buffer(static_cast<std::size_t>(v.layout.params) + 42, 0x11);
        const MessageCapture messages;
        io.setMachineParam(param, buffer.data(), v.protocol(io));
        QCOMPARE(messages.messages(),
                 QStringList{
                     QStringLiteral("protocolData.param_offset+37: %1").arg(v.checkedParamOffset)});
        QCOMPARE(textOf(buffer), QByteArray(v.layout.params, '\x11') + bytesOf(param.bytes));
    });
}

void TestFrameParams::parameterBlockReturnsTheStatusAsItIs()
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

void TestFrameParams::parameterBlockGoesWhereTheDescriptorSays()
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

void TestFrameParams::sourceHasTheRecordsLength()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        for (const int length : {v.layout.shortest, 77, v.layout.longest}) {
            QCOMPARE(analyze(v, io, randomFrame(length, 12)), int(FRAME_OK));
            // Not the analysed bytes: those that are handed over.
            Bytes src = exact(counting(1, length));
            Bytes dst(static_cast<std::size_t>(length), 0);
            QCOMPARE(v.source(io, dst.data(), src.data()), unsigned(length));
            QCOMPARE(dst, src);
        }
        // The length of a frame with a wrong sum counts; a bad frame changes nothing.
        Bytes src(60, 0x33);
        Bytes dst(60, 0);
        QCOMPARE(analyze(v, io, with(plainFrame(v.layout, 60), 58, 1)), int(FRAME_SUM_BAD));
        QCOMPARE(v.source(io, dst.data(), src.data()), 60U);
        QCOMPARE(analyze(v, io, with(plainFrame(v.layout, 80), 0, 1)), int(FRAME_BAD));
        QCOMPARE(v.source(io, dst.data(), src.data()), 60U);
        QCOMPARE(dst, src);
    });
}

void TestFrameParams::parametersAreThoseOfTheRecord()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        for (int length = v.layout.shortest + 1; length <= v.layout.longest; ++length) {
            const QByteArray frame = randomFrame(length, 13);
            QCOMPARE(analyze(v, io, frame), int(FRAME_OK));
            const int count = length - v.layout.shortest;
            Bytes out(static_cast<std::size_t>(count), 0);
            QCOMPARE(v.params(io, out.data(), v.protocol(io)), unsigned(count));
            QCOMPARE(textOf(out), frame.mid(v.layout.params, count));
        }
        // None in the shortest frame.
        QCOMPARE(analyze(v, io, plainFrame(v.layout, v.layout.shortest)), int(FRAME_OK));
        QCOMPARE(v.params(io, nullptr, v.protocol(io)), 0U);
        // The shortest frame is that of the descriptor which is handed over.
        QCOMPARE(analyze(v, io, randomFrame(60, 14)), int(FRAME_OK));
        Protocol protocol = v.protocol(io);
        protocol.frame_min_len = 60;
        QCOMPARE(v.params(io, nullptr, protocol), 0U);
        protocol.frame_min_len = 58;
        Bytes out(2, 0);
        QCOMPARE(v.params(io, out.data(), protocol), 2U);
        QCOMPARE(textOf(out), randomFrame(60, 14).mid(v.layout.params, 2));
    });
}

void TestFrameParams::parametersBehindAWrongSum()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        const QByteArray good = randomFrame(v.layout.shortest + 10, 18);
        QCOMPARE(analyze(v, io, good), int(FRAME_OK));
        const int most = v.layout.longest - v.layout.shortest;
        const QByteArray held = good.mid(v.layout.params, 10) + QByteArray(most - 10, '\0');
        // As many as the refused frame has, but those of the good one.
        for (const int count : {25, 10, 3, 0}) {
            const int length = v.layout.shortest + count;
            QByteArray refused = randomFrame(length, 19);
            refused[length - 2] = static_cast<char>(refused[length - 2] ^ 1);
            QCOMPARE(analyze(v, io, refused), int(FRAME_SUM_BAD));
            Bytes out(static_cast<std::size_t>(most), 0xAA);
            QCOMPARE(v.params(io, out.data(), v.protocol(io)), unsigned(count));
            QCOMPARE(textOf(out), held.left(count) + QByteArray(most - count, '\xAA'));
        }
    });
}

void TestFrameParams::parameterBlockComesBackFromItsFrame()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        const Quiet quiet;
        const int length = v.layout.shortest + 42;
        MachineParam param;
        for (std::size_t i = 0; i < sizeof param.bytes; ++i)
            param.bytes[i] = static_cast<std::uint8_t>(255 - 3 * i);
        Bytes frame(static_cast<std::size_t>(v.layout.longest), 0);
        frame[0] = frame[static_cast<std::size_t>(length - 1)] = 0xE7;
        frame[1] = static_cast<unsigned char>(length);

        io.setMachineParam(param, frame.data(), v.protocol(io));
        QCOMPARE(io.setCrc(frame.data(), v.protocol(io)), int(FRAME_OK));
        QCOMPARE(textOf(frame).left(length), plainFrame(v.layout, length, bytesOf(param.bytes)));
        QCOMPARE(v.analyze(io, frame.data(), v.protocol(io)), int(FRAME_OK));
        Bytes out(sizeof param.bytes, 0);
        QCOMPARE(v.params(io, out.data(), v.protocol(io)), 42U);
        QCOMPARE(textOf(out), bytesOf(param.bytes));
    });
}

void TestFrameParams::shortRecordHasNoParameters()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        Protocol protocol = v.protocol(io);
        QCOMPARE(v.params(io, nullptr, protocol), 0U);
        QCOMPARE(analyze(v, io, randomFrame(60, 15)), int(FRAME_OK));
        for (const int shortest : {61, 62, 255}) {
            protocol.frame_min_len = static_cast<std::uint8_t>(shortest);
            QCOMPARE(v.params(io, nullptr, protocol), 0U);
        }
    });
}

void TestFrameParams::parametersNeverPassTheRecord()
{
    forVersionOfTheRow([](auto v) {
        FileIO io;
        const QByteArray frame = randomFrame(v.layout.longest, 16);
        QCOMPARE(analyze(v, io, frame), int(FRAME_OK));
        const int most = v.layout.longest - v.layout.shortest;
        Protocol protocol = v.protocol(io);
        for (const int shortest : {v.layout.shortest, v.layout.shortest - 1, 1, 0}) {
            protocol.frame_min_len = static_cast<std::uint8_t>(shortest);
            Bytes out(static_cast<std::size_t>(most), 0);
            QCOMPARE(v.params(io, out.data(), protocol), unsigned(most));
            QCOMPARE(textOf(out), frame.mid(v.layout.params, most));
        }
        // Nor does an analysis take more, whatever the descriptor allows.
        FileIO other;
        protocol.frame_max_len = 255;
        protocol.frame_min_len = 3;
        protocol.param_offset = 1;
        QCOMPARE(analyze(v, other, randomFrame(255, 17), protocol), int(FRAME_OK));
        QCOMPARE(bytesOf(v.record(other).params), randomFrame(255, 17).mid(1, most));
        QCOMPARE(v.record(other).foot, std::uint8_t{0xE7});
    });
}

QTEST_APPLESS_MAIN(TestFrameParams)
#include "tst_frameparams.moc"
