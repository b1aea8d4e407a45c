#ifndef BOARDSIM_REPLYSENDER_H
#define BOARDSIM_REPLYSENDER_H

#include "fault.h"
#include "options.h"
#include "serialline.h"
#include "transcript.h"

namespace boardsim {

/// What the board replies to a frame.
struct Reply {
    QByteArray bytes;
    QString meaning;
    int paramOffset = 0; ///< where its parameters begin; 0: it has none
};

/// Sends what the board sends, with the faults of the plan.
class ReplySender {
public:
    /// All but the options must outlive this.
    ReplySender(const Options &options, const FaultPlan &plan, SerialLine &line,
                Transcript &transcript);

    /// Replies to a frame of `frameSize` bytes. Returns when the reply will be out.
    TimePoint reply(TimePoint now, const Reply &reply, const Place &place, int frameSize);

    /// Asks for the start frame.
    void request(TimePoint now);

    /// A frame came: a reply that was being repeated is not repeated any more.
    void stopRepeating() { m_nextRepeat.reset(); }

    /// Sends what is due.
    void step(TimePoint now);

    /// When step() is needed next for what is repeated; the line has its own deadline.
    std::optional<TimePoint> deadline() const { return m_nextRepeat; }

private:
    bool isSilent(TimePoint now, const Place &place);
    TimePoint send(TimePoint now, QVector<Chunk> chunks);
    void sendDue(TimePoint now);

    const int m_controlRepeat;
    const Milliseconds m_bootDelay;
    const FaultPlan &m_plan;
    SerialLine &m_line;
    Transcript &m_transcript;

    bool m_silent = false; // for good
    Chunk m_heldBack;      // goes out in one piece with the next
    Chunk m_repeated;
    Milliseconds m_repeatEvery{0};
    std::optional<TimePoint> m_nextRepeat;
};

} // namespace boardsim

#endif // BOARDSIM_REPLYSENDER_H
