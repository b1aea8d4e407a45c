#ifndef BOARDSIM_CLOCK_H
#define BOARDSIM_CLOCK_H

#include <chrono>
#include <optional>

namespace boardsim {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using Milliseconds = std::chrono::milliseconds;

/// The sooner of two moments, where either may not be set.
inline std::optional<TimePoint> sooner(std::optional<TimePoint> a, std::optional<TimePoint> b)
{
    if (!a || !b)
        return a ? a : b;
    return *a < *b ? a : b;
}

} // namespace boardsim

#endif // BOARDSIM_CLOCK_H
