#include "fakeclock.h"

#include <QDateTime>

#include <ctime>
#include <sys/time.h>

namespace {

struct Clock {
    bool isFake = false;
    qint64 nowMs = 0; // since the epoch
    qint64 stepMs = 0;
    int looks = 0;
};

thread_local Clock gWallClock;

} // namespace

// The library's clock: Qt reads the time of day by this function, and a program's own definition
// goes before the platform library's.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's are reserved
extern "C" int gettimeofday(timeval *now, void * /*zone*/) noexcept
{
    if (!gWallClock.isFake) {
        timespec real = {};
        clock_gettime(CLOCK_REALTIME, &real);
        now->tv_sec = real.tv_sec;
        now->tv_usec = real.tv_nsec / 1000;
        return 0;
    }
    ++gWallClock.looks;
    now->tv_sec = static_cast<time_t>(gWallClock.nowMs / 1000);
    now->tv_usec = static_cast<suseconds_t>(gWallClock.nowMs % 1000 * 1000);
    gWallClock.nowMs += gWallClock.stepMs;
    return 0;
}

FakeClock::FakeClock(const QTime &start, int stepMs)
{
    gWallClock = {true, QDateTime(QDate::currentDate(), start).toMSecsSinceEpoch(), stepMs, 0};
}

FakeClock::~FakeClock()
{
    gWallClock = {};
}

void FakeClock::setStep(int stepMs)
{
    gWallClock.stepMs = stepMs;
}

int FakeClock::looks() const
{
    return gWallClock.looks;
}
