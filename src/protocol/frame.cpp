#include "frame.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace {

constexpr unsigned kSumStart = 1; // the byte after the head
constexpr unsigned kTail = 2;     // checksum and foot
constexpr std::uint64_t kEveryOtherByte = 0x00FF00FF00FF00FF;
constexpr std::uint64_t kAllIntoTheTop = 0x0001000100010001;

// Deliberate: the words of each pair are swapped. Reading them in order looks right, but callers
// rely on this order. (tst_frameanalysis::blockWordsOfEachPairAreSwapped)
void recordBlock(const std::uint8_t *block, std::uint32_t (&words)[4])
{
    words[0] = qFromLittleEndian<std::uint32_t>(block + 4);
    words[1] = qFromLittleEndian<std::uint32_t>(block);
    words[2] = qFromLittleEndian<std::uint32_t>(block + 12);
    words[3] = qFromLittleEndian<std::uint32_t>(block + 8);
}

template <typename Record>
FrameStatus analyze(const std::uint8_t *frame, const Protocol &protocol, Record &record)
{
    const unsigned length = frame[protocol.len_offset];
    if (length > protocol.frame_max_len || !isFramed(frame, protocol))
        return FRAME_BAD;
    record.head = protocol.frame_head;
    record.foot = protocol.frame_foot;
    record.len = frame[protocol.len_offset];
    const std::uint8_t sum = frameSum(frame, length);
    if (sum != frame[length - 2])
        return FRAME_SUM_BAD;

    record.sum = sum;
    record.type = frame[protocol.type_offset];
    std::memcpy(record.addr, frame + protocol.addr_offset, sizeof record.addr);
    if constexpr (std::is_same_v<Record, FrameRecordV4>)
        std::memcpy(record.ext, frame + protocol.ext_offset, sizeof record.ext);
    recordBlock(frame + protocol.block_offset, record.block);
    record.cmd = frame[protocol.cmd_offset];
    // Deliberate: the argument's second byte is not kept.
    // (tst_frameanalysis::onlyTheFirstArgumentByteIsKept)
    record.arg = frame[protocol.arg_offset];
    record.opt1 = frame[protocol.opt1_offset];
    record.opt2 = frame[protocol.opt2_offset];
    record.opt3 = frame[protocol.opt3_offset];
    std::memcpy(record.params, frame + protocol.param_offset,
                paramLength(length, protocol, sizeof record.params));
    return FRAME_OK;
}

} // namespace

std::uint8_t frameSum(const std::uint8_t *frame, unsigned length)
{
    if (length < kSumStart + kTail)
        return 0;
    const std::uint8_t *byte = frame + kSumStart;
    const std::uint8_t *const end = frame + length - kTail;

    // Eight bytes at a time. Every other byte goes into four sums of 16 bits, which the bytes of a
    // frame are too few to overflow. The other bytes are the rest of the sum of all words; what
    // that loses at its top is above the eight bits of the checksum.
    std::uint64_t all = 0;
    std::uint64_t everyOther = 0;
    std::uint64_t word = 0;
    const std::uint8_t *const rest = end - (length - kSumStart - kTail) % sizeof word;
    for (; byte != rest; byte += sizeof word) {
        std::memcpy(&word, byte, sizeof word);
        all += word;
        everyOther += word & kEveryOtherByte;
    }
    const std::uint64_t others = (all - everyOther) >> 8;
    auto sum = static_cast<unsigned>((everyOther * kAllIntoTheTop >> 48)
                                     + (others * kAllIntoTheTop >> 48));
    for (; byte < end; ++byte)
        sum += *byte;
    return static_cast<std::uint8_t>(sum);
}

bool isFramed(const std::uint8_t *frame, const Protocol &protocol)
{
    const unsigned length = frame[protocol.len_offset];
    return frame[protocol.head_offset] == protocol.frame_head && length >= kTail
        && length >= protocol.frame_min_len && frame[length - 1] == protocol.frame_foot;
}

FrameStatus analyzeFrame(const std::uint8_t *frame, const Protocol &protocol, FrameRecordV3 &record)
{
    return analyze(frame, protocol, record);
}

FrameStatus analyzeFrame(const std::uint8_t *frame, const Protocol &protocol, FrameRecordV4 &record)
{
    return analyze(frame, protocol, record);
}

unsigned paramLength(unsigned length, const Protocol &protocol, unsigned capacity)
{
    return length <= protocol.frame_min_len ? 0
                                            : std::min(length - protocol.frame_min_len, capacity);
}
