#include "check.h"
#include "fileio.h"
#include "line.h"
#include "quiet.h"

// Replies to the version query. The input is the serial line's script. The query waits for a silent
// board without a time-out, so after the script every wait fails.

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    beQuiet();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    beginLine(data, size, AtEnd::Failure);
    FileIO io;
    const QString version = io.getMcuVersion();
    CHECK(version.size() <= 19);
    CHECK(!version.contains(QChar(0)));
    CHECK(writtenToLine().size() == 30);
    return 0;
}
