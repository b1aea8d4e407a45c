#ifndef BOARDSIM_YMODEMRECEIVER_H
#define BOARDSIM_YMODEMRECEIVER_H

#include "framedecoder.h"
#include "report.h"

namespace boardsim {

/// What the boot loader sends during a transfer, one byte each.
enum ControlByte : char {
    kAck = 0x06,    // the frame is accepted
    kNak = 0x15,    // the frame is refused
    kCancel = 0x18, // the receiver gives up
    kRequest = 'C', // asks for the start frame, and for the frames after it
};

/// CRC-16/XMODEM of `bytes`: polynomial 0x1021, start value 0, most significant bit first.
std::uint16_t crc16(const QByteArray &bytes);

/// The boot loader's side of a YModem batch of one file: a strict receiver that keeps the image.
class YModemReceiver : public FrameDecoder {
public:
    enum class State {
        Off, // no batch yet
        AwaitStart,
        AwaitData,
        AwaitEnd,
        Done, // the board has left the boot loader; late end frames may still come
    };

    /// Appends a Transfer to `report` for every stay in the boot loader; it must outlive this.
    explicit YModemReceiver(Report &report);

    /// Makes ready for a new batch.
    void begin();

    /// Ends the wait for a batch that never came.
    void giveUp() { m_state = State::Off; }

    /// Whether a batch has been asked for and its start frame has not come yet.
    bool awaitsStartFrame() const { return m_state == State::AwaitStart; }

    State state() const { return m_state; }

    std::optional<FrameMatch> match(const QByteArray &start) const override;
    DecodedFrame decode(const QByteArray &frame) override;
    bool refusesBrokenFrames() const override { return m_state != State::Done; }

private:
    Place currentPlace(char head) const;
    DecodedFrame receiveShortBlock(const QByteArray &frame);
    DecodedFrame receiveStartFrame(const QByteArray &frame);
    DecodedFrame receiveDataBlock(const QByteArray &frame);
    DecodedFrame receiveEot();
    DecodedFrame receiveEndFrame(const QByteArray &frame);

    Report &m_report;
    State m_state = State::Off;
};

} // namespace boardsim

#endif // BOARDSIM_YMODEMRECEIVER_H
