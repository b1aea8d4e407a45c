#include "handmadeexchanges.h"

QByteArray goodHandshakeV3()
{
    return QByteArray::fromHex("e749") + QByteArray(21, '\0') + "\x0f" + QByteArray(47, '\0')
        + QByteArray::fromHex("58e7");
}

QByteArray goodHandshakeV4()
{
    return QByteArray::fromHex("e74c") + QByteArray(24, '\0') + "\x0f" + QByteArray(47, '\0')
        + QByteArray::fromHex("5be7");
}

QByteArray handshakeAnswer(int version, const QByteArray &params)
{
    QByteArray frame = QByteArray(version == 3 ? 23 : 26, '\0') + "\x0f" + QByteArray(5, '\0')
        + params + QByteArray(2, '\0');
    frame[1] = static_cast<char>(frame.size());
    unsigned sum = 0;
    for (const char c : qAsConst(frame))
        sum += static_cast<quint8>(c);
    frame[0] = '\xe7';
    frame[frame.size() - 2] = static_cast<char>(sum & 0xFFU);
    frame[frame.size() - 1] = '\xe7';
    return frame;
}

QByteArray packet(int code, int number, const QByteArray &params)
{
    const QByteArray zeros(3, '\0');
    return (QByteArray(1, static_cast<char>(code)) + zeros
            + QByteArray(1, static_cast<char>(number)) + zeros + params)
        .leftJustified(kPacketSize, '\0');
}

QByteArray connectPacket()
{
    return packet(0xAE, 1);
}

QByteArray syncPacket()
{
    return packet(0xA4, 1, "\x01");
}

QByteArray deviceIdPacket()
{
    return packet(0xB1, 3);
}

QByteArray configPacket()
{
    return packet(0xA2, 5);
}

QVector<QByteArray> packetSequence()
{
    return {connectPacket(), syncPacket(), deviceIdPacket(), configPacket()};
}
