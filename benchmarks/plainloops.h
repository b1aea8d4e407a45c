#ifndef PLAINLOOPS_H
#define PLAINLOOPS_H

#include <cstdint>

// References for functions of the program. Compiled without vectorisation and loop unrolling.

/// The checksum of a frame of `length` bytes, one byte at a time.
std::uint8_t plainSum(const std::uint8_t *frame, unsigned length);

/// CRC-16/XMODEM, one bit at a time.
std::uint16_t plainCrc(const std::uint8_t *bytes, unsigned length);

#endif // PLAINLOOPS_H
