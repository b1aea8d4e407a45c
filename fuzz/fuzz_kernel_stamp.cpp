#include "check.h"
#include "fileio.h"
#include "quiet.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <sys/utsname.h>
#include <vector>

// The kernel's build stamp. Byte 0 even: uname() returns the rest; odd: the rest is passed
// directly.

namespace {

std::string gKernelVersion;
constexpr int kLongestDate = 39;

} // namespace

// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker makes the name
extern "C" int __wrap_uname(utsname *kernel)
{
    *kernel = utsname{};
    if (gKernelVersion.empty())
        return -1;
    gKernelVersion.copy(kernel->version, sizeof kernel->version - 1);
    return 0;
}

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    beQuiet();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    const std::string text(data + 1, data + size);
    FileIO io;
    CHECK(!io.isNewKernel());
    if (data[0] & 1) {
        std::vector<char> stamp(text.begin(), text.end());
        stamp.push_back('\0');
        stamp.shrink_to_fit();
        io.ConvKernelCompileDate(stamp.data());
        io.isNewKernel();
        return 0;
    }
    gKernelVersion = text;
    const QString date = io.readKernelData();
    CHECK(!date.isEmpty());
    CHECK(date.size() <= kLongestDate);
    CHECK(io.isNewKernel() == (date == QLatin1String("2021-09-16 19:25:17")));
    return 0;
}
