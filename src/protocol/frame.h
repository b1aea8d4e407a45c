#ifndef FRAME_H
#define FRAME_H

#include "protocol.h"

// Frames of the machine protocol. Both versions have the same structure; L is the value of the
// length byte, which is the length of the whole frame.
//
//   V3     V4     width    content
//   0      0      1        head, kFrameMark
//   1      1      1        L
//   2      2      1        type
//   3      3      4 / 3    address
//   -      6      4        extension, V4 only
//   7      10     16       block
//   23     26     1        command
//   24     27     2        argument
//   26     29     1        opt1
//   27     30     1        opt2
//   28     31     1        opt3
//   29     32     L - min  parameters, 0 to 80 / 166 bytes
//   L - 2  L - 2  1        checksum: low 8 bits of the sum of bytes 1 to L - 3
//   L - 1  L - 1  1        foot, kFrameMark

/// Sum, modulo 256, of bytes 1 to `length` - 3 of a frame; 0 when there are none. `length` is at
/// most 255.
std::uint8_t frameSum(const std::uint8_t *frame, unsigned length);

/// Whether head, length and foot are right. Reads no more than the length byte promises.
[[nodiscard]] bool isFramed(const std::uint8_t *frame, const Protocol &protocol);

/// Checks the frame and stores it in the version's record. FRAME_BAD leaves the record unchanged.
/// FRAME_SUM_BAD has replaced its head, length and foot. FRAME_OK has replaced everything, except
/// parameter bytes beyond those of the frame. Reads no more than `frame_max_len` bytes.
[[nodiscard]] FrameStatus analyzeFrame(const std::uint8_t *frame, const Protocol &protocol,
                                       FrameRecordV3 &record);
[[nodiscard]] FrameStatus analyzeFrame(const std::uint8_t *frame, const Protocol &protocol,
                                       FrameRecordV4 &record);

/// Length of the parameters in a frame of `length` bytes, at most `capacity`.
unsigned paramLength(unsigned length, const Protocol &protocol, unsigned capacity);

#endif // FRAME_H
