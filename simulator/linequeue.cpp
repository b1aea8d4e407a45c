#include "linequeue.h"

#include <utility>

namespace boardsim {

LineQueue::Event LineQueue::take(std::optional<TimePoint> until)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto isDue = [this] { return m_isEnded || !m_events.empty(); };
    if (until)
        m_changed.wait_until(lock, *until, isDue);
    else
        m_changed.wait(lock, isDue);
    if (m_events.empty())
        return {};
    Event event = std::move(m_events.front());
    m_events.pop_front();
    return event;
}

void LineQueue::end()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isEnded = true;
    m_changed.notify_one();
}

bool LineQueue::isAtEnd()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_isEnded && m_events.empty();
}

void LineQueue::bytesPassed(TimePoint now, bool toBoard, const QByteArray &bytes)
{
    add([=](LineListener &listener) { listener.bytesPassed(now, toBoard, bytes); });
}

void LineQueue::bytesUnheard(TimePoint now, const QByteArray &bytes)
{
    add([=](LineListener &listener) { listener.bytesUnheard(now, bytes); });
}

void LineQueue::deviceGone(TimePoint now)
{
    add([=](LineListener &listener) { listener.deviceGone(now); });
}

void LineQueue::deviceReturned(TimePoint now)
{
    add([=](LineListener &listener) { listener.deviceReturned(now); });
}

void LineQueue::noted(TimePoint now, const QString &text)
{
    add([=](LineListener &listener) { listener.noted(now, text); });
}

void LineQueue::add(Event event)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(std::move(event));
    m_changed.notify_one();
}

} // namespace boardsim
