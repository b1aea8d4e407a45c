#ifndef BOARDSIM_LINEQUEUE_H
#define BOARDSIM_LINEQUEUE_H

#include "tap.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace boardsim {

/// Keeps what goes over a line for another thread: a listener that waits for its disk or its
/// terminal holds up no byte.
class LineQueue : public LineListener {
public:
    using Event = std::function<void(LineListener &listener)>;

    /// Waits for the next event, at most until then. Empty: there is none.
    Event take(std::optional<TimePoint> until);

    /// Nothing comes any more.
    void end();
    bool isAtEnd();

    void bytesPassed(TimePoint now, bool toBoard, const QByteArray &bytes) override;
    void bytesUnheard(TimePoint now, const QByteArray &bytes) override;
    void deviceGone(TimePoint now) override;
    void deviceReturned(TimePoint now) override;
    void noted(TimePoint now, const QString &text) override;

private:
    void add(Event event);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Event> m_events;
    bool m_isEnded = false;
};

} // namespace boardsim

#endif // BOARDSIM_LINEQUEUE_H
