#include "requestdecoder.h"

namespace boardsim {

RequestDecoder::RequestDecoder(Role role, Milliseconds gap, Report &report)
    : m_role(role)
    , m_commands(report)
    , m_packets(report)
    , m_receiver(report)
    , m_assembler(gap)
{
}

void RequestDecoder::enterBootLoader()
{
    m_inBootLoader = true;
    m_packets.begin();
    m_receiver.begin();
}

bool RequestDecoder::leaveBootLoader()
{
    if (!m_inBootLoader)
        return false;
    m_inBootLoader = false;
    m_receiver.giveUp();
    return true;
}

FrameAssembler::Decoders RequestDecoder::activeDecoders()
{
    // Who watches does not see when the board changes by itself.
    if (m_role == Role::Watcher)
        return {&m_commands, &m_packets, &m_receiver};
    // A boot loader that gets a command before the transfer has begun starts the application,
    // which replies: an assistant without a firmware file never sends the start frame.
    if (m_inBootLoader && !m_receiver.awaitsStartFrame())
        return {&m_receiver};
    FrameAssembler::Decoders decoders{&m_commands};
    if (m_inBootLoader)
        decoders << &m_packets;
    return decoders << &m_receiver;
}

} // namespace boardsim
