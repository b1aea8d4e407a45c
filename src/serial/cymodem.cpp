#include "cymodem.h"

#include "paths.h"
#include "serialport.h"
#include "ymodemtransfer.h"

#include <QByteArray>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kHeadSize = 3;
constexpr int kCrcSize = 2;
constexpr int kSmallPayload = 128;
constexpr int kLargePayload = 1024;
constexpr unsigned kSmallFrame = kHeadSize + kSmallPayload + kCrcSize;
constexpr unsigned kLargeFrame = kHeadSize + kLargePayload + kCrcSize;
constexpr int kSizeTextMax = 20; // hexadecimal digits and a zero byte
constexpr std::uint32_t kPolynomial = 0x1021;

using CrcTable = std::array<std::uint16_t, 256>;

/// The CRC of each single byte.
constexpr CrcTable crcTable()
{
    CrcTable table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t value = byte << 8;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 0x8000U) ? (value << 1) ^ kPolynomial : value << 1;
        table[byte] = static_cast<std::uint16_t>(value);
    }
    return table;
}

constexpr CrcTable kCrcTable = crcTable();

} // namespace

std::uint16_t CYModem::UpdateCRC16(std::uint16_t crc, std::uint8_t byte)
{
    std::uint32_t value = crc;
    std::uint32_t message = byte | 0x100U;
    do {
        value <<= 1;
        message <<= 1;
        if (message & 0x100U)
            ++value;
        if (value & 0x10000U)
            value ^= kPolynomial;
    } while (!(message & 0x10000U));
    return static_cast<std::uint16_t>(value);
}

std::uint16_t CYModem::attach_crc(const std::uint8_t *payload, std::uint16_t length, int position)
{
    // The same result as UpdateCRC16() over the payload and two zero bytes (its register takes the
    // message bits in at its low end). Works byte by byte, because the transfer waits for it.
    std::uint16_t crc = 0;
    for (int i = 0; i < length; ++i)
        crc = static_cast<std::uint16_t>(crc << 8 ^ kCrcTable[(crc >> 8) ^ payload[i]]);
    if (position >= 0 && position <= kFrameSize - kCrcSize) {
        m_frame[position] = static_cast<std::uint8_t>(crc >> 8);
        m_frame[position + 1] = static_cast<std::uint8_t>(crc & 0xFF);
    }
    return crc;
}

int CYModem::load_file(QString name)
{
    const QString path = QString::fromLatin1(kFirmwareDir) + name;
    m_file = new QFile(path);
    const QFileInfo info(path);
    m_name = name;
    m_index = 0;
    m_eotSent = false;
    m_size = static_cast<int>(info.size());
    if (m_size < 1)
        return -1;
    static_cast<void>(m_file->open(QIODevice::ReadOnly));
    return m_size;
}

int CYModem::send_start_frame(SerialPort *port)
{
    startFrame(kSoh, 0);
    const QByteArray name = m_name.toUtf8();
    // Deliberate: as many bytes as the name has characters, which cuts a name that is not ASCII.
    // Bytes beyond the payload are overwritten by the CRC or not sent.
    // (tst_cymodem::nameIsCopiedByItsCharacterCount)
    const auto nameSize =
        static_cast<std::size_t>(std::min<qint64>({m_name.size(), name.size(), kSmallPayload}));
    std::memcpy(m_frame + kHeadSize, name.constData(), nameSize);
    // Deliberate: the size goes out in hex. Decimal looks right but the boot loader parses hex.
    // (tst_cymodem::startFrameCarriesTheSizeInHex)
    std::snprintf(reinterpret_cast<char *>(m_frame) + kHeadSize + nameSize + 1, kSizeTextMax, "%x",
                  static_cast<unsigned>(m_size));
    attach_crc(m_frame + kHeadSize, kSmallPayload, kHeadSize + kSmallPayload);
    std::printf("Filename: %s\n", name.constData());
    std::printf("Filesize: %d(%XH)\n", m_size, static_cast<unsigned>(m_size));
    std::printf("[YModem]: send the start package.\n");
    return port->Write(m_frame, kSmallFrame);
}

int CYModem::send_data_frame(SerialPort *port)
{
    if (m_eotSent) {
        static_cast<void>(send_end_frame(port)); // sent again at the next request
        return 0;
    }
    if (!m_file || !m_file->isOpen()) {
        std::printf("[YModem]: send EOT package.\n");
        m_eotSent = true;
        const std::uint8_t eot = kEot;
        return port->Write(&eot, sizeof eot);
    }

    startFrame(kStx, static_cast<std::uint8_t>(m_index));
    std::uint8_t *const payload = m_frame + kHeadSize;
    const auto count =
        static_cast<int>(m_file->read(reinterpret_cast<char *>(payload), kLargePayload));
    if (count < 0) {
        m_file->close();
        return -1;
    }
    // Deliberate: a size that is a multiple of 1024 leaves the file open here, so one more block,
    // all padding, goes out before EOT; the boot loader discards it.
    // (tst_cymodem::wholeBlocksAreFollowedByOneOfPadding)
    if (count < kLargePayload) {
        m_file->close();
        std::memset(payload + count, kPadding, static_cast<std::size_t>(kLargePayload - count));
    }
    attach_crc(payload, kLargePayload, kHeadSize + kLargePayload);
    std::printf("[YModem]: send the data package (%d/%d).\n", static_cast<int>(m_index),
                m_size / kLargePayload + 1);
    return port->Write(m_frame, kLargeFrame);
}

int CYModem::send_end_frame(SerialPort *port)
{
    startFrame(kSoh, 0);
    attach_crc(m_frame + kHeadSize, kSmallPayload, kHeadSize + kSmallPayload);
    std::printf("[YModem]: send the last package.\n");
    return port->Write(m_frame, kSmallFrame);
}

void CYModem::index_added()
{
    ++m_index;
}

void CYModem::startFrame(std::uint8_t mark, std::uint8_t block)
{
    std::memset(m_frame, 0, sizeof m_frame);
    m_frame[0] = mark;
    m_frame[1] = block;
    m_frame[2] = static_cast<std::uint8_t>(~block);
}
