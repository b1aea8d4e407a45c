#ifndef BOARDSIM_BOARDMODEL_H
#define BOARDSIM_BOARDMODEL_H

#include "clock.h"

namespace boardsim {

/// What is at the board's end of the line. Driven by its owner, on one thread: step() whenever
/// bytes came or deadline() has passed.
class BoardModel {
public:
    virtual ~BoardModel() = default;

    /// Switches the board on.
    virtual void begin(TimePoint now) = 0;

    /// Takes all that has arrived and sends all that is due.
    virtual void step(TimePoint now) = 0;

    /// When step() is needed next if nothing arrives; not set: not before something arrives.
    virtual std::optional<TimePoint> deadline() const = 0;

    /// Switches the board off.
    virtual void end(TimePoint now) = 0;
};

} // namespace boardsim

#endif // BOARDSIM_BOARDMODEL_H
