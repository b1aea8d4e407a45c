#include "recorder.h"

#include <utility>

namespace boardsim {

Recorder::Recorder(Transcript transcript, Report &report)
    : m_transcript(std::move(transcript))
    , m_report(report)
{
}

void Recorder::received(TimePoint now, const QString &meaning, const QByteArray &bytes)
{
    m_transcript.received(now, meaning, bytes);
    m_report.frames.append({m_transcript.elapsedMs(now), true, meaning, bytes});
}

void Recorder::sent(TimePoint now, const QString &meaning, const QByteArray &bytes)
{
    m_transcript.sent(now, meaning, bytes);
    m_report.frames.append({m_transcript.elapsedMs(now), false, meaning, bytes});
}

void Recorder::note(TimePoint now, const QString &text)
{
    m_transcript.note(now, text);
}

void Recorder::faultMade(TimePoint now, const Fault &fault)
{
    m_transcript.fault(now, fault.text);
    m_report.faultsMade << fault.text;
    m_explanation = fault.text;
}

void Recorder::violated(TimePoint now, const QString &text)
{
    const QString explained = m_explanation.isEmpty()
        ? QString()
        : QStringLiteral(" (after fault %1)").arg(m_explanation);
    m_transcript.violation(now, text + explained);
    m_report.violations.append({m_transcript.elapsedMs(now), text, m_explanation});
}

void Recorder::newExchange()
{
    m_explanation.clear();
}

void Recorder::hungUp(TimePoint now)
{
    m_transcript.note(now, QStringLiteral("board hangs up"));
    m_report.hungUp = true;
}

void Recorder::failed(TimePoint now, const QString &text)
{
    m_transcript.note(now, QStringLiteral("failed: ") + text);
    m_report.errors << text;
}

} // namespace boardsim
