#include "board.h"

#include "program.h"

namespace boardsim {

Board::Board(const Options &options, SerialLine &line, Report &report)
    : m_options(options)
    , m_plan(options.faults)
    , m_line(line)
    , m_report(report)
    , m_transcript(options.transcript, options.hexStyle, report)
    , m_sender(options, m_plan, line, m_transcript)
    , m_requests(RequestDecoder::Role::Board, options.frameGap, report)
{
}

void Board::begin(TimePoint now)
{
    m_transcript.note(now,
                      QStringLiteral("board is on, version text \"%1\"")
                          .arg(QString::fromLatin1(m_options.versionText)));
    if (m_options.startInBootLoader)
        enterBootLoader(now, now);
}

void Board::step(TimePoint now)
{
    for (const char byte : m_line.takeArrived(now)) {
        take(now, byte);
        if (m_report.hungUp)
            return;
    }
    if (const auto received = m_requests.take(now))
        handle(now, *received);
    if (m_nextRequest && now >= *m_nextRequest) {
        m_nextRequest = now + m_options.requestInterval;
        m_sender.request(now);
    }
    m_sender.step(now);
}

std::optional<TimePoint> Board::deadline() const
{
    const auto sending = sooner(m_line.deadline(), m_sender.deadline());
    return sooner(sending, sooner(m_nextRequest, m_requests.deadline()));
}

void Board::end(TimePoint now)
{
    const auto rest = m_requests.takeRest();
    if (rest && m_report.hungUp)
        m_transcript.received(now, QStringLiteral("what came before the hang-up"), rest->bytes);
    else if (rest)
        handle(now, *rest);
    m_transcript.note(now, QStringLiteral("board is off"));
}

void Board::take(TimePoint now, char byte)
{
    if (m_toLose > 0) {
        --m_toLose;
        return;
    }
    m_requests.add(now, byte);
    makeReceivingFaults(now);
    if (m_report.hungUp)
        return;
    if (const auto received = m_requests.take(now))
        handle(now, *received);
}

void Board::makeReceivingFaults(TimePoint now)
{
    const FrameMatch *match = m_requests.match();
    if (!match)
        return;
    const auto offset = m_plan.hangUpOffset(match->place, match->length);
    if (offset && *offset <= m_requests.size()) {
        m_transcript.faultMade(now, m_plan.find(FaultKind::HangUp, match->place)->text);
        m_transcript.hungUp(now);
        return;
    }
    const Fault *loss = m_plan.find(FaultKind::LoseBytes, match->place);
    if (loss && !m_hasLost && m_requests.size() >= match->length / 2) {
        m_hasLost = true;
        m_toLose = loss->number.value_or(0);
        m_transcript.faultMade(now, loss->text);
    }
}

void Board::handle(TimePoint now, const Received &received)
{
    m_toLose = 0;
    m_hasLost = false;
    const Place &place = received.match.place;
    if (received.kind == Received::Kind::Whole) {
        m_sender.stopRepeating();
        m_nextRequest.reset();
        if (isCommand(place.step))
            leaveBootLoader(now);
    }

    const DecodedFrame frame = decode(received);
    const bool accepted = frame.outcome == DecodedFrame::Outcome::Accepted;
    m_transcript.received(now, frame.meaning, received.bytes);
    if (accepted && (isCommand(place.step) || place.step == Step::Connect))
        m_transcript.newExchange();
    for (const QString &text : frame.violations)
        m_transcript.violation(now, text);
    if (accepted)
        accept(now, received, frame.meaning);
    else if (frame.outcome == DecodedFrame::Outcome::Refused)
        m_sender.reply(now, {QByteArray(1, kNak), QStringLiteral("NAK")}, place,
                       received.bytes.size());
}

void Board::accept(TimePoint now, const Received &received, const QString &meaning)
{
    const Place &place = received.match.place;
    const TimePoint replied =
        m_sender.reply(now, replyTo(received, meaning), place, received.bytes.size());
    if (place.step == Step::StartCommand) {
        enterBootLoader(now, replied + m_options.bootDelay);
    } else if (place.step == Step::End) {
        m_requests.endTransfer();
        keepImage(now);
    }
}

Reply Board::replyTo(const Received &received, const QString &meaning) const
{
    const QByteArray &frame = received.bytes;
    const QString name = meaning + QStringLiteral(" answer");
    const Step step = received.match.place.step;
    switch (step) {
    case Step::Version:
        return {versionReply(m_options.versionText),
                QStringLiteral("version answer \"%1\"")
                    .arg(QString::fromLatin1(m_options.versionText))};
    case Step::StartCommand:
        return {startReply(), QStringLiteral("start command answer")};
    case Step::Handshake: {
        const int offset = paramOffsetOf(frame);
        return {withParams(frame, offset, m_options.params), name, offset};
    }
    case Step::Connect:
    case Step::Sync:
    case Step::DeviceId:
    case Step::Config:
        return {packetReply(frame, step, m_options.deviceId), name};
    case Step::StartFrame:
    case Step::Eot:
        return {QByteArray(1, kAck) + kRequest, QStringLiteral("ACK and 'C'")};
    case Step::Block:
    case Step::End:
        break;
    }
    return {QByteArray(1, kAck), QStringLiteral("ACK")};
}

void Board::enterBootLoader(TimePoint now, TimePoint firstRequest)
{
    m_transcript.note(now, QStringLiteral("board enters its boot loader"));
    m_requests.enterBootLoader();
    m_nextRequest = firstRequest;
}

void Board::leaveBootLoader(TimePoint now)
{
    if (m_requests.leaveBootLoader())
        m_transcript.note(now, QStringLiteral("board leaves its boot loader"));
}

void Board::keepImage(TimePoint now)
{
    const QByteArray image = m_report.lastTransfer().image;
    m_transcript.note(now,
                      QStringLiteral("transfer is complete, image of %1 bytes").arg(image.size()));
    if (m_options.imageFile.isEmpty())
        return;
    const QString fault = writeWhole(m_options.imageFile, image);
    if (!fault.isEmpty())
        m_transcript.failed(now, cannotWrite(m_options.imageFile, fault));
}

} // namespace boardsim
