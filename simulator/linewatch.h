#ifndef BOARDSIM_LINEWATCH_H
#define BOARDSIM_LINEWATCH_H

#include "recorder.h"
#include "tap.h"
#include "transcript.h"

#include <memory>

namespace boardsim {

/// Tells what goes over a line: into a report, a transcript and, where wanted, a recording.
class LineWatch : public LineListener {
public:
    /// `report` must outlive this; `transcript` may be empty.
    LineWatch(Report &report, LineSink transcript, HexStyle style, TimePoint start);

    /// Keeps no frames in the report, and of the violations only the first: for a line that is
    /// watched for days.
    void keepNoEvents() { m_keepsEvents = false; }

    /// Records from now on.
    void record(Recorder::Writer writer);

    /// Tells each event to this, too, from now on; what happens to the line as a note.
    void listen(LineDecoder::Sink listener) { m_listener = std::move(listener); }

    void note(TimePoint now, const QString &text) { m_transcript.note(now, text); }
    void hungUp(TimePoint now);
    void failed(TimePoint now, const QString &text) { m_transcript.failed(now, text); }

    void bytesPassed(TimePoint now, bool toBoard, const QByteArray &bytes) override;
    void bytesUnheard(TimePoint now, const QByteArray &bytes) override;
    void deviceGone(TimePoint now) override;
    void deviceReturned(TimePoint now) override;
    void noted(TimePoint now, const QString &text) override;

    /// Called when deadline() has come.
    virtual void step(TimePoint now) { m_decoder.step(now); }
    virtual std::optional<TimePoint> deadline() const { return m_decoder.deadline(); }

    /// The line is not watched any more.
    void end(TimePoint now, const QString &text);

private:
    void tell(const LineEvent &event);

    const TimePoint m_start;
    Report &m_report;
    bool m_keepsEvents = true;
    bool m_isUnheard = false; // what the board sent last
    Transcript m_transcript;
    LineDecoder m_decoder;
    std::unique_ptr<Recorder> m_recorder;
    LineDecoder::Sink m_listener;
};

/// Lets a watch see a record, as if its bytes came now: `start` is that of the watch.
void watchRecord(const Record &record, TimePoint start, LineWatch &watch);

/// As above, a whole recording to its end.
void watchRecording(const Recording &recording, TimePoint start, LineWatch &watch);

} // namespace boardsim

#endif // BOARDSIM_LINEWATCH_H
