#ifndef BOARDSIM_PACKETHANDLER_H
#define BOARDSIM_PACKETHANDLER_H

#include "framehandler.h"
#include "report.h"

namespace boardsim {

// Packets of the boot loader, 64 bytes both ways, integers little-endian.
//
//   offset  0             4              8
//   width   4             4              56
//           command code  packet number  parameters, zero unless they say something
//
// There is no head, checksum or foot: the command code tells that a packet begins.

/// The packets with which the boot loader is questioned: connect, synchronise, get the device id,
/// read the configuration, in this order and each with its fixed number. Connect may come at any
/// time and begins anew. The answer repeats code and number; only the device id says more. A
/// packet with anything off in it gets no answer.
class PacketHandler : public FrameHandler {
public:
    /// `report` must outlive this.
    PacketHandler(quint32 deviceId, Report &report);

    /// The boot loader starts: a connect packet has to come first.
    void begin() { m_next = 0; }

    std::optional<Claim> claim(const QByteArray &start) const override;
    Verdict receive(const QByteArray &frame) override;

private:
    QByteArray answerTo(const QByteArray &packet, Step step) const;

    const quint32 m_deviceId;
    Report &m_report;
    int m_next = 0; // the packet that is to come, in the order of the sequence
};

} // namespace boardsim

#endif // BOARDSIM_PACKETHANDLER_H
