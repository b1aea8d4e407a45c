#ifndef SERIALPORT_H
#define SERIALPORT_H

#include <cstdint>

struct timeval;

/// One row of the table of accepted rates.
struct BaudRow {
    std::uint32_t speed; ///< terminal speed code, for cfsetispeed() and cfsetospeed()
    std::uint32_t rate;  ///< baud
};

constexpr int kBaudRows = 19;
/// The accepted rates, searched from the first row. Only two are above 115200, on purpose.
extern const BaudRow gBaudTable[kBaudRows];

/// Non-zero makes `SerialPort::Open` log the path and the rate.
extern int gVerbose;

/// One POSIX serial device: raw, 8 data bits, no parity, 1 stop bit, no flow control, and
/// non-blocking, so that every wait is a select(). Owns its descriptor, which is closed on exec;
/// one thread at a time.
/// The capitalised names (and read_uart_port) are interface and kept.
class SerialPort {
public:
    SerialPort() = default;
    ~SerialPort();
    SerialPort(const SerialPort &) = delete;
    SerialPort &operator=(const SerialPort &) = delete;

    /// Opens and sets up `port`, a path or a name below /dev (cut to 39 characters in all), at the
    /// decimal rate `baud`; null means 9600. False on any failure, which is logged; a device that
    /// opens but cannot be set up stays open until Close(). An open descriptor is not closed.
    [[nodiscard]] bool Open(const char *port, const char *baud);

    /// Collects up to `length` bytes into `buffer`, which holds at least four bytes; these are set
    /// to zero first. Returns the count, 0 after about 1 s without a byte, or -1 on a closed or
    /// failing port. Ends at the latest 100 waits of 10 ms after the first byte.
    [[nodiscard]] int Read(void *buffer, int length);

    /// One read of up to `length` bytes after waiting up to `wait`, which select() may change.
    /// Returns the count as 16 bits (65535 when read() fails), 0 on time-out, or the negative
    /// result of a failed select(), errno telling why.
    [[nodiscard]] int read_uart_port(unsigned char *buffer, unsigned length, timeval *wait);

    /// Sets the inter-character time-out, rounded up to tenths of a second and capped at 25.5 s;
    /// 0 means to wait for one byte. Discards pending input. False on failure or a closed port.
    [[nodiscard]] bool SetTimeout(unsigned milliseconds);

    /// One write() of `length` bytes. Returns the count written, which may be short, or 0 on
    /// failure, which is logged.
    [[nodiscard]] int Write(const void *buffer, unsigned length);

    /// Drops DTR and RTS for 250 ms, raises them and waits 50 ms. Stops at the first failure.
    void StrobeDTRRTS();

    /// Closes the port; nothing happens on a closed one.
    void Close();

private:
    int m_fd = -1;
};

#endif // SERIALPORT_H
