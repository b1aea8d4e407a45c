#ifndef BOARDSIM_RECORDER_H
#define BOARDSIM_RECORDER_H

#include "fault.h"
#include "report.h"
#include "transcript.h"

namespace boardsim {

/// Keeps the report and the transcript in step: every event is told here once.
class Recorder {
public:
    /// `report` must outlive this.
    Recorder(Transcript transcript, Report &report);

    void received(TimePoint now, const QString &meaning, const QByteArray &bytes);
    void sent(TimePoint now, const QString &meaning, const QByteArray &bytes);
    void note(TimePoint now, const QString &text);

    /// A fault was made: it explains the violations that follow, up to the next new exchange.
    void faultMade(TimePoint now, const Fault &fault);
    void violated(TimePoint now, const QString &text);

    /// An exchange begins anew: what went wrong before no longer explains anything.
    void newExchange();

    void hungUp(TimePoint now);
    void failed(TimePoint now, const QString &text);

private:
    Transcript m_transcript;
    Report &m_report;
    QString m_explanation; // the latest fault of this exchange
};

} // namespace boardsim

#endif // BOARDSIM_RECORDER_H
