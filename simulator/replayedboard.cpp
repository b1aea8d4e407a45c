#include "replayedboard.h"

#include <algorithm>

namespace boardsim {

namespace {

using Kind = Record::Kind;

constexpr int kBytesPerRow = 16;
constexpr int kRowsBefore = 2; // equal ones, before the first difference
constexpr int kMaxRows = 8;
constexpr int kMaxReceived = 64 * 1024; // kept after a difference

int firstDifference(const QByteArray &a, const QByteArray &b)
{
    const int size = std::min(a.size(), b.size());
    return static_cast<int>(std::mismatch(a.begin(), a.begin() + size, b.begin()).first
                            - a.begin());
}

QString hexRow(const QByteArray &bytes, int offset)
{
    return QString::fromLatin1(bytes.mid(offset, kBytesPerRow).toHex(' '));
}

/// Both sides around the first difference, `!=` in the rows that differ.
QString sideBySide(const QByteArray &recorded, const QByteArray &sent)
{
    constexpr int kColumn = 3 * kBytesPerRow - 1;
    QString rows = QStringLiteral("offset  %1     %2\n")
                       .arg(QStringLiteral("recorded"), -kColumn)
                       .arg(QStringLiteral("sent"));
    const int row = firstDifference(recorded, sent) / kBytesPerRow;
    const int size = std::max(recorded.size(), sent.size());
    const int first = std::max(row - kRowsBefore, 0) * kBytesPerRow;
    for (int offset = first; offset < std::min(size, first + kMaxRows * kBytesPerRow);
         offset += kBytesPerRow) {
        const QString left = hexRow(recorded, offset);
        const QString right = hexRow(sent, offset);
        rows += QStringLiteral("%1  %2  %3 %4\n")
                    .arg(offset, 6)
                    .arg(left, -kColumn)
                    .arg(left == right ? QStringLiteral("  ") : QStringLiteral("!="), right);
    }
    return rows;
}

} // namespace

ReplayedBoard::ReplayedBoard(const Options &options, SerialLine &line, Report &report)
    : m_records(options.replay->records)
    , m_isFast(options.replayFast)
    , m_gap(options.frameGap)
    , m_endsWithHangUp(!m_records.isEmpty() && m_records.last().kind == Kind::HangUp)
    , m_line(line)
    , m_report(report)
    , m_watch(report, options.transcript, options.hexStyle, Clock::now())
    , m_receiving(nextToBoard(0))
{
}

void ReplayedBoard::begin(TimePoint now)
{
    m_anchor = now;
    m_watch.note(now, QStringLiteral("replay of a recording begins"));
}

void ReplayedBoard::step(TimePoint now)
{
    m_watch.step(now);
    const QByteArray arrived = m_line.takeArrived(now);
    if (!arrived.isEmpty()) {
        m_lastByte = now;
        m_watch.bytesPassed(now, true, arrived);
        receive(now, arrived);
    }
    if (m_isDifferent) {
        if (now >= m_lastByte + m_gap)
            finishDifference();
        return;
    }
    sendDue(now);
    if (isAtEnd() && !m_isComplete) {
        m_isComplete = true;
        m_watch.note(now, QStringLiteral("replay is complete"));
    }
}

std::optional<TimePoint> ReplayedBoard::deadline() const
{
    const auto watching = sooner(m_watch.deadline(), m_line.deadline());
    if (m_isDifferent)
        return sooner(watching, m_lastByte + m_gap);
    return sooner(watching, nextDue());
}

void ReplayedBoard::end(TimePoint now)
{
    if (m_isDifferent && m_report.difference.isEmpty())
        finishDifference();
    if (m_report.difference.isEmpty() && !isAtEnd() && !m_report.hungUp) {
        const bool isProgramDue = m_receiving == m_sending;
        const Record &record = m_records.at(isProgramDue ? m_receiving : m_sending);
        m_report.difference = isProgramDue
            ? QStringLiteral("line %1: the program has not sent all of this\n").arg(record.line)
                + sideBySide(record.bytes, m_received)
            : QStringLiteral("line %1: the replay ended before this was sent\n").arg(record.line);
    }
    m_watch.end(now, QStringLiteral("board is off"));
}

bool ReplayedBoard::isAtEnd() const
{
    return m_sending == m_records.size() && m_receiving == m_records.size();
}

int ReplayedBoard::nextToBoard(int index) const
{
    while (index < m_records.size() && m_records.at(index).kind != Kind::ToBoard)
        ++index;
    return index;
}

void ReplayedBoard::receive(TimePoint now, const QByteArray &bytes)
{
    for (const char byte : bytes) {
        const bool isBeyond = m_receiving == m_records.size();
        if (isBeyond && m_endsWithHangUp && !m_isDifferent)
            return; // the hang-up cut the program short
        if (m_isDifferent && m_received.size() >= kMaxReceived)
            return;
        m_received += byte;
        if (m_isDifferent)
            continue;
        const QByteArray recorded = isBeyond ? QByteArray() : m_records.at(m_receiving).bytes;
        if (isBeyond || recorded.at(m_received.size() - 1) != byte) {
            m_isDifferent = true;
        } else if (m_received.size() == recorded.size()) {
            m_received.clear();
            const int index = m_receiving;
            m_receiving = nextToBoard(index + 1);
            passAnchor(now, index);
            skipReceived();
        }
    }
}

void ReplayedBoard::passAnchor(TimePoint now, int index)
{
    m_anchor = now;
    m_anchorMs = m_records.at(index).ms;
}

/// What is sent next is never a record to the board.
void ReplayedBoard::skipReceived()
{
    while (m_sending < m_receiving && m_records.at(m_sending).kind == Kind::ToBoard)
        ++m_sending;
}

/// When the next record is sent; not set: not before more has come from the program.
std::optional<TimePoint> ReplayedBoard::nextDue() const
{
    if (m_sending >= m_receiving)
        return std::nullopt;
    // The program tells two replies apart by the pause between them, so that is never shortened.
    const bool isFirstReply = m_sending > 0 && m_records.at(m_sending - 1).kind == Kind::ToBoard;
    if (m_isFast && isFirstReply)
        return m_anchor;
    return m_anchor + Milliseconds(m_records.at(m_sending).ms - m_anchorMs);
}

void ReplayedBoard::sendDue(TimePoint now)
{
    for (auto due = nextDue(); due && *due <= now; due = nextDue()) {
        const Record &record = m_records.at(m_sending);
        // Not `now`: the pauses after it would add up what was late.
        passAnchor(*due, m_sending);
        ++m_sending;
        skipReceived();
        if (record.kind == Kind::HangUp) {
            m_watch.hungUp(now);
            return;
        }
        Chunk chunk;
        chunk.bytes = record.bytes;
        m_line.queue(chunk, now);
    }
    for (const Chunk &chunk : m_line.sendDue(now))
        m_watch.bytesPassed(now, false, chunk.bytes);
}

void ReplayedBoard::finishDifference()
{
    const bool isBeyond = m_receiving == m_records.size();
    const QByteArray recorded = isBeyond ? QByteArray() : m_records.at(m_receiving).bytes;
    const QString where = isBeyond
        ? QStringLiteral("the recording has ended, but the program sends more\n")
        : QStringLiteral("line %1: the program sends something else, from byte %2 on\n")
              .arg(m_records.at(m_receiving).line)
              .arg(firstDifference(recorded, m_received));
    m_report.difference = where + sideBySide(recorded, m_received);
}

} // namespace boardsim
