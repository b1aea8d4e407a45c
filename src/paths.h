#ifndef PATHS_H
#define PATHS_H

// Paths and serial-line settings that the machine's image fixes. Nothing makes them configurable.
// Shell commands are not built from these constants: each is written out in full at its call.

/// Decimal process id of the running instance; it outlives the process.
constexpr char kPidFile[] = "/tmp/ota.pid";

/// Where a package puts the control board's firmware, with the trailing slash.
constexpr char kFirmwareDir[] = "/root/mcu/";
/// The one image that is sent to the control board.
constexpr char kFirmwareFile[] = "UpdataSystem.bin";

constexpr char kBoardDevice[] = "/dev/ttymxc1";
constexpr char kBoardBaud[] = "115200";
/// Inter-character time-out (VTIME). It delays no read, since the descriptor is non-blocking: the
/// waits are those of SerialPort.
constexpr unsigned kBoardTimeoutMs = 500;

constexpr char kUpdateScreen[] = "qrc:/main.qml";
constexpr char kStatusScreen[] = "qrc:/show.qml";

#endif // PATHS_H
