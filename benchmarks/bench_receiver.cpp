#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

// bench_receiver FILE: takes the place of rb for the program, as a boot loader that checks each
// frame and answers it at once. Its line is the standard input and output. Ends, and so hangs up,
// behind the end of the data.

namespace {

enum : std::uint8_t { kSoh = 0x01, kStx = 0x02, kEot = 0x04, kAck = 0x06 };

constexpr std::size_t kStartPayload = 128;
constexpr std::size_t kDataPayload = 1024;
constexpr std::size_t kCrcSize = 2;
/// The program reads its answers ten bytes at a time and waits a second for those that do not come.
constexpr std::size_t kAnswer = 10;

[[noreturn]] void fail(const char *what)
{
    std::perror(what);
    std::exit(1);
}

std::array<std::uint16_t, 256> crcTable()
{
    std::array<std::uint16_t, 256> table{};
    for (unsigned byte = 0; byte < table.size(); ++byte) {
        unsigned value = byte << 8;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 0x8000U) ? (value << 1) ^ 0x1021U : value << 1;
        table[byte] = static_cast<std::uint16_t>(value);
    }
    return table;
}

/// 0 for a payload with its CRC behind it.
std::uint16_t crcOf(const std::uint8_t *bytes, std::size_t count)
{
    static const auto table = crcTable();
    std::uint16_t crc = 0;
    for (std::size_t i = 0; i < count; ++i)
        crc = static_cast<std::uint16_t>(crc << 8 ^ table[(crc >> 8) ^ bytes[i]]);
    return crc;
}

void answer(std::uint8_t control)
{
    std::uint8_t bytes[kAnswer];
    std::memset(bytes, control, sizeof bytes);
    if (write(STDOUT_FILENO, bytes, sizeof bytes) != static_cast<ssize_t>(sizeof bytes))
        fail("answer");
}

void receive(std::uint8_t *bytes, std::size_t count)
{
    static std::uint8_t buffer[4096];
    static std::size_t begin = 0;
    static std::size_t end = 0;
    while (count > 0) {
        if (begin == end) {
            const ssize_t got = read(STDIN_FILENO, buffer, sizeof buffer);
            if (got <= 0)
                fail("line");
            begin = 0;
            end = static_cast<std::size_t>(got);
        }
        const std::size_t piece = std::min(count, end - begin);
        std::memcpy(bytes, buffer + begin, piece);
        bytes += piece;
        begin += piece;
        count -= piece;
    }
}

/// Receives what follows the frame's mark: block number, payload and CRC.
void receiveFrame(std::uint8_t *payload, std::size_t size)
{
    std::uint8_t block[2];
    receive(block, sizeof block);
    receive(payload, size + kCrcSize);
    if ((block[0] ^ block[1]) != 0xFF || crcOf(payload, size + kCrcSize) != 0) {
        std::fputs("a broken frame\n", stderr);
        std::exit(1);
    }
}

} // namespace

int main(int argc, char **argv)
{
    FILE *const image = argc == 2 ? std::fopen(argv[1], "wb") : nullptr;
    if (!image)
        fail("image");
    answer('C');
    for (;;) {
        std::uint8_t mark = 0;
        receive(&mark, 1);
        if (mark == kEot)
            break;
        const std::size_t payload = mark == kStx ? kDataPayload : kStartPayload;
        static std::uint8_t bytes[kDataPayload + kCrcSize];
        receiveFrame(bytes, payload);
        answer(kAck);
        if (mark == kStx && std::fwrite(bytes, 1, payload, image) != payload)
            fail("image");
    }
    std::fclose(image);
    answer(kAck);
    return 0;
}
