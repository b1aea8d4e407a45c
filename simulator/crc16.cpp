#include "crc16.h"

#include <array>

namespace boardsim {

namespace {

constexpr quint16 kPolynomial = 0x1021;

constexpr std::array<quint16, 256> makeTable()
{
    std::array<quint16, 256> table{};
    for (unsigned byte = 0; byte < table.size(); ++byte) {
        unsigned value = byte << 8;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 0x8000U) != 0 ? (value << 1) ^ kPolynomial : value << 1;
        table[byte] = static_cast<quint16>(value & 0xFFFFU);
    }
    return table;
}

constexpr std::array<quint16, 256> kTable = makeTable();

} // namespace

quint16 crc16(const QByteArray &bytes)
{
    unsigned crc = 0;
    for (const char c : bytes) {
        const unsigned index = (crc >> 8) ^ static_cast<quint8>(c);
        crc = ((crc << 8) ^ kTable[index]) & 0xFFFFU;
    }
    return static_cast<quint16>(crc);
}

} // namespace boardsim
