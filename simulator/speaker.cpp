#include "speaker.h"

#include "controlbytes.h"

namespace boardsim {

Speaker::Speaker(const Options &options, const FaultPlan &plan, Line &line, Recorder &recorder)
    : m_controlRepeat(options.controlRepeat)
    , m_bootDelay(options.bootDelay)
    , m_plan(plan)
    , m_line(line)
    , m_recorder(recorder)
{
}

TimePoint Speaker::answer(TimePoint now, const Answer &answer, const Place &place, int frameSize)
{
    if (isSilent(now, place))
        return now;
    const Delivery delivery =
        m_plan.deliver(answer, place, {frameSize, m_controlRepeat, m_bootDelay});
    for (const Fault &fault : delivery.faults)
        m_recorder.faultMade(now, fault);

    TimePoint done = now;
    if (delivery.keepBack)
        keepBack(delivery.writes);
    else
        done = send(now, delivery.writes);

    if (delivery.repeatEvery) {
        m_repeated = {};
        m_repeated.bytes = delivery.repeated;
        m_repeated.meaning = QStringLiteral("the same again");
        m_repeatEvery = *delivery.repeatEvery;
        m_nextRepeat = done + m_repeatEvery;
    }
    return done;
}

void Speaker::request(TimePoint now)
{
    if (isSilent(now, {Step::StartFrame}))
        return;
    Write write;
    write.bytes = filledUp(QByteArray(1, kRequest), m_controlRepeat);
    write.meaning = QStringLiteral("'C', asks for the start frame");
    send(now, {write});
}

void Speaker::stopRepeating()
{
    m_nextRepeat.reset();
}

void Speaker::step(TimePoint now)
{
    if (m_nextRepeat && now >= *m_nextRepeat) {
        m_nextRepeat = now + m_repeatEvery;
        send(now, {m_repeated});
    }
    sendDue(now);
}

bool Speaker::isSilent(TimePoint now, const Place &place)
{
    if (m_silent)
        return true;
    const Fault *fault = m_plan.find(FaultKind::Silent, place);
    if (fault == nullptr)
        return false;
    m_silent = true;
    m_recorder.faultMade(now, *fault);
    return true;
}

void Speaker::keepBack(const QVector<Write> &writes)
{
    for (const Write &write : writes) {
        m_keptBack.bytes += write.bytes;
        m_keptBack.meaning += write.meaning + QStringLiteral(", then ");
    }
}

TimePoint Speaker::send(TimePoint now, QVector<Write> writes)
{
    if (!writes.isEmpty()) {
        writes.first().bytes.prepend(m_keptBack.bytes);
        writes.first().meaning.prepend(m_keptBack.meaning);
        m_keptBack = {};
    }
    TimePoint done = now;
    for (const Write &write : qAsConst(writes))
        done = m_line.queue(write, now);
    sendDue(now);
    return done;
}

void Speaker::sendDue(TimePoint now)
{
    for (const Write &write : m_line.sendDue(now)) {
        if (!write.bytes.isEmpty())
            m_recorder.sent(now, write.meaning, write.bytes);
        if (write.hangUpAfter)
            m_recorder.hungUp(now);
    }
}

} // namespace boardsim
