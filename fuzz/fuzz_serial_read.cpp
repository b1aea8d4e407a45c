#include "check.h"
#include "line.h"
#include "quiet.h"
#include "serialport.h"

#include <algorithm>
#include <sys/time.h>
#include <vector>

// Reads of the port into buffers of exactly the size asked for.
//
//   byte 0   even: Read, odd: read_uart_port
//   byte 1   length, at least 4
//   rest     the serial line's script (line.h)

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    beQuiet();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 2)
        return 0;
    beginLine(data + 2, size - 2, AtEnd::Silence);
    SerialPort port;
    CHECK(port.Open(kLineName, nullptr));
    std::vector<std::uint8_t> buffer(std::max<std::size_t>(data[1], 4));
    const std::vector<std::uint8_t> &taken = takenFromLine();
    if (data[0] & 1) {
        timeval wait{1, 0};
        const int count =
            port.read_uart_port(buffer.data(), static_cast<unsigned>(buffer.size()), &wait);
        CHECK(count == -1 || count == 65535 || count == static_cast<int>(taken.size()));
    } else {
        const int count = port.Read(buffer.data(), static_cast<int>(buffer.size()));
        CHECK(count == (lineFailed() ? -1 : static_cast<int>(taken.size())));
        CHECK(!taken.empty() || (buffer[0] | buffer[1] | buffer[2] | buffer[3]) == 0);
    }
    CHECK(std::equal(taken.begin(), taken.end(), buffer.begin()));
    return 0;
}
