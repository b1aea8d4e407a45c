#ifndef PLAINLOOPS_H
#define PLAINLOOPS_H

#include <cstdint>

// References for functions of the program. Compiled without vectorising and loop unrolling.

/// The sum of a frame, a byte at a time.
std::uint8_t plainSum(const std::uint8_t *frame, unsigned length);

/// The text-book CRC-16/XMODEM, a bit at a time.
std::uint16_t plainCrc(const std::uint8_t *bytes, unsigned length);

#endif // PLAINLOOPS_H
