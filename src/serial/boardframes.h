#ifndef BOARDFRAMES_H
#define BOARDFRAMES_H

#include <array>
#include <cstddef>
#include <cstdint>

// Command frames for the control board, and what its answers look like.
//
//   offset      width  content
//   0           1      0xE7, head
//   1           1      length, head and foot included
//   2           1      0xFF
//   12          1      command code
//   length - 2  1      checksum: low 8 bits of the sum of bytes 1 to length - 3
//   length - 1  1      0xE7, foot
//
// All other bytes are 0 unless a frame's rows say otherwise.

constexpr std::uint8_t kBoardFrameMark = 0xE7; // head and foot

struct BoardFrameRow {
    std::size_t offset;
    std::uint8_t value;
};

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
    return frame[0] == kBoardFrameMark && frame[1] == Length && frame[Length - 2] == (sum & 0xFFU)
        && frame[Length - 1] == kBoardFrameMark;
}

// clang-format off
constexpr auto kVersionQuery = boardFrame<30>({
    { 0, 0xE7},  // head
    { 1, 0x1E},  // length
    { 2, 0xFF},
    {12, 0x0F},  // command: version query
    {14, 0x37},  // unknown, sent as is
    {17, 0x01},  // unknown, sent as is
    {22, 0x08},  // unknown, sent as is
    {23, 0x71},  // unknown, sent as is
    {28, 0xDD},  // checksum
    {29, 0xE7},  // foot
});

constexpr auto kUpdateStart = boardFrame<18>({
    { 0, 0xE7},  // head
    { 1, 0x12},  // length
    { 2, 0xFF},
    {12, 0x13},  // command: enter the boot loader and update
    {16, 0x24},  // checksum
    {17, 0xE7},  // foot
});
// clang-format on
static_assert(boardFrameIsSound(kVersionQuery), "length byte or checksum is off");
static_assert(boardFrameIsSound(kUpdateStart), "length byte or checksum is off");

constexpr std::size_t kVersionReplySize = 36;
constexpr std::size_t kVersionTextOffset = 16; // ASCII, to a zero byte or to the last byte but one

/// Room for an answer that `serialIoctl` reads; a shorter one is normal.
constexpr int kBoardReplySize = 64;

#endif // BOARDFRAMES_H
