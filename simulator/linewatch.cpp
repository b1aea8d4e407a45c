#include "linewatch.h"

#include <algorithm>
#include <utility>

namespace boardsim {

LineWatch::LineWatch(Report &report, LineSink transcript, HexStyle style, TimePoint start)
    : m_start(start)
    , m_report(report)
    , m_transcript(std::move(transcript), style, report, start)
    , m_decoder(report, [this](const LineEvent &event) { tell(event); })
{
}

void LineWatch::record(Recorder::Writer writer)
{
    m_recorder = std::make_unique<Recorder>(std::move(writer), m_start);
}

void LineWatch::bytesPassed(TimePoint now, bool toBoard, const QByteArray &bytes)
{
    m_decoder.step(now);
    m_isUnheard = false;
    if (m_recorder)
        m_recorder->add(now, toBoard, bytes);
    if (toBoard)
        m_decoder.toBoard(now, bytes);
    else
        m_decoder.fromBoard(now, bytes);
}

void LineWatch::bytesUnheard(TimePoint now, const QByteArray &bytes)
{
    m_decoder.step(now);
    if (!m_isUnheard)
        m_transcript.note(
            now, QStringLiteral("no program has the line open: what the board sends is lost"));
    m_isUnheard = true;
    if (m_recorder)
        m_recorder->add(now, false, bytes, false);
    m_decoder.fromBoard(now, bytes);
}

void LineWatch::deviceGone(TimePoint now)
{
    m_decoder.flush();
    noted(now, QStringLiteral("device has gone"));
    if (m_recorder)
        m_recorder->happened(now, Record::Kind::HangUp);
    m_report.hungUp = true;
}

void LineWatch::hungUp(TimePoint now)
{
    m_decoder.flush();
    m_transcript.hungUp(now);
}

void LineWatch::deviceReturned(TimePoint now)
{
    noted(now, QStringLiteral("device is back"));
    if (m_recorder)
        m_recorder->happened(now, Record::Kind::Return);
}

void LineWatch::noted(TimePoint now, const QString &text)
{
    tell({now, false, {}, text, {}, std::nullopt});
}

void LineWatch::end(TimePoint now, const QString &text)
{
    m_decoder.flush();
    if (m_recorder)
        m_recorder->flush();
    m_transcript.note(now, text);
}

void LineWatch::tell(const LineEvent &event)
{
    if (m_listener)
        m_listener(event);
    if (event.bytes.isEmpty()) {
        m_transcript.note(event.time, event.meaning);
        return;
    }
    if (event.toBoard)
        m_transcript.received(event.time, event.meaning, event.bytes);
    else
        m_transcript.sent(event.time, event.meaning, event.bytes);
    for (const QString &text : event.violations)
        m_transcript.violation(event.time, text);
    if (m_recorder)
        m_recorder->describe(event);
    if (m_keepsEvents)
        return;
    m_report.frames.clear();
    m_report.violations.resize(std::min<int>(m_report.violations.size(), 1));
}

void watchRecord(const Record &record, TimePoint start, LineWatch &watch)
{
    // Pauses end frames one after the other, as they did on the line.
    const TimePoint now = start + Milliseconds(record.ms);
    for (auto next = watch.deadline(); next && *next <= now; next = watch.deadline())
        watch.step(*next);
    switch (record.kind) {
    case Record::Kind::ToBoard:
    case Record::Kind::FromBoard:
        watch.bytesPassed(now, record.kind == Record::Kind::ToBoard, record.bytes);
        break;
    case Record::Kind::HangUp:
        watch.deviceGone(now);
        break;
    case Record::Kind::Return:
        watch.deviceReturned(now);
        break;
    }
}

void watchRecording(const Recording &recording, TimePoint start, LineWatch &watch)
{
    qint64 ms = 0;
    for (const Record &record : recording.records) {
        watchRecord(record, start, watch);
        ms = record.ms;
    }
    watch.end(start + Milliseconds(ms), QStringLiteral("end of the recording"));
}

} // namespace boardsim
