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

/// One answer of the boot loader: filled up with its last byte to at least `count` bytes, so that
/// a reader that waits for so many gets it at once, and gets it in one piece.
QByteArray filledUp(const QByteArray &control, int count)
{
    return control.leftJustified(count, control.back());
}

QString strayText(const QByteArray &bytes)
{
    if (bytes.size() > 1 && static_cast<quint8>(bytes.at(0)) == kFrameMark)
        return QStringLiteral("frame with length byte 0x%1, which is no command's here: %2")
            .arg(hexByte(static_cast<quint8>(bytes.at(1))), hexBytes(bytes));
    return QStringLiteral("unexpected bytes: %1").arg(hexBytes(bytes));
}

} // namespace

Board::Board(const Options &options, Line &line, Report &report)
    : m_options(options)
    , m_line(line)
    , m_report(report)
    , m_transcript(options.transcript, options.hexStyle)
    , m_versionQuery(Step::Version, versionQuery(), versionVerdict(options.versionText),
                     report.versionQueries)
    , m_startCommand(Step::StartCommand, startCommand(), startVerdict(), report.startCommands)
    , m_receiver(report)
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
    const QByteArray arrived = m_line.takeArrived(now);
    for (const char byte : arrived)
        take(now, byte);
    if (arrived.isEmpty() && !m_frame.isEmpty() && now >= m_lastByte + m_options.frameGap)
        dropBrokenFrame(now);
    if (m_nextRequest && now >= *m_nextRequest)
        requestStartFrame(now);
    sendDue(now);
}

std::optional<TimePoint> Board::deadline() const
{
    std::optional<TimePoint> next = sooner(m_line.deadline(), m_nextRequest);
    if (!m_frame.isEmpty())
        next = sooner(next, m_lastByte + m_options.frameGap);
    return next;
}

void Board::end(TimePoint now)
{
    if (!m_frame.isEmpty())
        dropBrokenFrame(now);
    m_transcript.note(now, QStringLiteral("board is off"));
}

Board::Handlers Board::activeHandlers()
{
    // A boot loader that gets a command before the transfer has begun starts the application,
    // which answers it: an assistant without a firmware file never sends the start frame.
    if (m_inBootLoader && !m_receiver.awaitsStartFrame())
        return {&m_receiver};
    return {&m_versionQuery, &m_startCommand, &m_receiver};
}

void Board::take(TimePoint now, char byte)
{
    m_frame.append(byte);
    m_lastByte = now;
    if (m_stray)
        return;
    if (m_claim.length == 0)
        claimStart();
    if (m_claim.length > 0 && m_frame.size() == m_claim.length)
        finishFrame(now);
}

void Board::claimStart()
{
    m_stray = true;
    for (FrameHandler *handler : activeHandlers()) {
        const std::optional<Claim> claim = handler->claim(m_frame);
        if (!claim)
            continue;
        m_stray = false;
        if (claim->length > 0) {
            m_handler = handler;
            m_claim = *claim;
            return;
        }
    }
}

void Board::finishFrame(TimePoint now)
{
    const QByteArray frame = m_frame;
    const Place place = m_claim.place;
    FrameHandler *handler = m_handler;
    m_frame.clear();
    m_claim = {};
    m_handler = nullptr;

    m_nextRequest.reset();
    if (handler != &m_receiver)
        leaveBootLoader(now);
    const Verdict verdict = handler->receive(frame);
    record(now, true, verdict.meaning, frame);
    carryOut(now, verdict, place);
}

void Board::dropBrokenFrame(TimePoint now)
{
    const QByteArray frame = m_frame;
    const Claim claim = m_claim;
    const FrameHandler *handler = m_handler;
    const bool stray = m_stray;
    m_frame.clear();
    m_claim = {};
    m_handler = nullptr;
    m_stray = false;

    record(now, true, stray ? QStringLiteral("unexpected bytes") : QStringLiteral("broken frame"),
           frame);
    if (stray) {
        violate(now, strayText(frame));
        return;
    }
    violate(now,
            claim.length == 0 ? QStringLiteral("frame broke off after %1 bytes").arg(frame.size())
                              : QStringLiteral("frame broke off after %1 of %2 bytes")
                                    .arg(frame.size())
                                    .arg(claim.length));
    if (handler == nullptr)
        return;
    if (const auto reply = handler->answerToBrokenFrame())
        answer(now, *reply, claim.place);
}

void Board::carryOut(TimePoint now, const Verdict &verdict, const Place &place)
{
    for (const QString &text : verdict.violations)
        violate(now, text);
    if (verdict.answer)
        answer(now, *verdict.answer, place);
    switch (verdict.next) {
    case Verdict::Next::Stay:
        break;
    case Verdict::Next::EnterBootLoader:
        enterBootLoader(now, m_answerDone + m_options.bootDelay);
        break;
    case Verdict::Next::LeaveBootLoader:
        m_inBootLoader = false;
        keepImage(now);
        break;
    }
}

void Board::enterBootLoader(TimePoint now, TimePoint firstRequest)
{
    m_transcript.note(now, QStringLiteral("board enters its boot loader"));
    m_inBootLoader = true;
    m_receiver.begin();
    m_nextRequest = firstRequest;
}

void Board::leaveBootLoader(TimePoint now)
{
    if (!m_inBootLoader)
        return;
    m_transcript.note(now, QStringLiteral("board leaves its boot loader"));
    m_inBootLoader = false;
    m_receiver.giveUp();
}

void Board::answer(TimePoint now, const Answer &answer, const Place &)
{
    const bool control = answer.kind == Answer::Kind::Control;
    Write write;
    write.bytes = control ? filledUp(answer.bytes, m_options.controlRepeat) : answer.bytes;
    write.meaning = answer.meaning;
    send(now, {write});
}

void Board::send(TimePoint now, const QVector<Write> &writes)
{
    for (const Write &write : writes)
        m_answerDone = m_line.queue(write, now);
    sendDue(now);
}

void Board::sendDue(TimePoint now)
{
    for (const Write &write : m_line.sendDue(now))
        record(now, false, write.meaning, write.bytes);
}

void Board::requestStartFrame(TimePoint now)
{
    m_nextRequest = now + m_options.requestInterval;
    Write write;
    write.bytes = filledUp(QByteArray(1, kRequest), m_options.controlRepeat);
    write.meaning = QStringLiteral("'C', asks for the start frame");
    send(now, {write});
}

void Board::violate(TimePoint now, const QString &text)
{
    m_transcript.violation(now, text);
    m_report.violations.append({m_transcript.elapsedMs(now), text, QString()});
}

void Board::keepImage(TimePoint now)
{
    const QByteArray image = m_report.lastTransfer().image;
    m_transcript.note(now,
                      QStringLiteral("transfer is complete, image of %1 bytes").arg(image.size()));
    if (m_options.imageFile.isEmpty())
        return;
    QFile file(m_options.imageFile);
    if (!file.open(QIODevice::WriteOnly) || file.write(image) != image.size() || !file.flush())
        m_report.errors
            << QStringLiteral("cannot write %1: %2").arg(m_options.imageFile, file.errorString());
}

void Board::record(TimePoint now, bool toBoard, const QString &meaning, const QByteArray &bytes)
{
    if (toBoard)
        m_transcript.received(now, meaning, bytes);
    else
        m_transcript.sent(now, meaning, bytes);
    m_report.frames.append({m_transcript.elapsedMs(now), toBoard, meaning, bytes});
}

} // namespace boardsim
