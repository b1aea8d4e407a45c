#include "handmadeframes.h"

#include <cstdint>
#include <random>

namespace {

// CRC-16/XMODEM, bit by bit.
QByteArray crcOf(const QByteArray &payload)
{
    unsigned crc = 0;
    for (const char c : payload) {
        crc ^= static_cast<unsigned>(static_cast<std::uint8_t>(c)) << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000U) != 0 ? ((crc << 1) ^ 0x1021U) & 0xFFFFU : crc << 1;
    }
    return {QByteArray(1, static_cast<char>(crc >> 8)) + static_cast<char>(crc & 0xFFU)};
}

QByteArray block(char head, int number, const QByteArray &payload)
{
    const auto low = static_cast<char>(number & 0xFF);
    return QByteArray(1, head) + low + static_cast<char>(~low) + payload + crcOf(payload);
}

} // namespace

QByteArray goodVersionQuery()
{
    return QByteArray::fromHex(
        "e71eff000000000000000000 0f00 37 0000 01 00000000 08 71 00000000 dd e7");
}

QByteArray goodStartCommand()
{
    return QByteArray::fromHex("e712ff000000000000000000 13 000000 24 e7");
}

QByteArray shortBlock(int number, const QByteArray &payload)
{
    return block(0x01, number, payload.leftJustified(128, '\0'));
}

QByteArray dataBlock(int number, const QByteArray &payload)
{
    return block(0x02, number, payload.leftJustified(kYModemPayload, 0x1A));
}

QByteArray startFrame(const QByteArray &name, const QByteArray &sizeText)
{
    return shortBlock(0, name + '\0' + sizeText);
}

QByteArray endFrame()
{
    return QByteArray::fromHex("0100ff") + QByteArray(130, '\0');
}

QByteArray eot()
{
    return QByteArray(1, 0x04);
}

QVector<QByteArray> wholeTransfer(const QByteArray &image)
{
    QVector<QByteArray> frames{startFrame("app.bin", QByteArray::number(image.size(), 16))};
    for (int offset = 0; offset <= image.size(); offset += kYModemPayload)
        frames << dataBlock(offset / kYModemPayload + 1, image.mid(offset, kYModemPayload));
    return frames << eot() << endFrame();
}

QByteArray firmwareOfSize(int size)
{
    std::mt19937 random(static_cast<unsigned>(size));
    QByteArray bytes;
    bytes.reserve(size);
    while (bytes.size() < size)
        bytes.append(static_cast<char>(random() & 0xFFU));
    return bytes;
}

QByteArray changed(QByteArray frame, int offset)
{
    frame[offset] = static_cast<char>(frame.at(offset) ^ 0x01);
    return frame;
}

QByteArray changedAndSealed(QByteArray frame, int offset)
{
    const int checksum = frame.size() - 2;
    const int difference = (frame.at(offset) & 0x01) != 0 ? -1 : 1;
    frame[checksum] = static_cast<char>(frame.at(checksum) + difference);
    return changed(frame, offset);
}

unsigned sumOf(const QByteArray &bytes)
{
    unsigned sum = 0;
    for (const char c : bytes)
        sum += static_cast<std::uint8_t>(c);
    return sum;
}
