#ifndef FAKECLOCK_H
#define FAKECLOCK_H

#include <QTime>

/// The wall clock of this thread while it lives: it stands at `start` today, and every look at it
/// takes it `stepMs` further. The monotonic clocks go on as ever.
class FakeClock {
public:
    FakeClock(const QTime &start, int stepMs);
    ~FakeClock();
    FakeClock(const FakeClock &) = delete;
    FakeClock &operator=(const FakeClock &) = delete;

    /// Later looks take it so much further.
    void setStep(int stepMs);
    /// Looks at the clock so far.
    int looks() const;
};

#endif // FAKECLOCK_H
