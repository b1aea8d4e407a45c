#include "check.h"
#include "fileio.h"
#include "line.h"
#include "quiet.h"
#include "serialport.h"

#include <algorithm>
#include <vector>

// Blocks, collected into a buffer of exactly the documented size. The input is the line's script.

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    beQuiet();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    beginLine(data, size, AtEnd::Silence);
    FileIO io;
    CHECK(io.serialPort()->Open(kLineName, "115200"));
    std::vector<std::uint8_t> buffer(128);
    const int total = io.RcvData(buffer.data());
    const std::vector<std::uint8_t> &taken = takenFromLine();
    // Exactly one block: it is all that came, unless an error was counted into it.
    if (total == 64 && taken.size() == 64)
        CHECK(std::equal(taken.begin(), taken.end(), buffer.begin()));
    return 0;
}
