#include "check.h"
#include "fileio.h"
#include "line.h"
#include "quiet.h"
#include "serialport.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

// Replies to the handshakes.
//
//   byte 0   0F and below: V3, else V4; bit 0: the rest is a frame, not a script
//   rest     the serial line's script (line.h), or the frame, whose head, length, foot and checksum
//            are made correct

namespace {

constexpr std::size_t kReadMax = 100;
constexpr std::uint8_t kWhole = 0xFF; // the rest of a script is one piece

using Bytes = std::vector<std::uint8_t>;

std::uint8_t plainSum(const Bytes &frame, std::size_t length)
{
    unsigned sum = 0;
    for (std::size_t i = 1; i + 2 < length; ++i)
        sum += frame[i];
    return static_cast<std::uint8_t>(sum);
}

Bytes soundFrame(const std::uint8_t *data, std::size_t size)
{
    Bytes frame(data, data + std::min<std::size_t>(size, 255));
    if (frame.size() < 4)
        return frame;
    frame[0] = frame.back() = 0xE7;
    frame[1] = static_cast<std::uint8_t>(frame.size());
    frame[frame.size() - 2] = plainSum(frame, frame.size());
    return frame;
}

bool soundV4(const Bytes &frame)
{
    const std::size_t length = frame[1];
    return frame[0] == 0xE7 && length >= 34 && length <= 200 && frame[length - 1] == 0xE7
        && frame[length - 2] == plainSum(frame, length);
}

std::string versionIn(const Bytes &frame)
{
    Bytes buffer(52, 0);
    const std::size_t count = std::min<std::size_t>(frame[1] - 34U, 50);
    std::copy_n(frame.begin() + 32, count, buffer.begin());
    const auto zero = std::find(buffer.begin(), buffer.end(), 0);
    const auto text = std::find(buffer.begin(), zero, '_') + 1;
    return {text, std::find(text, buffer.end(), 0)};
}

} // namespace

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    beQuiet();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    const bool isV3 = data[0] < 0x10;
    Bytes script(data + 1, data + size);
    if (data[0] & 1) {
        script = soundFrame(data + 1, size - 1);
        script.insert(script.begin(), kWhole);
    }
    beginLine(script.data(), script.size(), AtEnd::Silence);
    FileIO io;
    CHECK(io.serialPort()->Open(kLineName, "115200"));

    const int result = isV3 ? io.handsharkeV3() : io.handsharkeV4();
    const Bytes &taken = takenFromLine();
    const int count = lineFailed() ? -1 : static_cast<int>(taken.size());
    CHECK(taken.size() <= kReadMax);
    CHECK(writtenToLine().size() == (isV3 ? 73 : 76));
    if (isV3) {
        CHECK(result == count);
        CHECK(io.mcuVersion().isEmpty());
        return 0;
    }
    Bytes received(200, 0);
    std::copy(taken.begin(), taken.end(), received.begin());
    if (soundV4(received)) {
        CHECK(result == count);
        CHECK(io.mcuVersion().toLatin1().toStdString() == versionIn(received));
    } else {
        CHECK(result == -1);
        CHECK(io.mcuVersion().isNull());
    }
    return 0;
}
