#ifndef BOARDSIM_SPEAKER_H
#define BOARDSIM_SPEAKER_H

#include "faultplan.h"
#include "line.h"
#include "options.h"
#include "recorder.h"

namespace boardsim {

/// The sending side of the board: what it says goes through here, and the faults with it.
class Speaker {
public:
    /// All but the options must outlive this.
    Speaker(const Options &options, const FaultPlan &plan, Line &line, Recorder &recorder);

    /// Answers a frame of `frameSize` bytes. Returns when the answer will be out.
    TimePoint answer(TimePoint now, const Answer &answer, const Place &place, int frameSize);

    /// Asks for the start frame.
    void request(TimePoint now);

    /// A frame came: an answer that was being repeated is not repeated any more.
    void stopRepeating();

    /// Sends what is due.
    void step(TimePoint now);

    /// When step() is needed next for what is repeated; the line has its own deadline.
    std::optional<TimePoint> deadline() const { return m_nextRepeat; }

private:
    bool isSilent(TimePoint now, const Place &place);
    void keepBack(const QVector<Write> &writes);
    TimePoint send(TimePoint now, QVector<Write> writes);
    void sendDue(TimePoint now);

    const int m_controlRepeat;
    const Milliseconds m_bootDelay;
    const FaultPlan &m_plan;
    Line &m_line;
    Recorder &m_recorder;

    bool m_silent = false; // for good
    Write m_keptBack;
    Write m_repeated;
    Milliseconds m_repeatEvery{0};
    std::optional<TimePoint> m_nextRepeat;
};

} // namespace boardsim

#endif // BOARDSIM_SPEAKER_H
