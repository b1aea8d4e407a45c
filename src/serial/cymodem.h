#ifndef CYMODEM_H
#define CYMODEM_H

#include <QString>

#include <cstdint>

class QFile;
class SerialPort;

/// Sends one firmware file to the control board's boot loader with the YModem batch protocol, one
/// frame per call. It neither waits nor reads: for each request of the receiver the caller sends
/// one frame and then calls index_added(). The lower-case names are interface and kept.
///
///   frame        bytes  content
///   start        133    SOH 00 FF, name 00 size 00 (128 bytes with zeros), CRC
///   data         1029   STX block ~block, 1024 bytes (the last filled up with 0x1A), CRC
///   end of data  1      EOT
///   end          133    SOH 00 FF, 128 zero bytes, CRC
class CYModem {
public:
    CYModem() = default;
    CYModem(const CYModem &) = delete;
    CYModem &operator=(const CYModem &) = delete;

    /// Shifts one message byte into the running CRC (polynomial 0x1021); two zero bytes complete
    /// it. attach_crc() computes the same with a table.
    static std::uint16_t UpdateCRC16(std::uint16_t crc, std::uint8_t byte);

    /// CRC-16/XMODEM of `length` bytes at `payload`, also stored at frame[position], high byte
    /// first; a position outside the frame stores nothing.
    std::uint16_t attach_crc(const std::uint8_t *payload, std::uint16_t length, int position);

    /// Takes the file `name` of the firmware directory and restarts the sequence. Returns its size
    /// in bytes, or -1 when it is empty or missing. The result of opening the file is not checked:
    /// a file that cannot be opened is sent as empty. An earlier file object is not released.
    [[nodiscard]] int load_file(QString name);

    /// Sends the start frame. Returns the result of the port's Write.
    [[nodiscard]] int send_start_frame(SerialPort *port);

    /// Sends the next data block; after the last one EOT; after that the end frame at each call.
    /// Returns the result of the write, 0 for the end frame, -1 when the file cannot be read.
    [[nodiscard]] int send_data_frame(SerialPort *port);

    /// Sends the frame that closes the batch. Returns the result of the port's Write.
    [[nodiscard]] int send_end_frame(SerialPort *port);

    /// Counts one answered request; the low 8 bits are the block number on the wire.
    void index_added();

    /// Requests answered so far: 0 means that the start frame is due.
    std::uint32_t index() const { return m_index; }

private:
    static constexpr int kFrameSize = 2048;

    void startFrame(std::uint8_t mark, std::uint8_t block);

    QFile *m_file = nullptr; // never released, see load_file
    QString m_name;
    int m_size = 0;
    std::uint32_t m_index = 0;
    std::uint8_t m_frame[kFrameSize] = {};
    bool m_eotSent = false;
};

#endif // CYMODEM_H
