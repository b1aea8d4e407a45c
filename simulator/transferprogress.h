#ifndef BOARDSIM_TRANSFERPROGRESS_H
#define BOARDSIM_TRANSFERPROGRESS_H

#include "linedecoder.h"

#include <deque>

namespace boardsim {

/// How far the latest transfer on a line is, and what went wrong, from the line's events.
class TransferProgress {
public:
    /// `report` is the decoder's and must outlive this.
    explicit TransferProgress(const Report &report);

    void take(const LineEvent &event);

    /// Whether the board has been in its boot loader.
    bool hasBegun() const { return !m_report.transfers.isEmpty(); }
    const Transfer &transfer() const { return m_report.transfers.last(); }
    int number() const { return m_report.transfers.size(); }

    int percent() const; ///< of the blocks

    /// Over the latest blocks, less and less while none comes; over all of them once the transfer
    /// is complete. 0: cannot be told.
    double blocksPerSecond(TimePoint now) const;

    /// For the blocks that are to come; not set: cannot be told.
    std::optional<std::chrono::seconds> timeLeft(TimePoint now) const;

    /// How often the board has refused a frame or cancelled, in this transfer, and what it last
    /// was.
    int refusals() const { return m_refusals; }
    QString lastRefusal() const { return m_lastRefusal; }

    /// How many things were malformed on the line, and what it last was.
    int violations() const { return m_violations; }
    QString lastViolation() const { return m_lastViolation; }

    QString versionAnswer() const { return m_versionAnswer; } ///< empty: none
    const std::optional<LineEvent> &lastEvent() const { return m_lastEvent; }

private:
    void takeFromBoard(const LineEvent &event);

    const Report &m_report;
    int m_number = 0;                   // of the transfer that the following is about
    std::deque<TimePoint> m_blockTimes; // of its latest blocks
    TimePoint m_firstBlock{};
    qint64 m_blocks = 0;
    QString m_lastFrame; // to the board
    int m_refusals = 0;
    QString m_lastRefusal;
    int m_violations = 0;
    QString m_lastViolation;
    QString m_versionAnswer;
    std::optional<LineEvent> m_lastEvent;
};

/// "12.3 s", "5 min 02 s".
QString durationText(std::chrono::milliseconds duration, int decimals = 1);

} // namespace boardsim

#endif // BOARDSIM_TRANSFERPROGRESS_H
