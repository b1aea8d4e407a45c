#ifndef BOARDSIM_PACKETDECODER_H
#define BOARDSIM_PACKETDECODER_H

#include "framedecoder.h"
#include "report.h"

namespace boardsim {

// Packets of the boot loader, 64 bytes both ways, integers little-endian.
//
//   offset  0             4              8
//   width   4             4              56
//           command code  packet number  parameters, zero unless they say something
//
// There is no head, checksum or foot: the command code tells that a packet begins.

/// The packets to the boot loader: connect, synchronise, get the device id, read the configuration,
/// in this order and each with its fixed number. Connect may come at any time and starts the order
/// again. A malformed packet, or one out of order, is ignored.
class PacketDecoder : public FrameDecoder {
public:
    /// Counts in `report`, which must outlive this.
    explicit PacketDecoder(Report &report);

    /// The boot loader starts: a connect packet has to come first.
    void begin() { m_next = 0; }

    std::optional<FrameMatch> match(const QByteArray &start) const override;
    DecodedFrame decode(const QByteArray &frame) override;

private:
    Report &m_report;
    int m_next = 0; // the packet that is to come, in the order of the sequence
};

/// The reply to a packet: its code and number, and the device id to the packet that asks for it.
QByteArray packetReply(const QByteArray &packet, Step step, std::uint32_t deviceId);

/// What is wrong with a reply: it repeats code and number of the packet.
QStringList packetReplyViolations(const QByteArray &reply, const QByteArray &packet);

} // namespace boardsim

#endif // BOARDSIM_PACKETDECODER_H
