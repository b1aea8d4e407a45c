#ifndef BOARDFRAMES_H
#define BOARDFRAMES_H

#include "protocol.h"

#include <array>
#include <cstddef>
#include <cstdint>

// Command frames for the control board, and their replies.
//
//   offset      width  content
//   0           1      head, kFrameMark
//   1           1      length, head and foot included
//   2           1      0xFF
//   12          1      command code
//   length - 2  1      checksum: low 8 bits of the sum of bytes 1 to length - 3
//   length - 1  1      foot, kFrameMark
//
// All other bytes are 0 unless a frame's rows say otherwise.

/// One byte of a frame.
struct BoardFrameRow {
    std::size_t offset;
    std::uint8_t value;
};

/// A frame of `Length` bytes with the values of `rows`; the other bytes are 0.
template <std::size_t Length, std::size_t Rows>
constexpr std::array<std::uint8_t, Length> boardFrame(const BoardFrameRow (&rows)[Rows])
{
    std::array<std::uint8_t, Length> frame{};
    for (const BoardFrameRow &row : rows)
        frame[row.offset] = row.value;
    return frame;
}

/// Length byte, checksum, head and foot agree with the bytes between them.
template <std::size_t Length>
constexpr bool boardFrameIsSound(const std::array<std::uint8_t, Length> &frame)
{
    unsigned sum = 0;
    for (std::size_t i = 1; i <= Length - 3; ++i)
        sum += frame[i];
    return frame[0] == kFrameMark && frame[1] == Length && frame[Length - 2] == (sum & 0xFFU)
        && frame[Length - 1] == kFrameMark;
}

// clang-format off
constexpr auto kVersionQuery = boardFrame<30>({
    { 0, kFrameMark},  // head
    { 1, 0x1E},  // length
    { 2, 0xFF},
    {12, 0x0F},  // command: version query
    {14, 0x37},  // fixed; meaning defined by the board
    {17, 0x01},  // fixed; meaning defined by the board
    {22, 0x08},  // fixed; meaning defined by the board
    {23, 0x71},  // fixed; meaning defined by the board
    {28, 0xDD},  // checksum
    {29, kFrameMark},  // foot
});

constexpr auto kUpdateStart = boardFrame<18>({
    { 0, kFrameMark},  // head
    { 1, 0x12},  // length
    { 2, 0xFF},
    {12, 0x13},  // command: enter the boot loader and update
    {16, 0x24},  // checksum
    {17, kFrameMark},  // foot
});
// clang-format on
static_assert(boardFrameIsSound(kVersionQuery), "length byte or checksum is wrong");
static_assert(boardFrameIsSound(kUpdateStart), "length byte or checksum is wrong");

constexpr std::size_t kVersionReplySize = 36;
constexpr std::size_t kVersionTextOffset = 16; // text, up to a zero byte or byte 34

/// Most bytes of a reply that `serialIoctl` reads. Shorter replies are normal.
constexpr int kBoardReplySize = 64;

/// Result of the check of the board's reply to kUpdateStart.
enum StartReply : int {
    START_ACCEPTED = 0,
    START_NO_REPLY = -1,
    START_MALFORMED = -2, ///< head, foot or length byte wrong
    START_SUM_BAD = -3,
};

/// Checks the `count` bytes of a reply. A count below 1 or above 128 means that there is no reply;
/// `reply` is not read then.
[[nodiscard]] StartReply judgeStartReply(const std::uint8_t *reply, int count);

#endif // BOARDFRAMES_H
