#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <poll.h>
#include <unistd.h>

// Relays a YModem transfer between two serial lines: the sender is at descriptor 0, the receiver
// at 1. Writes the duration in nanoseconds to descriptor 2, from the start frame to EOT, which
// follows the ACK of the last block. Ends when one of the lines hangs up.

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSender = 0;
constexpr int kReceiver = 1;
constexpr std::uint8_t kEot = 0x04;

struct Transfer {
    bool isStarted = false;
    bool isReported = false;
    Clock::time_point start;
};

void noteFromSender(Transfer &transfer, const std::uint8_t *bytes, ssize_t count)
{
    const Clock::time_point now = Clock::now();
    if (!transfer.isStarted)
        transfer.start = now;
    transfer.isStarted = true;
    if (count != 1 || bytes[0] != kEot || transfer.isReported)
        return;
    transfer.isReported = true;
    const std::chrono::nanoseconds time = now - transfer.start;
    dprintf(STDERR_FILENO, "%lld\n", static_cast<long long>(time.count()));
}

/// Returns whether the line is still there.
bool carry(int from, int to, Transfer &transfer)
{
    std::uint8_t bytes[4096];
    const ssize_t count = read(from, bytes, sizeof bytes);
    if (count <= 0)
        return false;
    if (from == kSender)
        noteFromSender(transfer, bytes, count);
    for (ssize_t done = 0; done < count;) {
        const ssize_t written = write(to, bytes + done, static_cast<std::size_t>(count - done));
        if (written <= 0)
            return false;
        done += written;
    }
    return true;
}

} // namespace

int main()
{
    std::signal(SIGPIPE, SIG_IGN);
    Transfer transfer;
    pollfd lines[] = {{kSender, POLLIN, 0}, {kReceiver, POLLIN, 0}};
    for (;;) {
        if (poll(lines, 2, -1) < 0)
            return 1;
        for (const pollfd &line : lines) {
            if (line.revents != 0 && !carry(line.fd, kSender + kReceiver - line.fd, transfer))
                return transfer.isReported ? 0 : 1;
        }
    }
}
