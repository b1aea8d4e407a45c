#ifndef BOARDSIM_SERIALDEVICE_H
#define BOARDSIM_SERIALDEVICE_H

#include <QString>

namespace boardsim {

/// The serial device of a real board, with the settings of the product: raw, 115200 baud, 8 data
/// bits, no parity, 1 stop bit, no flow control. Owns its descriptor, which is non-blocking.
class SerialDevice {
public:
    SerialDevice() = default;
    ~SerialDevice();
    SerialDevice(const SerialDevice &) = delete;
    SerialDevice &operator=(const SerialDevice &) = delete;

    /// Opens and sets up `path`. False on failure, see errorText().
    [[nodiscard]] bool open(const QString &path);
    void close();

    int descriptor() const { return m_descriptor; } ///< -1: closed
    QString errorText() const { return m_errorText; }

private:
    bool fail(const QString &text);

    int m_descriptor = -1;
    QString m_errorText;
};

/// Whether `path` is a pseudo-terminal, which keeps what comes while nobody has it open.
bool isPseudoTerminal(const QString &path);

} // namespace boardsim

#endif // BOARDSIM_SERIALDEVICE_H
