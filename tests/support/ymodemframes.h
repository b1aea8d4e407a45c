#ifndef YMODEMFRAMES_H
#define YMODEMFRAMES_H

#include <QByteArray>

// What goes over the line in a YModem transfer, built from its description and the simulator's
// CRC, without the product's code.

namespace ymodem {

constexpr int kPayload = 1024;

/// A 133-byte frame; `payload` is filled up to 128 bytes with zeros.
QByteArray smallFrame(QByteArray payload);
/// `size` is the text as sent.
QByteArray startFrame(const QByteArray &name, const QByteArray &size);
QByteArray endFrame();
/// A 1029-byte frame; `payload` is filled up to 1024 bytes with 0x1A.
QByteArray dataFrame(int block, QByteArray payload);

extern const QByteArray kEotFrame;

} // namespace ymodem

#endif // YMODEMFRAMES_H
