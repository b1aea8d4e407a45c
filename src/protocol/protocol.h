#ifndef PROTOCOL_H
#define PROTOCOL_H

#include <cstdint>

// The framed machine protocol, versions V3 and V4. A descriptor holds what differs between the
// versions. The field names are interface and kept as they are.

constexpr std::uint8_t kFrameMark = 0xE7; // head and foot of every frame on the serial line

// The longest frames, in bytes; buffers that hold one are sized by these.
constexpr std::uint8_t kFrameMaxV3 = 111;
constexpr std::uint8_t kFrameMaxV4 = 200;

// Values of `Protocol::version`.
constexpr std::uint8_t kProtocolV3 = 3;
constexpr std::uint8_t kProtocolV4 = 4;

/// Layout of one protocol version: positions and widths in bytes, passed by value.
struct Protocol {
    std::uint8_t version;
    std::uint8_t frame_max_len;
    std::uint8_t frame_min_len; ///< a frame with an empty parameter area
    std::uint8_t param_max_len; ///< frame_max_len - frame_min_len
    std::uint8_t head_offset;
    std::uint8_t head_len;
    std::uint8_t len_offset;
    std::uint8_t len_len;
    std::uint8_t type_offset;
    std::uint8_t type_len;
    std::uint8_t addr_offset;
    std::uint8_t addr_len;
    std::uint8_t ext_offset; ///< V4 only; 0 in V3, which has no extension field
    std::uint8_t ext_len;
    std::uint8_t block_offset;
    std::uint8_t block_len;
    std::uint8_t cmd_offset;
    std::uint8_t cmd_len;
    std::uint8_t arg_offset;
    std::uint8_t arg_len;
    std::uint8_t opt1_offset;
    std::uint8_t opt1_len;
    std::uint8_t opt2_offset;
    std::uint8_t opt2_len;
    std::uint8_t opt3_offset;
    std::uint8_t opt3_len;
    std::uint8_t param_offset;
    std::uint8_t param_len; ///< length of one MachineParam
    std::uint8_t frame_head;
    std::uint8_t frame_foot;
};
static_assert(sizeof(Protocol) == 30, "thirty single bytes, copied whole");

/// The machine's parameter block. The frame code copies it whole and does not examine it.
struct MachineParam {
    std::uint8_t bytes[42];
};
static_assert(sizeof(MachineParam) == 42, "the block is 42 bytes on the wire");

/// Outcome of the last checksum or analysis.
enum FrameStatus : int {
    FRAME_OK = 1,
    FRAME_BAD = -1,     ///< head, length or foot wrong
    FRAME_SUM_BAD = -2, ///< framing good, checksum wrong
};

/// The last V3 frame received.
struct FrameRecordV3 {
    std::uint8_t head;
    std::uint8_t len;
    std::uint8_t type;
    std::uint8_t addr[4];
    std::uint32_t block[4]; ///< little-endian words, those of each pair swapped
    std::uint8_t cmd;
    std::uint16_t arg; ///< the first byte of the argument field only
    std::uint8_t opt1;
    std::uint8_t opt2;
    std::uint8_t opt3;
    std::uint8_t params[80];
    std::uint8_t sum;
    std::uint8_t foot;
};

/// The last V4 frame received.
struct FrameRecordV4 {
    std::uint8_t head;
    std::uint8_t len;
    std::uint8_t type;
    std::uint8_t addr[3];
    std::uint8_t ext[4];
    std::uint32_t block[4]; ///< little-endian words, those of each pair swapped
    std::uint8_t cmd;
    std::uint16_t arg; ///< the first byte of the argument field only
    std::uint8_t opt1;
    std::uint8_t opt2;
    std::uint8_t opt3;
    std::uint8_t params[166];
    std::uint8_t sum;
    std::uint8_t foot;
};

/// What both descriptors start from; `ext_offset` is 0.
Protocol protocolDefaults();

/// Writes the V3 layout. `ext_offset`, `ext_len`, `param_len` and the head and foot values stay.
void layOutV3(Protocol &protocol);

/// Writes the V4 layout. `param_len` and the head and foot values stay.
void layOutV4(Protocol &protocol);

#endif // PROTOCOL_H
