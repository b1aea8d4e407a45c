#ifndef BOARDSIM_BOARD_H
#define BOARDSIM_BOARD_H

#include "commanddecoder.h"
#include "packetdecoder.h"
#include "replysender.h"
#include "ymodemreceiver.h"

namespace boardsim {

/// The board: has each frame that arrives decoded and replies to it. Driven by its owner, on one
/// thread: step() whenever bytes came or deadline() has passed.
class Board {
public:
    /// `line` and `report` must outlive the board.
    Board(const Options &options, SerialLine &line, Report &report);

    /// Switches the board on.
    void begin(TimePoint now);

    /// Takes all that has arrived and sends all that is due.
    void step(TimePoint now);

    /// When step() is needed next if nothing arrives; not set: not before something arrives.
    std::optional<TimePoint> deadline() const;

    /// Switches the board off.
    void end(TimePoint now);

private:
    FrameAssembler::Decoders activeDecoders();
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

    CommandDecoder m_commands;
    PacketDecoder m_packets;
    YModemReceiver m_receiver;

    FrameAssembler m_assembler;
    int m_toLose = 0;       // bytes of the frame that is being received
    bool m_hasLost = false; // in that frame
    bool m_inBootLoader = false;
    std::optional<TimePoint> m_nextRequest;
};

} // namespace boardsim

#endif // BOARDSIM_BOARD_H
