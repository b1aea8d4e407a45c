#include "linedecoder.h"

#include <utility>

namespace boardsim {

using State = YModemReceiver::State;

namespace {

constexpr int kMaxUnexpected = 1024; // bytes of no frame in one event

} // namespace

LineDecoder::LineDecoder(Report &report, Sink sink, Milliseconds gap)
    : m_sink(std::move(sink))
    , m_requests(RequestDecoder::Role::Watcher, gap, report)
    , m_replies(gap)
{
}

void LineDecoder::toBoard(TimePoint now, const QByteArray &bytes)
{
    step(now);
    m_replies.endControls();
    takeReplies(now);
    for (const char byte : bytes) {
        m_requests.add(now, byte);
        m_lastRequestByte = now;
        auto request = m_requests.take(now);
        if (!request && !m_requests.match() && m_requests.size() >= kMaxUnexpected)
            request = m_requests.takeRest();
        if (request)
            takeRequest(*request);
    }
}

void LineDecoder::fromBoard(TimePoint now, const QByteArray &bytes)
{
    step(now);
    for (const char byte : bytes) {
        m_replies.add(now, byte);
        takeReplies(now);
    }
}

void LineDecoder::step(TimePoint now)
{
    if (const auto request = m_requests.take(now))
        takeRequest(*request);
    takeReplies(now);
}

std::optional<TimePoint> LineDecoder::deadline() const
{
    return sooner(m_requests.deadline(), m_replies.deadline());
}

void LineDecoder::flush()
{
    if (const auto request = m_requests.takeRest())
        takeRequest(*request);
    while (const auto reply = m_replies.takeRest(m_requests.receiver().state()))
        takeReply(*reply);
}

void LineDecoder::takeRequest(const Received &request)
{
    const Step step = request.match.place.step;
    const bool isWhole = request.kind == Received::Kind::Whole;
    if (isWhole && isCommand(step) && m_requests.leaveBootLoader())
        note(m_lastRequestByte, QStringLiteral("board leaves its boot loader"));

    const DecodedFrame frame = decoded(request);
    LineEvent event{m_lastRequestByte, true,        request.bytes, frame.meaning,
                    frame.violations,  std::nullopt};
    if (request.decoder)
        event.place = request.match.place;
    m_sink(event);
    if (isWhole)
        m_replies.expect(request);
    if (frame.outcome != DecodedFrame::Outcome::Accepted)
        return;
    m_startIsDue = step == Step::StartCommand;
    if (step == Step::End)
        m_requests.endTransfer();
}

/// A refused frame that comes again is no other frame.
DecodedFrame LineDecoder::decoded(const Received &request)
{
    if (m_isRefused && request.bytes == m_lastFrame)
        return {m_lastMeaning + QStringLiteral(", again"), {}, DecodedFrame::Outcome::Ignored};
    m_isRefused = false;
    if (request.kind == Received::Kind::Unexpected && isConsoleText(request.bytes))
        return {QStringLiteral("text ") + quotedText(request.bytes), {}};
    DecodedFrame frame = decode(request);
    if (request.kind == Received::Kind::Whole && isTransfer(request.match.place.step)) {
        m_lastFrame = request.bytes;
        m_lastMeaning = frame.meaning;
    }
    return frame;
}

void LineDecoder::takeReplies(TimePoint now)
{
    while (const auto reply = m_replies.take(now, m_requests.receiver().state()))
        takeReply(*reply);
}

void LineDecoder::takeReply(const DecodedReply &reply)
{
    const bool isRequest = reply.bytes.count(kRequest) == reply.bytes.size();
    const State state = m_requests.receiver().state();
    const bool isNewBatch = state == State::Off || (state == State::Done && m_isRestarted);
    if (isRequest && (m_startIsDue || isNewBatch))
        enterBootLoader(reply.time);
    m_sink({reply.time, false, reply.bytes, reply.meaning, reply.violations, std::nullopt});
    if (reply.bytes.startsWith(kNak))
        m_isRefused = true;
    if (isConsoleText(reply.bytes) && !isRequest)
        m_isRestarted = true;
    if (m_startIsDue && reply.bytes.startsWith(static_cast<char>(kFrameMark)))
        enterBootLoader(reply.time);
}

void LineDecoder::enterBootLoader(TimePoint time)
{
    m_startIsDue = false;
    m_isRestarted = false;
    note(time, QStringLiteral("board enters its boot loader"));
    m_requests.enterBootLoader();
}

void LineDecoder::note(TimePoint time, const QString &text)
{
    m_sink({time, false, {}, text, {}, std::nullopt});
}

} // namespace boardsim
