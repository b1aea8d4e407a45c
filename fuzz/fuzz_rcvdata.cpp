#include "check.h"
#include "fileio.h"
#include "line.h"
#include "quiet.h"
#include "serialport.h"

#include <algorithm>
#include <vector>

// RcvData() with a buffer of exactly the documented size. The input is the serial line's script.

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
    // All received bytes that fit, unless an error was added to the total.
    if (total >= 0 && static_cast<std::size_t>(total) == taken.size()) {
        const std::size_t kept = std::min(taken.size(), buffer.size());
        CHECK(std::equal(buffer.data(), buffer.data() + kept, taken.data()));
    }
    return 0;
}
