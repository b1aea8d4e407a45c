#include "replysender.h"

#include "commanddecoder.h"
#include "ymodemreceiver.h"

#include <algorithm>
#include <utility>

namespace boardsim {

namespace {

/// For the assistant to read what was sent just before a hang-up, which discards the rest.
constexpr Milliseconds kTimeToRead{300};

constexpr char kParamFiller = 'x';

/// Filled up to at least `count` bytes with its last one, so that a reader that waits for so many
/// gets it at once and in one piece.
QByteArray filledUp(const QByteArray &control, int count)
{
    return control.leftJustified(count, control.back());
}

/// A reply as it leaves the board, faults and all.
struct FaultyReply {
    QVector<Chunk> chunks;
    bool holdBack = false;                   // until the next is sent
    std::optional<Milliseconds> repeatEvery; // `repeated` again and again until a frame comes
    QByteArray repeated;
    QVector<Fault> faults; // those that were made
};

/// What a reply depends on besides its place and the faults.
struct Conditions {
    int frameSize; // of the frame that is replied to
    int controlRepeat;
    Milliseconds bootDelay;
};

/// Makes the faults of one reply, one sort after the other.
class FaultMaker {
public:
    FaultMaker(const FaultPlan &plan, const Place &place, const Conditions &conditions)
        : m_plan(plan)
        , m_place(place)
        , m_conditions(conditions)
    {
    }

    FaultyReply make(const Reply &reply)
    {
        if (isCommand(m_place.step))
            addFrame(reply);
        else if (isTransfer(m_place.step))
            addControl(reply);
        else
            add(reply.bytes, reply.meaning);
        loseTail();
        addGarbage();
        addConsole();
        split();
        slowDown();
        hangUp();
        m_reply.holdBack = take(FaultKind::Merge) != nullptr;
        return m_reply;
    }

private:
    const Fault *take(FaultKind kind)
    {
        const Fault *fault = m_plan.find(kind, m_place);
        if (fault)
            m_reply.faults.append(*fault);
        return fault;
    }

    void add(const QByteArray &bytes, const QString &meaning, Milliseconds delay = {})
    {
        Chunk chunk;
        chunk.bytes = bytes;
        chunk.meaning = meaning;
        chunk.delay = delay;
        m_reply.chunks.append(chunk);
    }

    void addFrame(const Reply &reply)
    {
        QByteArray frame = reply.bytes;
        if (reply.paramOffset > 0)
            changeParams(frame, reply.paramOffset);
        const int size = frame.size();
        if (const Fault *fault = take(FaultKind::WrongHead))
            frame[0] = fault->bytes.at(0);
        if (const Fault *fault = take(FaultKind::WrongLength))
            frame[1] = fault->bytes.isEmpty() ? static_cast<char>(size + 1) : fault->bytes.at(0);
        if (take(FaultKind::WrongChecksum))
            frame[size - 3] = static_cast<char>(frame.at(size - 3) ^ 1);
        if (const Fault *fault = take(FaultKind::WrongFoot))
            frame[size - 1] = fault->bytes.at(0);
        if (!take(FaultKind::NoStartAnswer))
            add(frame, reply.meaning);
    }

    void changeParams(QByteArray &frame, int offset)
    {
        QByteArray params = paramsOf(frame, offset);
        if (take(FaultKind::NoUnderscore))
            params.replace('_', '-');
        if (const Fault *fault = take(FaultKind::FullParams)) {
            params.replace('\0', kParamFiller);
            params = params.leftJustified(fault->number.value_or(0), kParamFiller);
        }
        frame = withParams(frame, offset, params);
    }

    void addControl(const Reply &reply)
    {
        Reply proper = reply;
        if (const Fault *fault = take(FaultKind::AckC)) {
            const bool ackFirst = fault->bytes == "ack-first";
            proper.bytes =
                ackFirst ? QByteArray{1, kAck} + kRequest : QByteArray{1, kRequest} + kAck;
            proper.meaning =
                ackFirst ? QStringLiteral("ACK and 'C'") : QStringLiteral("'C' and ACK");
        }
        proper.bytes = filledUp(proper.bytes, m_conditions.controlRepeat);
        if (const Fault *fault = take(FaultKind::RepeatControl)) {
            m_reply.repeatEvery = Milliseconds(fault->number.value_or(0));
            m_reply.repeated = proper.bytes;
        }
        if (take(FaultKind::LostAck))
            return;
        Milliseconds delay{0};
        if (!refuse(FaultKind::Nak, QByteArray(1, kNak), QStringLiteral("NAK"), delay)
            || !refuse(FaultKind::Cancel, QByteArray(2, kCancel), QStringLiteral("CA CA"), delay))
            return;
        const Fault *repeat = take(FaultKind::RepeatAck);
        const int times = repeat ? repeat->number.value_or(1) : 1;
        for (int i = 0; i < times; ++i) {
            add(proper.bytes, proper.meaning, delay);
            delay = Milliseconds(0);
        }
    }

    /// Adds a refusal when that fault is to be made. False when nothing follows it.
    bool refuse(FaultKind kind, const QByteArray &bytes, const QString &meaning,
                Milliseconds &delay)
    {
        const Fault *fault = take(kind);
        if (!fault)
            return true;
        add(filledUp(bytes, m_conditions.controlRepeat), meaning, delay);
        delay = Milliseconds(fault->number.value_or(0));
        return fault->number.has_value();
    }

    void loseTail()
    {
        const Fault *fault = take(FaultKind::DropBytes);
        int left = fault ? fault->number.value_or(0) : 0;
        while (left > 0 && !m_reply.chunks.isEmpty()) {
            QByteArray &bytes = m_reply.chunks.last().bytes;
            const int lost = std::min<int>(left, bytes.size());
            bytes.chop(lost);
            left -= lost;
            if (bytes.isEmpty())
                m_reply.chunks.removeLast();
        }
    }

    void addGarbage()
    {
        if (const Fault *fault = take(FaultKind::GarbageBefore)) {
            if (m_reply.chunks.isEmpty())
                add({}, QString());
            m_reply.chunks.first().bytes.prepend(fault->bytes);
            m_reply.chunks.first().meaning.prepend(QStringLiteral("garbage, "));
        }
        if (const Fault *fault = take(FaultKind::GarbageAfter)) {
            if (m_reply.chunks.isEmpty())
                add({}, QString());
            m_reply.chunks.last().bytes.append(fault->bytes);
            m_reply.chunks.last().meaning.append(QStringLiteral(", garbage"));
        }
    }

    void addConsole()
    {
        if (const Fault *fault = take(FaultKind::Console))
            add(fault->bytes, QStringLiteral("console text"), m_conditions.bootDelay);
    }

    void split()
    {
        const Fault *fault = take(FaultKind::Split);
        if (!fault)
            return;
        const Milliseconds gap{fault->number.value_or(0)};
        const QVector<Chunk> whole = m_reply.chunks;
        m_reply.chunks.clear();
        for (const Chunk &chunk : whole) {
            for (int i = 0; i < chunk.bytes.size(); ++i)
                add(chunk.bytes.mid(i, 1),
                    QStringLiteral("%1, byte %2 of %3")
                        .arg(chunk.meaning)
                        .arg(i + 1)
                        .arg(chunk.bytes.size()),
                    i == 0 ? chunk.delay : gap);
        }
    }

    void slowDown()
    {
        const Fault *fault = take(FaultKind::Slow);
        if (fault && !m_reply.chunks.isEmpty())
            m_reply.chunks.first().delay += Milliseconds(fault->number.value_or(0));
    }

    void hangUp()
    {
        const auto offset = m_plan.hangUpOffset(m_place, m_conditions.frameSize);
        if (!offset || *offset <= m_conditions.frameSize)
            return;
        take(FaultKind::HangUp);
        int left = *offset - m_conditions.frameSize;
        QVector<Chunk> sent;
        for (const Chunk &chunk : qAsConst(m_reply.chunks)) {
            if (left == 0)
                break;
            sent.append(chunk);
            sent.last().bytes.truncate(left);
            left -= sent.last().bytes.size();
        }
        m_reply.chunks = std::move(sent);
        add({}, QString(), kTimeToRead);
        m_reply.chunks.last().hangUpAfter = true;
    }

    const FaultPlan &m_plan;
    const Place m_place;
    const Conditions m_conditions;
    FaultyReply m_reply;
};

} // namespace

ReplySender::ReplySender(const Options &options, const FaultPlan &plan, SerialLine &line,
                         Transcript &transcript)
    : m_controlRepeat(options.controlRepeat)
    , m_bootDelay(options.bootDelay)
    , m_plan(plan)
    , m_line(line)
    , m_transcript(transcript)
{
}

TimePoint ReplySender::reply(TimePoint now, const Reply &reply, const Place &place, int frameSize)
{
    if (isSilent(now, place))
        return now;
    const FaultyReply faulty =
        FaultMaker(m_plan, place, {frameSize, m_controlRepeat, m_bootDelay}).make(reply);
    for (const Fault &fault : faulty.faults)
        m_transcript.faultMade(now, fault.text);

    TimePoint done = now;
    if (faulty.holdBack) {
        for (const Chunk &chunk : faulty.chunks) {
            m_heldBack.bytes += chunk.bytes;
            m_heldBack.meaning += chunk.meaning + QStringLiteral(", then ");
        }
    } else {
        done = send(now, faulty.chunks);
    }

    if (faulty.repeatEvery) {
        m_repeated = {};
        m_repeated.bytes = faulty.repeated;
        m_repeated.meaning = QStringLiteral("the same again");
        m_repeatEvery = *faulty.repeatEvery;
        m_nextRepeat = done + m_repeatEvery;
    }
    return done;
}

void ReplySender::request(TimePoint now)
{
    if (isSilent(now, {Step::StartFrame}))
        return;
    Chunk chunk;
    chunk.bytes = filledUp(QByteArray(1, kRequest), m_controlRepeat);
    chunk.meaning = QStringLiteral("'C', asks for the start frame");
    send(now, {chunk});
}

void ReplySender::step(TimePoint now)
{
    if (m_nextRepeat && now >= *m_nextRepeat) {
        m_nextRepeat = now + m_repeatEvery;
        send(now, {m_repeated});
    }
    sendDue(now);
}

bool ReplySender::isSilent(TimePoint now, const Place &place)
{
    if (m_silent)
        return true;
    const Fault *fault = m_plan.find(FaultKind::Silent, place);
    if (!fault)
        return false;
    m_silent = true;
    m_transcript.faultMade(now, fault->text);
    return true;
}

TimePoint ReplySender::send(TimePoint now, QVector<Chunk> chunks)
{
    if (!chunks.isEmpty()) {
        chunks.first().bytes.prepend(m_heldBack.bytes);
        chunks.first().meaning.prepend(m_heldBack.meaning);
        m_heldBack = {};
    }
    TimePoint done = now;
    for (const Chunk &chunk : qAsConst(chunks))
        done = m_line.queue(chunk, now);
    sendDue(now);
    return done;
}

void ReplySender::sendDue(TimePoint now)
{
    for (const Chunk &chunk : m_line.sendDue(now)) {
        if (!chunk.bytes.isEmpty())
            m_transcript.sent(now, chunk.meaning, chunk.bytes);
        if (chunk.hangUpAfter)
            m_transcript.hungUp(now);
    }
}

} // namespace boardsim
