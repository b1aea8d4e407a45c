#ifndef FRAME_H
#define FRAME_H

#include "protocol.h"

// Frames of the machine protocol. Both versions share one grammar; L is the value of the length
// byte, the whole frame's length.
//
//   V3     V4     width    content
//   0      0      1        head, 0xE7
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
//   L - 1  L - 1  1        foot, 0xE7

/// Sum, modulo 256, of bytes 1 to `length` - 3 of a frame; 0 when there are none. `length` is at
/// most 255.
std::uint8_t frameSum(const std::uint8_t *frame, unsigned length);

/// Whether head, length and foot are right. Reads nothing behind the length byte's promise.
bool isFramed(const std::uint8_t *frame, const Protocol &protocol);

/// Takes head, foot and length of a framed frame into a record of either version.
template <typename Record>
void recordFraming(const std::uint8_t *frame, const Protocol &protocol, Record &record);

/// Takes the rest of a frame whose framing and sum are good into a record of either version.
/// Parameter bytes behind the frame's own keep their values.
template <typename Record>
void recordContent(const std::uint8_t *frame, const Protocol &protocol, Record &record);

/// Length of the parameters in a frame of `length` bytes, at most `capacity`.
unsigned paramLength(unsigned length, const Protocol &protocol, unsigned capacity);

#endif // FRAME_H
