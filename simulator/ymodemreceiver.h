#ifndef BOARDSIM_YMODEMRECEIVER_H
#define BOARDSIM_YMODEMRECEIVER_H

#include "framehandler.h"
#include "report.h"

namespace boardsim {

/// The boot loader's side of a YModem batch of one file: a strict receiver that keeps the image.
class YModemReceiver : public FrameHandler {
public:
    /// Appends a Transfer to `report` for every stay in the boot loader; it must outlive this.
    explicit YModemReceiver(Report &report);

    /// Makes ready for a new batch.
    void begin();

    /// Ends the wait for a batch that never came.
    void giveUp() { m_state = State::Off; }

    /// Whether a batch has been asked for and its start frame has not come yet.
    bool awaitsStartFrame() const { return m_state == State::AwaitStart; }

    std::optional<Claim> claim(const QByteArray &start) const override;
    Verdict receive(const QByteArray &frame) override;
    std::optional<Answer> answerToBrokenFrame() const override;

private:
    enum class State {
        Off, // no batch yet
        AwaitStart,
        AwaitData,
        AwaitEnd,
        Done, // the board has left the boot loader; late end frames may still come
    };

    Place currentPlace(char head) const;
    Verdict receiveShortBlock(const QByteArray &frame);
    Verdict receiveStartFrame(const QByteArray &frame);
    Verdict receiveDataBlock(const QByteArray &frame);
    Verdict receiveEot();
    Verdict receiveEndFrame(const QByteArray &frame);

    Report &m_report;
    State m_state = State::Off;
};

} // namespace boardsim

#endif // BOARDSIM_YMODEMRECEIVER_H
