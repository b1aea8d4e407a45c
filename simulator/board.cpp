#include "board.h"

#include "commandframes.h"
#include "hextext.h"

#include <QFile>

namespace boardsim {

namespace {

Verdict versionVerdict(const QByteArray &text)
{
    Verdict verdict;
    verdict.meaning = QStringLiteral("version query");
    verdict.answer = Answer{Answer::Kind::Frame, versionReply(text),
                            QStringLiteral("version answer \"%1\"").arg(QString::fromLatin1(text))};
    return verdict;
}

Verdict startVerdict()
{
    Verdict verdict;
    verdict.meaning = QStringLiteral("update start command");
    verdict.answer =
        Answer{Answer::Kind::Frame, startReply(), QStringLiteral("start command answer")};
    verdict.next = Verdict::Next::EnterBootLoader;
    return verdict;
}

Verdict handshakeVerdict(ProtocolVersion version, const QByteArray &params)
{
    const QString name = QStringLiteral("V%1 handshake").arg(static_cast<int>(version));
    Verdict verdict;
    verdict.meaning = name;
    verdict.answer = Answer{Answer::Kind::Frame, handshakeReply(version, params),
                            name + QStringLiteral(" answer"), paramOffset(version)};
    return verdict;
}

QString strayText(const QByteArray &bytes)
{
    if (bytes.size() > 1 && static_cast<quint8>(bytes.at(0)) == kFrameMark)
        return QStringLiteral("frame of %1 bytes with length byte 0x%2 is no command here")
            .arg(bytes.size())
            .arg(hexByte(static_cast<quint8>(bytes.at(1))));
    return QStringLiteral("%1 unexpected bytes from 0x%2 on")
        .arg(bytes.size())
        .arg(hexByte(static_cast<quint8>(bytes.at(0))));
}

QString brokenText(const Received &received)
{
    if (received.handler == nullptr)
        return QStringLiteral("frame broke off after %1 bytes").arg(received.bytes.size());
    return QStringLiteral("frame broke off after %1 of %2 bytes")
        .arg(received.bytes.size())
        .arg(received.claim.length);
}

} // namespace

Board::Board(const Options &options, Line &line, Report &report)
    : m_options(options)
    , m_plan(options.faults)
    , m_line(line)
    , m_report(report)
    , m_recorder(Transcript(options.transcript, options.hexStyle), report)
    , m_speaker(options, m_plan, line, m_recorder)
    , m_versionQuery(Step::Version, versionQuery(), versionVerdict(options.versionText),
                     report.versionQueries)
    , m_startCommand(Step::StartCommand, startCommand(), startVerdict(), report.startCommands)
    , m_handshakeV3(Step::Handshake, handshake(ProtocolVersion::V3),
                    handshakeVerdict(ProtocolVersion::V3, options.params), report.handshakesV3)
    , m_handshakeV4(Step::Handshake, handshake(ProtocolVersion::V4),
                    handshakeVerdict(ProtocolVersion::V4, options.params), report.handshakesV4)
    , m_packets(options.deviceId, report)
    , m_receiver(report)
    , m_assembler(options.frameGap)
{
}

void Board::begin(TimePoint now)
{
    m_recorder.note(now,
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
    if (const auto received = m_assembler.take(now))
        handle(now, *received);
    if (m_nextRequest && now >= *m_nextRequest) {
        m_nextRequest = now + m_options.requestInterval;
        m_speaker.request(now);
    }
    m_speaker.step(now);
}

std::optional<TimePoint> Board::deadline() const
{
    const auto sending = sooner(m_line.deadline(), m_speaker.deadline());
    return sooner(sending, sooner(m_nextRequest, m_assembler.deadline()));
}

void Board::end(TimePoint now)
{
    const auto rest = m_assembler.takeRest();
    if (rest && m_report.hungUp)
        m_recorder.received(now, QStringLiteral("what came before the hang-up"), rest->bytes);
    else if (rest)
        handle(now, *rest);
    m_recorder.note(now, QStringLiteral("board is off"));
}

FrameAssembler::Handlers Board::activeHandlers()
{
    // A boot loader that gets a command before the transfer has begun starts the application,
    // which answers it: an assistant without a firmware file never sends the start frame.
    if (m_inBootLoader && !m_receiver.awaitsStartFrame())
        return {&m_receiver};
    FrameAssembler::Handlers handlers{&m_versionQuery, &m_startCommand, &m_handshakeV3,
                                      &m_handshakeV4};
    if (m_inBootLoader)
        handlers << &m_packets;
    return handlers << &m_receiver;
}

void Board::take(TimePoint now, char byte)
{
    if (m_toLose > 0) {
        --m_toLose;
        return;
    }
    m_assembler.add(now, byte, activeHandlers());
    makeReceivingFaults(now);
    if (m_report.hungUp)
        return;
    if (const auto received = m_assembler.take(now))
        handle(now, *received);
}

void Board::makeReceivingFaults(TimePoint now)
{
    const Claim *claim = m_assembler.claim();
    if (claim == nullptr)
        return;
    const auto offset = m_plan.hangUpOffset(claim->place, claim->length);
    if (offset && *offset <= m_assembler.size()) {
        m_recorder.faultMade(now, *m_plan.find(FaultKind::HangUp, claim->place));
        m_recorder.hungUp(now);
        return;
    }
    const Fault *loss = m_plan.find(FaultKind::LoseBytes, claim->place);
    if (loss != nullptr && !m_hasLost && m_assembler.size() >= claim->length / 2) {
        m_hasLost = true;
        m_toLose = loss->number.value_or(0);
        m_recorder.faultMade(now, *loss);
    }
}

void Board::handle(TimePoint now, const Received &received)
{
    m_toLose = 0;
    m_hasLost = false;
    if (received.kind == Received::Kind::Whole)
        handleFrame(now, received);
    else
        handleBroken(now, received);
}

void Board::handleFrame(TimePoint now, const Received &received)
{
    m_speaker.stopRepeating();
    m_nextRequest.reset();
    if (received.handler->isForApplication())
        leaveBootLoader(now);

    const Verdict verdict = received.handler->receive(received.bytes);
    m_recorder.received(now, verdict.meaning, received.bytes);
    if (verdict.opensExchange)
        m_recorder.newExchange();
    for (const QString &text : verdict.violations)
        m_recorder.violated(now, text);

    TimePoint answered = now;
    if (verdict.answer)
        answered =
            m_speaker.answer(now, *verdict.answer, received.claim.place, received.bytes.size());
    switch (verdict.next) {
    case Verdict::Next::Stay:
        break;
    case Verdict::Next::EnterBootLoader:
        enterBootLoader(now, answered + m_options.bootDelay);
        break;
    case Verdict::Next::LeaveBootLoader:
        m_inBootLoader = false;
        keepImage(now);
        break;
    }
}

void Board::handleBroken(TimePoint now, const Received &received)
{
    const bool stray = received.kind == Received::Kind::Stray;
    m_recorder.received(now,
                        stray ? QStringLiteral("unexpected bytes") : QStringLiteral("broken frame"),
                        received.bytes);
    m_recorder.violated(now, stray ? strayText(received.bytes) : brokenText(received));
    if (stray || received.handler == nullptr)
        return;
    if (const auto answer = received.handler->answerToBrokenFrame())
        m_speaker.answer(now, *answer, received.claim.place, received.bytes.size());
}

void Board::enterBootLoader(TimePoint now, TimePoint firstRequest)
{
    m_recorder.note(now, QStringLiteral("board enters its boot loader"));
    m_inBootLoader = true;
    m_packets.begin();
    m_receiver.begin();
    m_nextRequest = firstRequest;
}

void Board::leaveBootLoader(TimePoint now)
{
    if (!m_inBootLoader)
        return;
    m_recorder.note(now, QStringLiteral("board leaves its boot loader"));
    m_inBootLoader = false;
    m_receiver.giveUp();
}

void Board::keepImage(TimePoint now)
{
    const QByteArray image = m_report.lastTransfer().image;
    m_recorder.note(now,
                    QStringLiteral("transfer is complete, image of %1 bytes").arg(image.size()));
    if (m_options.imageFile.isEmpty())
        return;
    QFile file(m_options.imageFile);
    if (!file.open(QIODevice::WriteOnly) || file.write(image) != image.size() || !file.flush())
        m_recorder.failed(
            now,
            QStringLiteral("cannot write %1: %2").arg(m_options.imageFile, file.errorString()));
}

} // namespace boardsim
