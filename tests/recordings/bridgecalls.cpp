#include "fileio.h"
#include "serialport.h"

#include <cstdio>
#include <map>
#include <string>

// Makes the exchanges that the screens do not call, as a native caller does: bridgecalls NAME...

namespace {

int startUpdate(FileIO &io)
{
    return io.startMcuSoftwareUpdate();
}

int updateBoard(FileIO &io)
{
    return io.updateMcu();
}

/// For exchanges on a line that the caller opens.
template <int (FileIO::*call)()>
int onOpenLine(FileIO &io)
{
    if (!io.serialPort()->Open("/dev/ttymxc1", "115200"))
        return -1;
    const int result = (io.*call)();
    io.serialPort()->Close();
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    const std::map<std::string, int (*)(FileIO &)> calls{
        {"start-command", startUpdate},
        {"transfer", updateBoard},
        {"packets", onOpenLine<&FileIO::sendCmdFromConnect2Config>},
        {"handshake-v3", onOpenLine<&FileIO::handsharkeV3>},
        {"handshake-v4", onOpenLine<&FileIO::handsharkeV4>},
    };
    FileIO io;
    for (int i = 1; i < argc; ++i) {
        const auto call = calls.find(argv[i]);
        if (call == calls.end())
            return 2;
        std::printf("%s: %d\n", argv[i], call->second(io));
    }
    return 0;
}
