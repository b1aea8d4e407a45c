#include "fileio.h"
#include "serialport.h"

#include <cstdio>
#include <map>
#include <string>

// Makes exchanges with the board, as a native caller does: bridgecalls NAME... Prints each result.

namespace {

/// Printable, without blanks.
std::string encoded(const QString &text)
{
    return text.toUtf8().toPercentEncoding().toStdString();
}

std::string askVersion(FileIO &io)
{
    return encoded(io.getMcuVersion());
}

std::string startUpdate(FileIO &io)
{
    return std::to_string(io.startMcuSoftwareUpdate());
}

std::string updateBoard(FileIO &io)
{
    return std::to_string(io.updateMcu());
}

/// For exchanges on a line that the caller opens. The version text of a handshake follows its
/// result.
template <int (FileIO::*call)()>
std::string onOpenLine(FileIO &io)
{
    if (!io.serialPort()->Open("/dev/ttymxc1", "115200"))
        return "-1";
    const int result = (io.*call)();
    io.serialPort()->Close();
    return std::to_string(result) + ' ' + encoded(io.mcuVersion());
}

} // namespace

int main(int argc, char **argv)
{
    const std::map<std::string, std::string (*)(FileIO &)> calls{
        {"version", askVersion},
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
        std::printf("%s: %s\n", argv[i], call->second(io).c_str());
        std::fflush(stdout);
    }
    return 0;
}
