#include "plainloops.h"

std::uint8_t plainSum(const std::uint8_t *frame, unsigned length)
{
    unsigned sum = 0;
    for (unsigned i = 1; i + 2 < length; ++i)
        sum += frame[i];
    return static_cast<std::uint8_t>(sum);
}

std::uint16_t plainCrc(const std::uint8_t *bytes, unsigned length)
{
    unsigned crc = 0;
    for (unsigned i = 0; i < length; ++i) {
        crc ^= static_cast<unsigned>(bytes[i]) << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000U) ? (crc << 1) ^ 0x1021U : crc << 1;
    }
    return static_cast<std::uint16_t>(crc);
}
