#include "check.h"
#include "fileio.h"
#include "quiet.h"

#include <algorithm>
#include <cstring>
#include <vector>

// Frames, one after the other. The records are compared with a simple model.
//
//   byte 0        bit 0: record and analysis of V4; bit 1: descriptor of V4; bit 2: checksum first
//   byte 1        n, up to the longest frame
//   n bytes       the frame, in a buffer of the longest frame's size

namespace {

/// The fields of either record that every frame replaces, and its parameters.
struct Model {
    int head = 0;
    int length = 0;
    int foot = 0;
    int type = 0;
    int arg = 0;
    std::vector<std::uint8_t> params;
};

using Frame = std::vector<std::uint8_t>;

int plainSum(const Frame &frame, unsigned length)
{
    int sum = 0;
    for (unsigned i = 1; i + 2 < length; ++i)
        sum += frame[i];
    return sum & 0xFF;
}

bool framed(const Frame &frame, const Protocol &protocol)
{
    const unsigned length = frame[1];
    return frame[0] == 0xE7 && length >= protocol.frame_min_len && length <= frame.size()
        && frame[length - 1] == 0xE7;
}

int analyze(const Frame &frame, const Protocol &protocol, Model &model)
{
    if (!framed(frame, protocol))
        return -1;
    const unsigned length = frame[1];
    model.head = 0xE7;
    model.foot = 0xE7;
    model.length = static_cast<int>(length);
    if (plainSum(frame, length) != frame[length - 2])
        return -2;
    model.type = frame[2];
    model.arg = frame[protocol.arg_offset];
    for (std::size_t i = 0;
         i < std::min<std::size_t>(length - protocol.frame_min_len, model.params.size()); ++i)
        model.params[i] = frame[protocol.param_offset + i];
    return 1;
}

std::size_t paramCount(const Model &model, const Protocol &protocol)
{
    const int count = model.length - protocol.frame_min_len;
    return count < 0 ? 0 : std::min(static_cast<std::size_t>(count), model.params.size());
}

template <typename Record>
void compare(const Record &record, const Model &model)
{
    CHECK(record.head == model.head);
    CHECK(record.len == model.length);
    CHECK(record.foot == model.foot);
    CHECK(record.type == model.type);
    CHECK(record.arg == model.arg);
    CHECK(std::equal(model.params.begin(), model.params.end(), record.params));
}

} // namespace

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    beQuiet();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FileIO io;
    Model v3;
    Model v4;
    v3.params.resize(sizeof(FrameRecordV3::params));
    v4.params.resize(sizeof(FrameRecordV4::params));

    while (size >= 2) {
        const bool asV4 = data[0] & 1;
        const bool crcFirst = data[0] & 4;
        const Protocol protocol = data[0] & 2 ? io.protocolV4() : io.protocolV3();
        const std::size_t count =
            std::min({std::size_t(data[1]), size - 2, std::size_t(protocol.frame_max_len)});
        Frame frame(protocol.frame_max_len, 0);
        std::copy_n(data + 2, count, frame.begin());
        data += 2 + count;
        size -= 2 + count;

        // setCrc() is called only when the buffer holds the whole frame.
        if (crcFirst && frame[1] <= frame.size()) {
            const bool sound = framed(frame, protocol);
            Frame expected = frame;
            if (sound)
                expected[frame[1] - 2U] = static_cast<std::uint8_t>(plainSum(frame, frame[1]));
            CHECK(io.setCrc(frame.data(), protocol) == (sound ? 1 : -1));
            CHECK(frame == expected);
        }

        const int expected = analyze(frame, protocol, asV4 ? v4 : v3);
        const int result =
            asV4 ? io.analyzeV4(frame.data(), protocol) : io.analyzeV3(frame.data(), protocol);
        CHECK(result == expected);
        CHECK(io.frameStatus() == expected);
        compare(io.frameRecordV3(), v3);
        compare(io.frameRecordV4(), v4);

        // The getters, with either descriptor, into buffers of exactly the size that they may fill.
        for (const Protocol &descriptor : {io.protocolV3(), io.protocolV4()}) {
            Frame params(v3.params.size());
            CHECK(io.getParamV3(params.data(), descriptor) == paramCount(v3, descriptor));
            params = Frame(v4.params.size());
            CHECK(io.getParamV4(params.data(), descriptor) == paramCount(v4, descriptor));
        }
        Frame copy(static_cast<std::size_t>(v3.length));
        std::vector<std::uint8_t> source(255, 1);
        CHECK(int(io.getSourceFrameBufV3(copy.data(), source.data())) == v3.length);
        copy = Frame(static_cast<std::size_t>(v4.length));
        CHECK(int(io.getSourceFrameBufV4(copy.data(), source.data())) == v4.length);
    }
    return 0;
}
