#include "check.h"
#include "fileio.h"
#include "line.h"
#include "quiet.h"

#include <vector>

// Replies to the command that starts an update. The input is the serial line's script (line.h).

namespace {

int expectedFor(const std::vector<std::uint8_t> &reply)
{
    const std::size_t count = reply.size();
    if (count == 0)
        return -1;
    if (reply[0] != 0xE7 || reply[count - 1] != 0xE7 || (count > 1 ? reply[1] : 0) != count)
        return -2;
    unsigned sum = 0;
    for (std::size_t i = 1; i + 2 < count; ++i)
        sum += reply[i];
    return sum == 0xE7 ? 0 : -3;
}

} // namespace

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    beQuiet();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    beginLine(data, size, AtEnd::Silence);
    FileIO io;
    const int result = io.startMcuSoftwareUpdate();
    CHECK(takenFromLine().size() <= 64);
    CHECK(writtenToLine().size() == 18);
    CHECK(result == (lineFailed() ? -1 : expectedFor(takenFromLine())));
    return 0;
}
