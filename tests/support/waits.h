#ifndef WAITS_H
#define WAITS_H

#include <QByteArray>

#include <functional>

/// Records the time-outs that this thread passes to select(), usleep() and nanosleep() while this
/// object lives; one object at a time. The descriptors that select() examines are the real ones.
/// Only for programs that link `test_waits`.
class Waits {
public:
    enum Mode {
        Real,
        /// No wait takes time: select() reports what is ready now or else times out, pauses end
        /// at once. clock() starts at 0 and adds one tick per call.
        AtOnce,
    };
    using Before = std::function<void(const QByteArray &call)>;

    explicit Waits(Mode mode);
    ~Waits();
    Waits(const Waits &) = delete;
    Waits &operator=(const Waits &) = delete;

    /// Runs `before` before each call, with the call's text as in asked(). Waits inside `before`
    /// are not recorded.
    void setBefore(const Before &before);
    /// A signal interrupts the next call, with `left` of its unit remaining; for the remainder that
    /// select() and nanosleep() return.
    void interrupt(long left);
    /// The calls so far in their order, equal calls in a row as one: "1 x usleep 25000 us\n",
    /// "100 x select 10000 us\n", "2 x nanosleep 100000000 ns\n".
    QByteArray asked() const;
};

#endif // WAITS_H
