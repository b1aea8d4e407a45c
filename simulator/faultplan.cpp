#include "faultplan.h"

#include "commandframes.h"
#include "controlbytes.h"

#include <algorithm>
#include <utility>

namespace boardsim {

namespace {

/// For what left the board just before it hung up to be read: a hang-up discards the rest.
constexpr Milliseconds kTimeToRead{300};

constexpr char kParamFiller = 'x';

/// Shapes one answer: each step makes the faults of one sort.
class Shaper {
public:
    Shaper(const FaultPlan &plan, const Place &place, const DeliveryTerms &terms)
        : m_plan(plan)
        , m_place(place)
        , m_terms(terms)
    {
    }

    Delivery shape(const Answer &answer)
    {
        switch (answer.kind) {
        case Answer::Kind::Frame:
            shapeFrame(answer);
            break;
        case Answer::Kind::Packet:
            add(answer.bytes, answer.meaning);
            break;
        case Answer::Kind::Control:
            shapeControl(answer);
            break;
        }
        loseTail();
        addGarbage();
        addConsole();
        split();
        slowDown();
        hangUp();
        m_delivery.keepBack = make(FaultKind::Merge) != nullptr;
        return m_delivery;
    }

private:
    const Fault *make(FaultKind kind)
    {
        const Fault *fault = m_plan.find(kind, m_place);
        if (fault != nullptr)
            m_delivery.faults.append(*fault);
        return fault;
    }

    void add(const QByteArray &bytes, const QString &meaning, Milliseconds delay = {})
    {
        Write write;
        write.bytes = bytes;
        write.meaning = meaning;
        write.delay = delay;
        m_delivery.writes.append(write);
    }

    void shapeFrame(const Answer &answer)
    {
        QByteArray frame = answer.bytes;
        if (answer.paramOffset > 0)
            shapeParams(frame, answer.paramOffset);
        const int size = frame.size();
        if (const Fault *fault = make(FaultKind::WrongHead))
            frame[0] = fault->bytes.at(0);
        if (const Fault *fault = make(FaultKind::WrongLength))
            frame[1] = fault->bytes.isEmpty() ? static_cast<char>(size + 1) : fault->bytes.at(0);
        if (make(FaultKind::WrongChecksum) != nullptr)
            frame[size - 3] = static_cast<char>(frame.at(size - 3) ^ 1);
        if (const Fault *fault = make(FaultKind::WrongFoot))
            frame[size - 1] = fault->bytes.at(0);
        if (make(FaultKind::NoStartAnswer) == nullptr)
            add(frame, answer.meaning);
    }

    void shapeParams(QByteArray &frame, int offset)
    {
        QByteArray params = paramsOf(frame, offset);
        if (make(FaultKind::NoUnderscore) != nullptr)
            params.replace('_', '-');
        if (const Fault *fault = make(FaultKind::FullParams)) {
            params.replace('\0', kParamFiller);
            params = params.leftJustified(fault->number.value_or(0), kParamFiller);
        }
        frame = withParams(frame, offset, params);
    }

    void shapeControl(const Answer &answer)
    {
        Answer proper = answer;
        if (const Fault *fault = make(FaultKind::AckC)) {
            const bool ackFirst = fault->bytes == "ack-first";
            proper.bytes =
                ackFirst ? QByteArray{1, kAck} + kRequest : QByteArray{1, kRequest} + kAck;
            proper.meaning =
                ackFirst ? QStringLiteral("ACK and 'C'") : QStringLiteral("'C' and ACK");
        }
        proper.bytes = filledUp(proper.bytes, m_terms.controlRepeat);
        if (const Fault *fault = make(FaultKind::RepeatControl)) {
            m_delivery.repeatEvery = Milliseconds(fault->number.value_or(0));
            m_delivery.repeated = proper.bytes;
        }
        if (make(FaultKind::LostAck) != nullptr)
            return;
        Milliseconds delay{0};
        if (!refuse(FaultKind::Nak, QByteArray(1, kNak), QStringLiteral("NAK"), delay)
            || !refuse(FaultKind::Cancel, QByteArray(2, kCancel), QStringLiteral("CA CA"), delay))
            return;
        const Fault *repeat = make(FaultKind::RepeatAck);
        const int times = repeat == nullptr ? 1 : repeat->number.value_or(1);
        for (int i = 0; i < times; ++i) {
            add(proper.bytes, proper.meaning, delay);
            delay = Milliseconds(0);
        }
    }

    /// Adds a refusal when that fault is to be made. False when nothing follows it.
    bool refuse(FaultKind kind, const QByteArray &bytes, const QString &meaning,
                Milliseconds &delay)
    {
        const Fault *fault = make(kind);
        if (fault == nullptr)
            return true;
        add(filledUp(bytes, m_terms.controlRepeat), meaning, delay);
        delay = Milliseconds(fault->number.value_or(0));
        return fault->number.has_value();
    }

    void loseTail()
    {
        const Fault *fault = make(FaultKind::DropBytes);
        int left = fault == nullptr ? 0 : fault->number.value_or(0);
        while (left > 0 && !m_delivery.writes.isEmpty()) {
            QByteArray &bytes = m_delivery.writes.last().bytes;
            const int lost = std::min(left, bytes.size());
            bytes.chop(lost);
            left -= lost;
            if (bytes.isEmpty())
                m_delivery.writes.removeLast();
        }
    }

    void addGarbage()
    {
        if (const Fault *fault = make(FaultKind::GarbageBefore)) {
            if (m_delivery.writes.isEmpty())
                add({}, QString());
            m_delivery.writes.first().bytes.prepend(fault->bytes);
            m_delivery.writes.first().meaning.prepend(QStringLiteral("garbage, "));
        }
        if (const Fault *fault = make(FaultKind::GarbageAfter)) {
            if (m_delivery.writes.isEmpty())
                add({}, QString());
            m_delivery.writes.last().bytes.append(fault->bytes);
            m_delivery.writes.last().meaning.append(QStringLiteral(", garbage"));
        }
    }

    void addConsole()
    {
        if (const Fault *fault = make(FaultKind::Console))
            add(fault->bytes, QStringLiteral("console text"), m_terms.bootDelay);
    }

    void split()
    {
        const Fault *fault = make(FaultKind::Split);
        if (fault == nullptr)
            return;
        const Milliseconds gap{fault->number.value_or(0)};
        const QVector<Write> whole = m_delivery.writes;
        m_delivery.writes.clear();
        for (const Write &write : whole) {
            for (int i = 0; i < write.bytes.size(); ++i)
                add(write.bytes.mid(i, 1),
                    QStringLiteral("%1, byte %2 of %3")
                        .arg(write.meaning)
                        .arg(i + 1)
                        .arg(write.bytes.size()),
                    i == 0 ? write.delay : gap);
        }
    }

    void slowDown()
    {
        const Fault *fault = make(FaultKind::Slow);
        if (fault != nullptr && !m_delivery.writes.isEmpty())
            m_delivery.writes.first().delay += Milliseconds(fault->number.value_or(0));
    }

    void hangUp()
    {
        const auto offset = m_plan.hangUpOffset(m_place, m_terms.frameSize);
        if (!offset || *offset <= m_terms.frameSize)
            return;
        make(FaultKind::HangUp);
        int left = *offset - m_terms.frameSize;
        QVector<Write> sent;
        for (const Write &write : qAsConst(m_delivery.writes)) {
            if (left == 0)
                break;
            sent.append(write);
            sent.last().bytes.truncate(left);
            left -= sent.last().bytes.size();
        }
        m_delivery.writes = std::move(sent);
        add({}, QString(), kTimeToRead);
        m_delivery.writes.last().hangUpAfter = true;
    }

    const FaultPlan &m_plan;
    const Place m_place;
    const DeliveryTerms m_terms;
    Delivery m_delivery;
};

} // namespace

FaultPlan::FaultPlan(const QVector<Fault> &faults)
    : m_faults(faults)
{
}

const Fault *FaultPlan::find(FaultKind kind, const Place &place) const
{
    const auto found = std::find_if(m_faults.begin(), m_faults.end(), [&](const Fault &fault) {
        if (fault.kind != kind)
            return false;
        return fault.place ? fault.place->matches(place)
                           : faultRule(kind).steps.contains(place.step);
    });
    return found == m_faults.end() ? nullptr : &*found;
}

std::optional<int> FaultPlan::hangUpOffset(const Place &place, int frameSize) const
{
    const Fault *fault = find(FaultKind::HangUp, place);
    if (fault == nullptr)
        return std::nullopt;
    return fault->number.value_or(frameSize / 2);
}

Delivery FaultPlan::deliver(const Answer &answer, const Place &place,
                            const DeliveryTerms &terms) const
{
    return Shaper(*this, place, terms).shape(answer);
}

QByteArray filledUp(const QByteArray &control, int count)
{
    return control.leftJustified(count, control.back());
}

} // namespace boardsim
