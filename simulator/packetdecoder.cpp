#include "packetdecoder.h"

#include <QVector>
#include <QtEndian>

#include <algorithm>

namespace boardsim {

namespace {

constexpr int kPacketSize = 64;
constexpr int kNumberOffset = 4;
constexpr int kParamOffset = 8;
constexpr int kFieldSize = 4; // of code, number and the one parameter there is

struct PacketRule {
    Step step;
    std::uint32_t code;
    std::uint32_t number;
    std::uint32_t param;
    const char *name;
};

const QVector<PacketRule> &sequence()
{
    static const QVector<PacketRule> rules{
        {Step::Connect, 0xAE, 1, 0, "connect packet"},
        {Step::Sync, 0xA4, 1, 1, "sync packet"},
        {Step::DeviceId, 0xB1, 3, 0, "device id packet"},
        {Step::Config, 0xA2, 5, 0, "config packet"},
    };
    return rules;
}

QByteArray littleEndian(std::uint32_t value)
{
    QByteArray bytes(kFieldSize, '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

std::uint32_t fieldAt(const QByteArray &packet, int offset)
{
    return qFromLittleEndian<std::uint32_t>(packet.constData() + offset);
}

/// Index in the sequence of the packet that begins with `start`, up to its whole code; -1: none.
int indexOf(const QByteArray &start)
{
    const QByteArray code = start.left(kFieldSize);
    const auto &rules = sequence();
    const auto found = std::find_if(rules.begin(), rules.end(), [&code](const PacketRule &rule) {
        return littleEndian(rule.code).startsWith(code);
    });
    return found == rules.end() ? -1 : static_cast<int>(found - rules.begin());
}

QString name(int index)
{
    return QString::fromLatin1(sequence().at(index).name);
}

QStringList mismatches(const QByteArray &packet, const PacketRule &rule)
{
    QStringList texts;
    const std::uint32_t number = fieldAt(packet, kNumberOffset);
    if (number != rule.number)
        texts << QStringLiteral("packet number is %1, not %2").arg(number).arg(rule.number);
    const std::uint32_t param = fieldAt(packet, kParamOffset);
    if (param != rule.param)
        texts << QStringLiteral("parameter is %1, not %2").arg(param).arg(rule.param);
    for (int i = kParamOffset + kFieldSize; i < kPacketSize; ++i) {
        if (packet.at(i) != '\0')
            texts << QStringLiteral("zero byte %1 is 0x%2, not 0x00")
                         .arg(i)
                         .arg(hexByte(byteAt(packet, i)));
    }
    return texts;
}

} // namespace

PacketDecoder::PacketDecoder(Report &report)
    : m_report(report)
{
}

std::optional<FrameMatch> PacketDecoder::match(const QByteArray &start) const
{
    const int index = indexOf(start);
    if (index < 0)
        return std::nullopt;
    const int length = start.size() < kFieldSize ? 0 : kPacketSize;
    return FrameMatch{length, Place{sequence().at(index).step}};
}

DecodedFrame PacketDecoder::decode(const QByteArray &frame)
{
    const int index = indexOf(frame);
    const PacketRule &rule = sequence().at(index);
    const bool isConnect = rule.step == Step::Connect;

    QStringList violations = mismatches(frame, rule);
    if (!isConnect && index != m_next)
        violations << QStringLiteral("%1 where the %2 should come").arg(name(index), name(m_next));
    if (!violations.isEmpty())
        return {QStringLiteral("bad ") + name(index), violations};

    if (isConnect)
        ++m_report.connects;
    if (rule.step == Step::Config)
        ++m_report.configReads;
    m_next = (index + 1) % sequence().size();
    return {name(index), {}, DecodedFrame::Outcome::Accepted};
}

QByteArray packetReply(const QByteArray &packet, Step step, std::uint32_t deviceId)
{
    QByteArray reply = packet.left(kParamOffset);
    if (step == Step::DeviceId)
        reply += littleEndian(deviceId);
    return reply.leftJustified(kPacketSize, '\0');
}

QStringList packetReplyViolations(const QByteArray &reply, const QByteArray &packet)
{
    QStringList texts;
    const auto check = [&](const QString &name, int offset) {
        if (fieldAt(reply, offset) != fieldAt(packet, offset))
            texts << QStringLiteral("%1 is %2, not %3")
                         .arg(name)
                         .arg(fieldAt(reply, offset))
                         .arg(fieldAt(packet, offset));
    };
    check(QStringLiteral("command code"), 0);
    check(QStringLiteral("packet number"), kNumberOffset);
    return texts;
}

} // namespace boardsim
