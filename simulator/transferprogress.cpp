#include "transferprogress.h"

#include <algorithm>
#include <cmath>

namespace boardsim {

namespace {

constexpr std::size_t kLatest = 20; // blocks that the speed is taken from
constexpr double kMaxSecondsLeft = 10 * 24 * 60 * 60;

double secondsOf(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

} // namespace

TransferProgress::TransferProgress(const Report &report)
    : m_report(report)
{
}

void TransferProgress::take(const LineEvent &event)
{
    if (m_number != m_report.transfers.size()) {
        m_number = m_report.transfers.size();
        m_blockTimes.clear();
        m_blocks = 0;
        m_refusals = 0;
        m_lastRefusal.clear();
    }
    m_lastEvent = event;
    m_violations += event.violations.size();
    if (!event.violations.isEmpty())
        m_lastViolation = event.violations.last();
    if (event.bytes.isEmpty())
        return;
    if (!event.toBoard) {
        takeFromBoard(event);
        return;
    }
    m_lastFrame = event.meaning;
    if (!hasBegun() || transfer().blocksReceived == m_blocks)
        return;
    if (m_blocks == 0)
        m_firstBlock = event.time;
    m_blocks = transfer().blocksReceived;
    m_blockTimes.push_back(event.time);
    if (m_blockTimes.size() > kLatest)
        m_blockTimes.pop_front();
}

void TransferProgress::takeFromBoard(const LineEvent &event)
{
    static const QString versionAnswer = QStringLiteral("version answer ");
    if (event.meaning.startsWith(versionAnswer))
        m_versionAnswer = event.meaning.mid(versionAnswer.size());
    const bool isRefusal =
        event.bytes.startsWith(kNak) || event.bytes.startsWith(QByteArray(2, kCancel));
    if (!hasBegun() || !isRefusal)
        return;
    ++m_refusals;
    m_lastRefusal = event.meaning + QStringLiteral(" to ") + m_lastFrame;
}

int TransferProgress::percent() const
{
    if (!hasBegun() || transfer().blocksExpected == 0)
        return 0;
    return static_cast<int>(100 * transfer().blocksReceived / transfer().blocksExpected);
}

double TransferProgress::blocksPerSecond(TimePoint now) const
{
    if (m_blockTimes.size() < 2)
        return 0;
    const TimePoint last = m_blockTimes.back();
    const bool isOver = transfer().eotReceived;
    const auto count =
        static_cast<double>(isOver ? m_blocks - 1 : static_cast<qint64>(m_blockTimes.size()) - 1);
    const double seconds = isOver ? secondsOf(last - m_firstBlock)
                                  : secondsOf(std::max(now, last) - m_blockTimes.front());
    return seconds > 0 ? count / seconds : 0;
}

std::optional<std::chrono::seconds> TransferProgress::timeLeft(TimePoint now) const
{
    const double speed = blocksPerSecond(now);
    if (speed <= 0 || transfer().eotReceived)
        return std::nullopt;
    const auto blocks = static_cast<double>(transfer().blocksExpected - transfer().blocksReceived);
    const double seconds = std::ceil(blocks / speed);
    if (seconds > kMaxSecondsLeft)
        return std::nullopt;
    return std::chrono::seconds(static_cast<qint64>(seconds));
}

QString durationText(std::chrono::milliseconds duration, int decimals)
{
    const qint64 ms = duration.count();
    if (ms < 60000)
        return QStringLiteral("%1 s").arg(static_cast<double>(ms) / 1000, 0, 'f', decimals);
    const qint64 seconds = ms / 1000;
    return QStringLiteral("%1 min %2 s")
        .arg(seconds / 60)
        .arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

} // namespace boardsim
