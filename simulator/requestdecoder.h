#ifndef BOARDSIM_REQUESTDECODER_H
#define BOARDSIM_REQUESTDECODER_H

#include "commanddecoder.h"
#include "packetdecoder.h"
#include "ymodemreceiver.h"

namespace boardsim {

/// Decodes what goes to the board. It knows in which of its programs the board is, and so which
/// frames the board understands.
class RequestDecoder {
public:
    enum class Role {
        Board,   ///< recognises what the board understands now
        Watcher, ///< recognises everything: the board may change its program unseen
    };

    /// Counts in `report`, which must outlive this. A pause of `gap` ends a frame that is not
    /// whole.
    RequestDecoder(Role role, Milliseconds gap, Report &report);

    void add(TimePoint now, char byte) { m_assembler.add(now, byte, activeDecoders()); }

    /// What is complete by now; see FrameAssembler, as for the next four.
    std::optional<Received> take(TimePoint now) { return m_assembler.take(now); }
    std::optional<Received> takeRest() { return m_assembler.takeRest(); }
    std::optional<TimePoint> deadline() const { return m_assembler.deadline(); }
    const FrameMatch *match() const { return m_assembler.match(); }
    int size() const { return m_assembler.size(); }

    void enterBootLoader();
    /// Without a transfer. False when the board was not in its boot loader.
    bool leaveBootLoader();
    /// The transfer is complete: the board starts its application, late end frames may still come.
    void endTransfer() { m_inBootLoader = false; }

    bool inBootLoader() const { return m_inBootLoader; }
    const YModemReceiver &receiver() const { return m_receiver; }

private:
    FrameAssembler::Decoders activeDecoders();

    const Role m_role;
    CommandDecoder m_commands;
    PacketDecoder m_packets;
    YModemReceiver m_receiver;
    FrameAssembler m_assembler;
    bool m_inBootLoader = false;
};

} // namespace boardsim

#endif // BOARDSIM_REQUESTDECODER_H
