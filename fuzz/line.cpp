#include "line.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

// The linker makes these names.
// NOLINTBEGIN(bugprone-reserved-identifier)

extern "C" {
int __real_open(const char *path, int flags, ...);
int __real_close(int fd);
ssize_t __real_read(int fd, void *buffer, std::size_t length);
ssize_t __real_write(int fd, const void *buffer, std::size_t length);
int __real_select(int count, fd_set *readable, fd_set *writable, fd_set *except, timeval *wait);
int __real_tcgetattr(int fd, termios *settings);
int __real_tcsetattr(int fd, int when, const termios *settings);
int __real_tcflush(int fd, int queue);
}

namespace {

constexpr std::uint8_t kSilence = 0xC0;
constexpr std::uint8_t kFailingWait = 0xF0;
constexpr std::uint8_t kFailingRead = 0xF8;
constexpr std::uint8_t kTheRest = 0xFC;
constexpr int kWaitsPerStep = 5;
constexpr std::uint8_t kAck = 0x06;
constexpr clock_t kTicksPerCall = 100; // of the clock() that the product reads
constexpr std::size_t kMostWritten = 1U << 20;

enum class Ready { Nothing, Bytes, Failure };

struct Line {
    const std::uint8_t *next = nullptr;
    const std::uint8_t *end = nullptr;
    AtEnd atEnd = AtEnd::Silence;
    int acksLeft = 0;

    bool readable = false;
    bool readFails = false;
    std::size_t pieceLeft = 0;
    int silentWaits = 0;

    bool failed = false;
    clock_t clock = 0;
    std::vector<std::uint8_t> taken;
    std::vector<std::uint8_t> written;

    Ready wait();
    ssize_t read(void *buffer, std::size_t length);

private:
    Ready step();
    Ready pastTheEnd();
};

Ready Line::pastTheEnd()
{
    if (atEnd == AtEnd::Failure)
        return Ready::Failure;
    if (atEnd == AtEnd::Silence || acksLeft == 0)
        return Ready::Nothing;
    return Ready::Bytes;
}

Ready Line::step()
{
    const std::uint8_t op = *next++;
    if (op >= kFailingWait && op < kFailingRead)
        return Ready::Failure;
    if (op >= kSilence && op < kFailingWait) {
        silentWaits = (op - kSilence + 1) * kWaitsPerStep - 1;
        return Ready::Nothing;
    }
    const auto left = static_cast<std::size_t>(end - next);
    readable = true;
    readFails = op >= kFailingRead && op < kTheRest;
    pieceLeft = op >= kTheRest ? left : readFails ? 0 : std::min<std::size_t>(op, left);
    return Ready::Bytes;
}

Ready Line::wait()
{
    if (silentWaits > 0) {
        --silentWaits;
        return Ready::Nothing;
    }
    if (readable)
        return Ready::Bytes;
    return next == end ? pastTheEnd() : step();
}

ssize_t Line::read(void *buffer, std::size_t length)
{
    if (!readable) {
        if (next != end || acksLeft == 0 || length == 0)
            return 0;
        --acksLeft;
        std::memcpy(buffer, &kAck, 1);
        taken.push_back(kAck);
        return 1;
    }
    if (readFails) {
        readable = false;
        errno = EIO;
        return -1;
    }
    const std::size_t count = std::min(length, pieceLeft);
    std::memcpy(buffer, next, count);
    taken.insert(taken.end(), next, next + count);
    next += count;
    pieceLeft -= count;
    readable = pieceLeft > 0;
    return static_cast<ssize_t>(count);
}

Line gLine;
int gLineDescriptor = -1;

} // namespace

void beginLine(const std::uint8_t *script, std::size_t size, AtEnd atEnd)
{
    // One descriptor for every open of the serial line: only its number matters.
    if (gLineDescriptor < 0)
        gLineDescriptor = __real_open("/dev/null", O_RDWR | O_CLOEXEC);
    gLine = Line{};
    gLine.next = script;
    gLine.end = script + size;
    gLine.atEnd = atEnd;
    gLine.acksLeft = kFinalAcks;
}

const std::vector<std::uint8_t> &takenFromLine()
{
    return gLine.taken;
}

const std::vector<std::uint8_t> &writtenToLine()
{
    return gLine.written;
}

bool lineFailed()
{
    return gLine.failed;
}

extern "C" {

int __wrap_open(const char *path, int flags, mode_t mode)
{
    return std::strcmp(path, kLineName) == 0 ? gLineDescriptor : __real_open(path, flags, mode);
}

int __wrap_open64(const char *path, int flags, mode_t mode)
{
    return __wrap_open(path, flags, mode);
}

int __wrap_close(int fd)
{
    return fd == gLineDescriptor ? 0 : __real_close(fd);
}

ssize_t __wrap_read(int fd, void *buffer, std::size_t length)
{
    return fd == gLineDescriptor ? gLine.read(buffer, length) : __real_read(fd, buffer, length);
}

ssize_t __wrap_write(int fd, const void *buffer, std::size_t length)
{
    if (fd != gLineDescriptor)
        return __real_write(fd, buffer, length);
    const auto *const bytes = static_cast<const std::uint8_t *>(buffer);
    if (gLine.written.size() < kMostWritten)
        gLine.written.insert(gLine.written.end(), bytes, bytes + length);
    return static_cast<ssize_t>(length);
}

int __wrap_select(int count, fd_set *readable, fd_set *writable, fd_set *except, timeval *wait)
{
    if (gLineDescriptor < 0 || !readable || !FD_ISSET(gLineDescriptor, readable))
        return __real_select(count, readable, writable, except, wait);
    switch (gLine.wait()) {
    case Ready::Bytes:
        wait->tv_usec /= 2;
        return 1;
    case Ready::Failure:
        gLine.failed = true;
        errno = EBADF;
        return -1;
    case Ready::Nothing:
        break;
    }
    FD_ZERO(readable);
    *wait = timeval{};
    return 0;
}

int __wrap_tcgetattr(int fd, termios *settings)
{
    if (fd != gLineDescriptor)
        return __real_tcgetattr(fd, settings);
    *settings = termios{};
    return 0;
}

int __wrap_tcsetattr(int fd, int when, const termios *settings)
{
    return fd == gLineDescriptor ? 0 : __real_tcsetattr(fd, when, settings);
}

int __wrap_tcflush(int fd, int queue)
{
    return fd == gLineDescriptor ? 0 : __real_tcflush(fd, queue);
}

int __wrap_usleep(useconds_t /*pause*/)
{
    return 0;
}

int __wrap_nanosleep(const timespec * /*pause*/, timespec * /*left*/)
{
    return 0;
}

clock_t __wrap_clock()
{
    gLine.clock += kTicksPerCall;
    return gLine.clock;
}

void __wrap_perror(const char * /*text*/) { }

} // extern "C"

// NOLINTEND(bugprone-reserved-identifier)
