#include "recorder.h"

#include <algorithm>
#include <utility>

namespace boardsim {

namespace {

/// A longer pause in a frame begins another record.
constexpr Milliseconds kPause{5};

QByteArray commentOf(const LineEvent &event)
{
    QByteArray comment = commentLine(event.meaning);
    for (const QString &text : event.violations)
        comment += commentLine(QStringLiteral("violation: ") + text);
    return comment;
}

} // namespace

Recorder::Recorder(Writer writer, TimePoint start)
    : m_writer(std::move(writer))
    , m_start(start)
{
}

void Recorder::add(TimePoint now, bool toBoard, const QByteArray &bytes, bool isHeard)
{
    auto &raw = m_raw[toBoard ? 1 : 0];
    if (raw.empty() || now > raw.back().time + kPause || raw.back().isHeard != isHeard) {
        raw.push_back({now, toBoard, bytes, {}, isHeard});
        return;
    }
    raw.back().bytes += bytes;
    raw.back().time = now;
}

void Recorder::describe(const LineEvent &event)
{
    auto &raw = m_raw[event.toBoard ? 1 : 0];
    int left = event.bytes.size();
    QByteArray comment = commentOf(event);
    while (left > 0 && !raw.empty()) {
        Piece &first = raw.front();
        const int size = std::min<int>(left, first.bytes.size());
        Piece piece{first.time, event.toBoard, first.bytes.left(size), std::exchange(comment, {}),
                    first.isHeard};
        const auto place =
            std::upper_bound(m_described.begin(), m_described.end(), piece,
                             [](const Piece &a, const Piece &b) { return a.time < b.time; });
        m_described.insert(place, piece);
        first.bytes.remove(0, size);
        if (first.bytes.isEmpty())
            raw.pop_front();
        left -= size;
    }
    writeReady(false);
}

void Recorder::happened(TimePoint now, Record::Kind kind)
{
    flush();
    m_writer(recordLines({kind, msOf(now), {}, 0}));
}

void Recorder::flush()
{
    for (const bool toBoard : {false, true}) {
        for (const Piece &piece : m_raw[toBoard ? 1 : 0])
            m_described.push_back(piece);
        m_raw[toBoard ? 1 : 0].clear();
    }
    std::stable_sort(m_described.begin(), m_described.end(),
                     [](const Piece &a, const Piece &b) { return a.time < b.time; });
    writeReady(true);
}

qint64 Recorder::msOf(TimePoint time) const
{
    return std::chrono::duration_cast<Milliseconds>(time - m_start).count();
}

void Recorder::writeReady(bool all)
{
    while (!m_described.empty()) {
        const Piece &first = m_described.front();
        const auto isEarlier = [&first](const std::deque<Piece> &raw) {
            return !raw.empty() && raw.front().time < first.time;
        };
        if (!all && std::any_of(m_raw.begin(), m_raw.end(), isEarlier))
            return;
        const auto kind = first.toBoard ? Record::Kind::ToBoard : Record::Kind::FromBoard;
        QByteArray lines = recordLines({kind, msOf(first.time), first.bytes, 0});
        if (!first.isHeard)
            lines = "# " + lines.chopped(1).replace("\n", "\n# ") + '\n';
        m_writer(first.comment + lines);
        m_described.pop_front();
    }
}

} // namespace boardsim
