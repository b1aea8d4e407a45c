#include "ymodemframes.h"

#include "crc16.h"

namespace ymodem {

namespace {

QByteArray crcOf(const QByteArray &payload)
{
    const unsigned crc = boardsim::crc16(payload);
    return QByteArray(1, static_cast<char>(crc >> 8)) + static_cast<char>(crc & 0xFFU);
}

} // namespace

const QByteArray kEotFrame("\x04");

QByteArray smallFrame(QByteArray payload)
{
    payload.append(QByteArray(128 - payload.size(), '\0'));
    return QByteArray("\x01\x00\xFF", 3) + payload + crcOf(payload);
}

QByteArray startFrame(const QByteArray &name, const QByteArray &size)
{
    return smallFrame(name + '\0' + size);
}

QByteArray endFrame()
{
    return smallFrame(QByteArray());
}

QByteArray dataFrame(int block, QByteArray payload)
{
    payload.append(QByteArray(kPayload - payload.size(), '\x1A'));
    QByteArray frame("\x02");
    frame.append(static_cast<char>(block & 0xFF));
    frame.append(static_cast<char>(~block & 0xFF));
    return frame + payload + crcOf(payload);
}

} // namespace ymodem
