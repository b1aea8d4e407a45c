#ifndef BOARDSIMULATOR_H
#define BOARDSIMULATOR_H

#include "options.h"
#include "report.h"

#include <functional>
#include <memory>

/// A control board on a pseudo-terminal that runs on a thread of its own, so that its user may
/// block on the line. The operations below are for one thread, the one that made the object.
class BoardSimulator {
public:
    explicit BoardSimulator(const boardsim::Options &options = {});
    /// Stops the board.
    ~BoardSimulator();
    BoardSimulator(const BoardSimulator &) = delete;
    BoardSimulator &operator=(const BoardSimulator &) = delete;

    /// Opens the line and makes the link; the board is still off. False on failure, see
    /// errorText().
    [[nodiscard]] bool open();

    /// Switches the board on, once only; opens the line first if that has not been done.
    [[nodiscard]] bool start();

    /// Switches the board off, closes the line and removes the link. Harmless when it is off.
    void stop();

    /// The device to open, valid from open() on.
    QString slaveName() const;

    /// Why open() or start() failed.
    QString errorText() const;

    /// A copy of what has happened so far; also after stop().
    boardsim::Report report() const;

    /// Whether the line or the image file has failed or the program has left the recording that is
    /// replayed; each switches the board off, and report() says how.
    bool hasFailed() const;

    using Condition = std::function<bool(const boardsim::Report &)>;

    /// Waits until `condition` holds, which is asked anew whenever something has happened. False
    /// when it did not hold within `timeout`.
    [[nodiscard]] bool waitFor(const Condition &condition, boardsim::Milliseconds timeout) const;

    /// Waits until nothing has gone over the line for `quiet`. False when that did not happen
    /// within `timeout`.
    [[nodiscard]] bool waitForQuiet(boardsim::Milliseconds quiet,
                                    boardsim::Milliseconds timeout) const;

private:
    class Private;
    std::unique_ptr<Private> d;
};

#endif // BOARDSIMULATOR_H
