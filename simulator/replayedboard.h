#ifndef BOARDSIM_REPLAYEDBOARD_H
#define BOARDSIM_REPLAYEDBOARD_H

#include "boardmodel.h"
#include "linewatch.h"
#include "options.h"
#include "serialline.h"

namespace boardsim {

/// A board that sends what a recording has, to the byte, and compares what it gets with it. The
/// first difference ends it: the report has it as a text with both sides.
class ReplayedBoard : public BoardModel {
public:
    /// `options` has a recording with at least one record; `line` and `report` must outlive this.
    ReplayedBoard(const Options &options, SerialLine &line, Report &report);

    void begin(TimePoint now) override;
    void step(TimePoint now) override;
    std::optional<TimePoint> deadline() const override;
    void end(TimePoint now) override;

private:
    void receive(TimePoint now, const QByteArray &bytes);
    void passAnchor(TimePoint now, int index);
    void skipReceived();
    std::optional<TimePoint> nextDue() const;
    void sendDue(TimePoint now);
    void finishDifference();
    bool isAtEnd() const;
    int nextToBoard(int index) const;

    const QVector<Record> m_records;
    const bool m_isFast;
    const Milliseconds m_gap;
    const bool m_endsWithHangUp;
    SerialLine &m_line;
    Report &m_report;
    LineWatch m_watch;

    int m_receiving;       // index of the record to the board that is to come; the size: none
    int m_sending = 0;     // index of the next record that is sent
    QByteArray m_received; // of that record
    TimePoint m_anchor{};  // when the latest record was passed
    qint64 m_anchorMs = 0; // its time in the recording
    bool m_isDifferent = false;
    bool m_isComplete = false;
    TimePoint m_lastByte{};
};

} // namespace boardsim

#endif // BOARDSIM_REPLAYEDBOARD_H
