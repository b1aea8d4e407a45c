#ifndef PATHS_H
#define PATHS_H

// The places and the line that the machine's image fixes. They are the product's: nothing makes
// them configurable. Command lines stand whole at their calls.

/// Decimal process id of the running instance; it outlives the process.
constexpr char kPidFile[] = "/tmp/ota.pid";

/// Where a package puts the control board's firmware, with the trailing slash.
constexpr char kFirmwareDir[] = "/root/mcu/";
/// The one image that is sent to the control board.
constexpr char kFirmwareFile[] = "UpdataSystem.bin";

constexpr char kBoardDevice[] = "/dev/ttymxc1";
constexpr char kBoardBaud[] = "115200";
constexpr unsigned kBoardTimeoutMs = 500;

constexpr char kUpdateScreen[] = "qrc:/main.qml";
constexpr char kStatusScreen[] = "qrc:/show.qml";

#endif // PATHS_H
