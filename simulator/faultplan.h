#ifndef BOARDSIM_FAULTPLAN_H
#define BOARDSIM_FAULTPLAN_H

#include "fault.h"
#include "framehandler.h"
#include "line.h"

namespace boardsim {

/// How an answer leaves the board, faults and all.
struct Delivery {
    QVector<Write> writes;
    bool keepBack = false;                   // to be sent in one write with the next
    std::optional<Milliseconds> repeatEvery; // `repeated` again and again until a frame comes
    QByteArray repeated;
    QVector<Fault> faults; // those that were made
};

/// What the shape of an answer depends on besides the faults.
struct DeliveryTerms {
    int frameSize = 0; // of the frame that is answered
    int controlRepeat = 1;
    Milliseconds bootDelay{0};
};

/// The faults that are to be made.
class FaultPlan {
public:
    explicit FaultPlan(const QVector<Fault> &faults);

    /// The fault of this kind for this place; null when none is to be made.
    const Fault *find(FaultKind kind, const Place &place) const;

    /// After how many bytes of a frame of `frameSize` the line is hung up at this place.
    std::optional<int> hangUpOffset(const Place &place, int frameSize) const;

    /// The answer as it leaves the board.
    Delivery deliver(const Answer &answer, const Place &place, const DeliveryTerms &terms) const;

private:
    QVector<Fault> m_faults;
};

/// One answer of the boot loader: filled up with its last byte to at least `count` bytes, so that
/// a reader that waits for so many gets it at once and in one piece.
QByteArray filledUp(const QByteArray &control, int count);

} // namespace boardsim

#endif // BOARDSIM_FAULTPLAN_H
