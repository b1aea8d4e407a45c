#include "waits.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <optional>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr long kUsPerSecond = 1000000;
constexpr long kNsPerSecond = 1000000000;

struct Recorder {
    Waits::Mode mode;
    Waits::Before before = {};
    bool isBusy = false; // running what setBefore() has set
    QByteArray calls = {};
    QByteArray last = {};
    int times = 0;
    std::optional<long> left = {};
    clock_t looks = 0;

    QByteArray asked() const
    {
        return times == 0 ? QByteArray() : calls + QByteArray::number(times) + " x " + last + '\n';
    }

    void note(const QByteArray &call)
    {
        if (call != last) {
            calls = asked();
            last = call;
            times = 0;
        }
        ++times;
        isBusy = true;
        if (before)
            before(call);
        isBusy = false;
    }

    /// The remainder of a call that a signal interrupts.
    std::optional<long> takeInterruption()
    {
        const std::optional<long> taken = left;
        left.reset();
        return taken;
    }
};

thread_local std::optional<Recorder> gRecorder;

bool isNoting()
{
    return gRecorder && !gRecorder->isBusy;
}

int failInterrupted()
{
    errno = EINTR;
    return -1;
}

// The names below are those of the calls whose seconds are a `long`.
static_assert(sizeof(time_t) == sizeof(long), "select() and nanosleep() have other names");

/// The C library's function that the one of the same name here replaces.
template <typename Function>
Function *original(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the library's are reserved

extern "C" int select(int count, fd_set *readable, fd_set *writable, fd_set *failed, timeval *wait)
{
    static auto *const library =
        original<int(int, fd_set *, fd_set *, fd_set *, timeval *)>("select");
    if (!isNoting() || !wait)
        return library(count, readable, writable, failed, wait);
    const long asked = wait->tv_sec * kUsPerSecond + wait->tv_usec;
    gRecorder->note("select " + QByteArray::number(static_cast<qint64>(asked)) + " us");
    const auto setLeft = [wait](long left) {
        wait->tv_sec = left / kUsPerSecond;
        wait->tv_usec = left % kUsPerSecond;
    };
    if (const auto left = gRecorder->takeInterruption()) {
        setLeft(*left);
        return failInterrupted();
    }
    if (gRecorder->mode == Waits::Real)
        return library(count, readable, writable, failed, wait);
    timeval none{0, 0};
    const int ready = library(count, readable, writable, failed, &none);
    if (ready >= 0)
        setLeft(ready == 0 ? 0 : std::max(asked - 1, 0L)); // ready: bytes came during the wait
    return ready;
}

extern "C" int usleep(useconds_t us)
{
    static auto *const library = original<int(useconds_t)>("usleep");
    if (!isNoting())
        return library(us);
    gRecorder->note("usleep " + QByteArray::number(us) + " us");
    if (gRecorder->takeInterruption())
        return failInterrupted();
    return gRecorder->mode == Waits::Real ? library(us) : 0;
}

extern "C" int nanosleep(const timespec *wait, timespec *rest)
{
    static auto *const library = original<int(const timespec *, timespec *)>("nanosleep");
    if (!isNoting())
        return library(wait, rest);
    const qint64 asked = qint64{wait->tv_sec} * kNsPerSecond + wait->tv_nsec;
    gRecorder->note("nanosleep " + QByteArray::number(asked) + " ns");
    if (const auto left = gRecorder->takeInterruption()) {
        if (rest)
            *rest = {*left / kNsPerSecond, *left % kNsPerSecond};
        return failInterrupted();
    }
    return gRecorder->mode == Waits::Real ? library(wait, rest) : 0;
}

extern "C" clock_t clock() noexcept
{
    static auto *const library = original<clock_t()>("clock");
    return isNoting() && gRecorder->mode == Waits::AtOnce ? gRecorder->looks++ : library();
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)

Waits::Waits(Mode mode)
{
    gRecorder.emplace(Recorder{mode});
}

Waits::~Waits()
{
    gRecorder.reset();
}

void Waits::setBefore(const Before &before)
{
    gRecorder->before = before;
}

void Waits::interrupt(long left)
{
    gRecorder->left = left;
}

QByteArray Waits::asked() const
{
    return gRecorder->asked();
}
