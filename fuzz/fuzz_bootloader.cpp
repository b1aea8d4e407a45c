#include "check.h"
#include "fileio.h"
#include "line.h"
#include "quiet.h"
#include "serialport.h"

// Replies to the boot-loader commands. The input is the serial line's script (line.h).

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    beQuiet();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr std::size_t packetSize = 64;
    constexpr std::size_t mostPackets = 11 + 3;

    beginLine(data, size, AtEnd::Silence);
    FileIO io;
    CHECK(io.serialPort()->Open(kLineName, "115200"));
    const int result = io.sendCmdFromConnect2Config();
    const std::size_t sent = writtenToLine().size();
    CHECK(result == 1 || result == -1);
    CHECK(sent % packetSize == 0 && sent / packetSize <= mostPackets);
    if (result == 1) {
        CHECK(sent >= 4 * packetSize);
        CHECK(takenFromLine().size() >= 4 * packetSize);
    }
    return 0;
}
