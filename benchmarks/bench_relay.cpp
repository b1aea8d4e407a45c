#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <poll.h>
#include <unistd.h>

// Relays a YModem transfer. Descriptor 0 is the line of the sender, descriptor 1 that of the
// receiver. Writes the nanoseconds from the start frame to EOT to descriptor 2. Exits when one of
// the lines hangs up.

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

/// Forwards what can be read. Returns false when the line has hung up.
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
