#include "ymodemreceiver.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

// bench_receiver FILE: a boot loader that receives a firmware, checks each frame and replies at
// once. The program's transfer uses it in place of rb. The serial line is the standard input and
// output. Exits after EOT, which hangs up the line.

namespace {

enum : std::uint8_t { kSoh = 0x01, kStx = 0x02, kEot = 0x04, kAck = 0x06 };

constexpr std::size_t kStartPayload = 128;
constexpr std::size_t kDataPayload = 1024;
constexpr std::size_t kCrcSize = 2;
/// The program reads replies of ten bytes and waits up to a second for missing bytes.
constexpr std::size_t kReplySize = 10;

[[noreturn]] void fail(const char *what)
{
    std::perror(what);
    std::exit(1);
}

void reply(std::uint8_t control)
{
    std::uint8_t bytes[kReplySize];
    std::memset(bytes, control, sizeof bytes);
    if (write(STDOUT_FILENO, bytes, sizeof bytes) != static_cast<ssize_t>(sizeof bytes))
        fail("reply");
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

/// Checks the CRC that follows the payload: the CRC of both together is 0.
bool isWhole(const std::uint8_t *payload, std::size_t size)
{
    const auto *const bytes = reinterpret_cast<const char *>(payload);
    return boardsim::crc16(QByteArray::fromRawData(bytes, int(size + kCrcSize))) == 0;
}

/// Receives the rest of a frame after its first byte: block number, payload and CRC.
void receiveFrame(std::uint8_t *payload, std::size_t size)
{
    std::uint8_t block[2];
    receive(block, sizeof block);
    receive(payload, size + kCrcSize);
    if ((block[0] ^ block[1]) != 0xFF || !isWhole(payload, size)) {
        std::fputs("malformed frame\n", stderr);
        std::exit(1);
    }
}

} // namespace

int main(int argc, char **argv)
{
    FILE *const image = argc == 2 ? std::fopen(argv[1], "wb") : nullptr;
    if (!image)
        fail("image");
    reply('C');
    for (;;) {
        std::uint8_t mark = 0;
        receive(&mark, 1);
        if (mark == kEot)
            break;
        const std::size_t payload = mark == kStx ? kDataPayload : kStartPayload;
        static std::uint8_t bytes[kDataPayload + kCrcSize];
        receiveFrame(bytes, payload);
        reply(kAck);
        if (mark == kStx && std::fwrite(bytes, 1, payload, image) != payload)
            fail("image");
    }
    std::fclose(image);
    reply(kAck);
    return 0;
}
