#include "frameassembler.h"

#include <utility>

namespace boardsim {

FrameAssembler::FrameAssembler(Milliseconds gap)
    : m_gap(gap)
{
}

void FrameAssembler::add(TimePoint now, char byte, const Handlers &handlers)
{
    m_current.bytes.append(byte);
    m_lastByte = now;
    if (m_current.kind != Received::Kind::Stray && claim() == nullptr)
        claimStart(handlers);
}

std::optional<Received> FrameAssembler::take(TimePoint now)
{
    if (m_current.bytes.isEmpty())
        return std::nullopt;
    const bool whole = claim() != nullptr && size() == claim()->length;
    if (whole)
        m_current.kind = Received::Kind::Whole;
    else if (now < m_lastByte + m_gap)
        return std::nullopt;
    return std::exchange(m_current, Received{});
}

std::optional<Received> FrameAssembler::takeRest()
{
    return take(m_lastByte + m_gap);
}

std::optional<TimePoint> FrameAssembler::deadline() const
{
    if (m_current.bytes.isEmpty())
        return std::nullopt;
    return m_lastByte + m_gap;
}

void FrameAssembler::claimStart(const Handlers &handlers)
{
    m_current.kind = Received::Kind::Stray;
    for (FrameHandler *handler : handlers) {
        const std::optional<Claim> claim = handler->claim(m_current.bytes);
        if (!claim)
            continue;
        m_current.kind = Received::Kind::Broken; // until it is whole
        if (claim->length > 0) {
            m_current.handler = handler;
            m_current.claim = *claim;
            return;
        }
    }
}

} // namespace boardsim
