#ifndef BOARDSIM_BOARD_H
#define BOARDSIM_BOARD_H

#include "boardmodel.h"
#include "replysender.h"
#include "requestdecoder.h"

namespace boardsim {

/// The board: has each frame that arrives decoded and replies to it.
class Board : public BoardModel {
public:
    /// `line` and `report` must outlive the board.
    Board(const Options &options, SerialLine &line, Report &report);

    void begin(TimePoint now) override;
    void step(TimePoint now) override;
    std::optional<TimePoint> deadline() const override;
    void end(TimePoint now) override;

private:
    void take(TimePoint now, char byte);
    void makeReceivingFaults(TimePoint now);
    void handle(TimePoint now, const Received &received);
    void accept(TimePoint now, const Received &received, const QString &meaning);
    Reply replyTo(const Received &received, const QString &meaning) const;
    void enterBootLoader(TimePoint now, TimePoint firstRequest);
    void leaveBootLoader(TimePoint now);
    void keepImage(TimePoint now);

    const Options m_options;
    const FaultPlan m_plan;
    SerialLine &m_line;
    Report &m_report;
    Transcript m_transcript;
    ReplySender m_sender;

    RequestDecoder m_requests;
    int m_toLose = 0;       // bytes of the frame that is being received
    bool m_hasLost = false; // in that frame
    std::optional<TimePoint> m_nextRequest;
};

} // namespace boardsim

#endif // BOARDSIM_BOARD_H
