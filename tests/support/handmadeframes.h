#ifndef HANDMADEFRAMES_H
#define HANDMADEFRAMES_H

#include <QByteArray>
#include <QVector>

// What the assistant sends, made by hand: nothing of the product's own framing is used here.

constexpr int kYModemPayload = 1024;

QByteArray goodVersionQuery(); // 30 bytes
QByteArray goodStartCommand(); // 18 bytes

/// A block with any payload; number, complement and CRC are right.
QByteArray shortBlock(int number, const QByteArray &payload); // filled up with zeros to 128 bytes
QByteArray dataBlock(int number, const QByteArray &payload);  // filled up with 0x1A to 1024 bytes

/// `sizeText`: in hexadecimal digits, when the frame is to be sound.
QByteArray startFrame(const QByteArray &name, const QByteArray &sizeText);
QByteArray endFrame();
QByteArray eot();

/// Start frame for "app.bin", all blocks, EOT and end frame.
QVector<QByteArray> wholeTransfer(const QByteArray &image);

/// `size` bytes without a pattern that could hide a mix-up of blocks, the same at each call.
QByteArray firmwareOfSize(int size);

/// The frame with one bit of the byte at `offset` turned.
QByteArray changed(QByteArray frame, int offset);
/// The same, with the checksum that goes with it.
QByteArray changedAndSealed(QByteArray frame, int offset);

/// Of all bytes, each from 0 to 255.
unsigned sumOf(const QByteArray &bytes);

#endif // HANDMADEFRAMES_H
