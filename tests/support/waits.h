#ifndef WAITS_H
#define WAITS_H

#include <QByteArray>

#include <functional>

/// Notes what this thread asks of select(), usleep() and nanosleep() while it lives, one at a time.
/// What select() looks at stays the real thing. Only for programs that link `test_waits`.
class Waits {
public:
    enum Mode {
        Real,
        /// select() tells what is ready by now, and has timed out else; the pauses are over at
        /// once. Each look at clock() takes it one tick further, from 0 on.
        AtOnce,
    };
    using Before = std::function<void(const QByteArray &call)>;

    explicit Waits(Mode mode);
    ~Waits();
    Waits(const Waits &) = delete;
    Waits &operator=(const Waits &) = delete;

    /// Runs `before` ahead of each call, with its text as in asked(). Its own waits are not noted.
    void setBefore(const Before &before);
    /// A signal ends the next call, which leaves `left` of its unit; for the remainder of select()
    /// and nanosleep().
    void interrupt(long left);
    /// The calls so far in their order, the same ones in a row as one: "1 x usleep 25000 us\n",
    /// "100 x select 10000 us\n", "2 x nanosleep 100000000 ns\n".
    QByteArray asked() const;
};

#endif // WAITS_H
