#ifndef BOARDSIM_FRAMEASSEMBLER_H
#define BOARDSIM_FRAMEASSEMBLER_H

#include "clock.h"
#include "framehandler.h"

#include <QVector>

namespace boardsim {

/// Bytes that belong together.
struct Received {
    enum class Kind {
        Whole,  // a frame
        Broken, // a frame that broke off
        Stray,  // nobody's; all up to a pause
    };
    Kind kind = Kind::Whole;
    QByteArray bytes;
    FrameHandler *handler = nullptr; // for a frame; null while its kind could not be told
    Claim claim;                     // the handler's
};

/// Cuts what arrives into frames: the first bytes say whose and how long a frame is; a pause ends
/// what is not whole.
class FrameAssembler {
public:
    using Handlers = QVector<FrameHandler *>;

    explicit FrameAssembler(Milliseconds gap);

    /// Adds a byte; of the `handlers`, the first that claims a frame gets it.
    void add(TimePoint now, char byte, const Handlers &handlers);

    /// The claim on the frame that is being received; null while there is none.
    const Claim *claim() const { return m_current.claim.length > 0 ? &m_current.claim : nullptr; }

    int size() const { return m_current.bytes.size(); }

    /// What is complete by now: a whole frame, or anything when the pause is long enough.
    std::optional<Received> take(TimePoint now);

    /// What is left, complete or not.
    std::optional<Received> takeRest();

    /// When a pause will have ended what is being received.
    std::optional<TimePoint> deadline() const;

private:
    void claimStart(const Handlers &handlers);

    const Milliseconds m_gap;
    Received m_current;
    TimePoint m_lastByte{};
};

} // namespace boardsim

#endif // BOARDSIM_FRAMEASSEMBLER_H
