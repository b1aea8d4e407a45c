#ifndef BOARDSIM_BOARD_H
#define BOARDSIM_BOARD_H

#include "commandhandler.h"
#include "faultplan.h"
#include "frameassembler.h"
#include "line.h"
#include "options.h"
#include "packethandler.h"
#include "recorder.h"
#include "report.h"
#include "speaker.h"
#include "ymodemreceiver.h"

namespace boardsim {

/// The board: gives each frame that arrives to the exchange that it belongs to and does what that
/// says. Driven by its owner, on one thread: step() whenever bytes came or deadline() has passed.
class Board {
public:
    /// `line` and `report` must outlive the board.
    Board(const Options &options, Line &line, Report &report);

    /// Switches the board on.
    void begin(TimePoint now);

    /// Deals with all that has arrived and all that is due.
    void step(TimePoint now);

    /// When step() is needed next if nothing arrives; not set: not before something arrives.
    std::optional<TimePoint> deadline() const;

    /// Switches the board off.
    void end(TimePoint now);

private:
    FrameAssembler::Handlers activeHandlers();
    void take(TimePoint now, char byte);
    void makeReceivingFaults(TimePoint now);
    void handle(TimePoint now, const Received &received);
    void handleFrame(TimePoint now, const Received &received);
    void handleBroken(TimePoint now, const Received &received);
    void enterBootLoader(TimePoint now, TimePoint firstRequest);
    void leaveBootLoader(TimePoint now);
    void keepImage(TimePoint now);

    const Options m_options;
    const FaultPlan m_plan;
    Line &m_line;
    Report &m_report;
    Recorder m_recorder;
    Speaker m_speaker;

    CommandHandler m_versionQuery;
    CommandHandler m_startCommand;
    CommandHandler m_handshakeV3;
    CommandHandler m_handshakeV4;
    PacketHandler m_packets;
    YModemReceiver m_receiver;

    FrameAssembler m_assembler;
    int m_toLose = 0;       // bytes of the frame that is being received
    bool m_hasLost = false; // in that frame
    bool m_inBootLoader = false;
    std::optional<TimePoint> m_nextRequest;
};

} // namespace boardsim

#endif // BOARDSIM_BOARD_H
