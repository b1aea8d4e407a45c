#ifndef HANDMADEEXCHANGES_H
#define HANDMADEEXCHANGES_H

#include <QByteArray>
#include <QVector>

// Handshakes and packets, made by hand: nothing of the product's or the simulator's own framing is
// used here.

QByteArray goodHandshakeV3(); // 73 bytes
QByteArray goodHandshakeV4(); // 76 bytes

/// A sound frame with this version's (3 or 4) command byte and these parameters.
QByteArray handshakeAnswer(int version, const QByteArray &params);

constexpr int kPacketSize = 64;

/// A packet, or the answer to one.
QByteArray packet(int code, int number, const QByteArray &params = QByteArray());

QByteArray connectPacket();
QByteArray syncPacket();
QByteArray deviceIdPacket();
QByteArray configPacket();

/// All four in their order.
QVector<QByteArray> packetSequence();

#endif // HANDMADEEXCHANGES_H
