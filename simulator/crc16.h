#ifndef BOARDSIM_CRC16_H
#define BOARDSIM_CRC16_H

#include <QByteArray>

namespace boardsim {

/// CRC-16/XMODEM of `bytes`: polynomial 0x1021, start value 0, most significant bit first.
quint16 crc16(const QByteArray &bytes);

} // namespace boardsim

#endif // BOARDSIM_CRC16_H
