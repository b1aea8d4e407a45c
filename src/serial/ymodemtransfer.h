#ifndef YMODEMTRANSFER_H
#define YMODEMTRANSFER_H

#include <cstdint>

class CYModem;
class SerialPort;

/// The bytes of YModem that are not data.
enum YModemByte : std::uint8_t {
    kSoh = 0x01,     ///< begins a frame of 128 bytes
    kStx = 0x02,     ///< begins a frame of 1024 bytes
    kEot = 0x04,     ///< end of the data
    kAck = 0x06,     ///< the frame is accepted
    kNak = 0x15,     ///< the frame is refused
    kCancel = 0x18,  ///< the receiver cancels the transfer
    kPadding = 0x1A, ///< fills the last block; the boot loader discards it
    kCrcRequest = 'C',
};

/// Sends the loaded file on the open serial line: one frame for each C or ACK of the receiver. Ends
/// after ten reads in a row, of about 1 s each, without a byte. Returns whether the receiver has
/// sent anything at all. Takes about a second per frame.
[[nodiscard]] bool runYModemTransfer(CYModem &sender, SerialPort &port);

#endif // YMODEMTRANSFER_H
