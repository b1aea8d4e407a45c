#include "serialline.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <unistd.h>

namespace boardsim {

namespace {

constexpr int kBitsPerByte = 10; // start bit, 8 data bits, stop bit

} // namespace

SerialLine::SerialLine(int baud)
{
    if (baud > 0)
        m_byteTime = std::chrono::nanoseconds(std::chrono::seconds(kBitsPerByte)) / baud;
}

bool SerialLine::read(TimePoint now)
{
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t count = ::read(m_descriptor, buffer.data(), buffer.size());
        if (count > 0) {
            const int size = static_cast<int>(count);
            const TimePoint start = std::max(now, m_incomingFree);
            m_incoming.push_back({QByteArray(buffer.data(), size), start});
            m_incomingFree = start + durationOf(size);
            continue;
        }
        if (count < 0 && errno == EINTR)
            continue;
        return count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

QByteArray SerialLine::takeArrived(TimePoint now)
{
    QByteArray arrived;
    while (!m_incoming.empty()) {
        Incoming &first = m_incoming.front();
        const int count = bytesBy(now, first.start, first.bytes.size());
        arrived += first.bytes.mid(first.taken, count - first.taken);
        first.taken = count;
        if (count < first.bytes.size())
            break;
        m_incoming.pop_front();
    }
    return arrived;
}

TimePoint SerialLine::queue(const Chunk &chunk, TimePoint now)
{
    const TimePoint start = std::max(now, m_outgoingFree) + chunk.delay;
    m_outgoing.push_back({chunk, start});
    m_outgoingFree = start + durationOf(chunk.bytes.size());
    return m_outgoingFree;
}

QVector<Chunk> SerialLine::sendDue(TimePoint now)
{
    QVector<Chunk> done;
    while (!m_outgoing.empty()) {
        Outgoing &first = m_outgoing.front();
        const int count = bytesBy(now, first.start, first.chunk.bytes.size());
        if (count > first.sent) {
            const auto size = static_cast<size_t>(count - first.sent);
            // Deliberate: a full line drops the bytes, nobody has read them for a long time.
            static_cast<void>(
                !::write(m_descriptor, first.chunk.bytes.constData() + first.sent, size));
            first.sent = count;
        }
        if (now < first.start || first.sent < first.chunk.bytes.size())
            break;
        done.append(first.chunk);
        m_outgoing.pop_front();
        // What was to follow would reach the other side or not, as the threads run.
        if (done.last().hangUpAfter)
            break;
    }
    return done;
}

std::optional<TimePoint> SerialLine::deadline() const
{
    std::optional<TimePoint> next;
    if (!m_incoming.empty())
        next = m_incoming.front().start + durationOf(m_incoming.front().taken + 1);
    if (!m_outgoing.empty())
        next = sooner(next, m_outgoing.front().start + durationOf(m_outgoing.front().sent + 1));
    return next;
}

int SerialLine::bytesBy(TimePoint now, TimePoint start, int size) const
{
    if (now < start)
        return 0;
    if (m_byteTime.count() == 0)
        return size;
    return static_cast<int>(std::min<qint64>((now - start) / m_byteTime, size));
}

} // namespace boardsim
