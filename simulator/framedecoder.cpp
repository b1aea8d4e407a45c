#include "framedecoder.h"

#include "commanddecoder.h"

#include <utility>

namespace boardsim {

namespace {

QString unexpectedText(const QByteArray &bytes)
{
    if (bytes.size() > 1 && byteAt(bytes, 0) == kFrameMark)
        return QStringLiteral("frame of %1 bytes with length byte 0x%2 is no command here")
            .arg(bytes.size())
            .arg(hexByte(byteAt(bytes, 1)));
    return QStringLiteral("%1 unexpected bytes from 0x%2 on")
        .arg(bytes.size())
        .arg(hexByte(byteAt(bytes, 0)));
}

QString brokenText(const Received &received)
{
    if (!received.decoder)
        return QStringLiteral("frame broke off after %1 bytes").arg(received.bytes.size());
    return QStringLiteral("frame broke off after %1 of %2 bytes")
        .arg(received.bytes.size())
        .arg(received.match.length);
}

} // namespace

DecodedFrame decode(const Received &received)
{
    using Outcome = DecodedFrame::Outcome;
    switch (received.kind) {
    case Received::Kind::Whole:
        return received.decoder->decode(received.bytes);
    case Received::Kind::Broken: {
        const bool refused = received.decoder && received.decoder->refusesBrokenFrames();
        return {QStringLiteral("broken frame"),
                {brokenText(received)},
                refused ? Outcome::Refused : Outcome::Ignored};
    }
    case Received::Kind::Unexpected:
        break;
    }
    return {QStringLiteral("unexpected bytes"), {unexpectedText(received.bytes)}, Outcome::Ignored};
}

FrameAssembler::FrameAssembler(Milliseconds gap)
    : m_gap(gap)
{
}

void FrameAssembler::add(TimePoint now, char byte, const Decoders &decoders)
{
    m_current.bytes.append(byte);
    m_lastByte = now;
    if (m_current.kind != Received::Kind::Unexpected && !match())
        matchStart(decoders);
}

std::optional<Received> FrameAssembler::take(TimePoint now)
{
    if (m_current.bytes.isEmpty())
        return std::nullopt;
    const bool whole = match() && size() == match()->length;
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

void FrameAssembler::matchStart(const Decoders &decoders)
{
    m_current.kind = Received::Kind::Unexpected;
    for (FrameDecoder *decoder : decoders) {
        const auto match = decoder->match(m_current.bytes);
        if (!match)
            continue;
        m_current.kind = Received::Kind::Broken; // until it is whole
        if (match->length > 0) {
            m_current.decoder = decoder;
            m_current.match = *match;
            return;
        }
    }
}

} // namespace boardsim
