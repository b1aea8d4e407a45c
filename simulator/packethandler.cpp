#include "packethandler.h"

#include "hextext.h"

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
    quint32 code;
    quint32 number;
    quint32 param;
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

QByteArray littleEndian(quint32 value)
{
    QByteArray bytes(kFieldSize, '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

quint32 fieldAt(const QByteArray &packet, int offset)
{
    return qFromLittleEndian<quint32>(packet.constData() + offset);
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

QStringList packetFaults(const QByteArray &packet, const PacketRule &rule)
{
    QStringList faults;
    const quint32 number = fieldAt(packet, kNumberOffset);
    if (number != rule.number)
        faults << QStringLiteral("packet number is %1, not %2").arg(number).arg(rule.number);
    const quint32 param = fieldAt(packet, kParamOffset);
    if (param != rule.param)
        faults << QStringLiteral("parameter is %1, not %2").arg(param).arg(rule.param);
    for (int i = kParamOffset + kFieldSize; i < kPacketSize; ++i) {
        if (packet.at(i) != '\0')
            faults << QStringLiteral("zero byte %1 is 0x%2, not 0x00")
                          .arg(i)
                          .arg(hexByte(static_cast<quint8>(packet.at(i))));
    }
    return faults;
}

} // namespace

PacketHandler::PacketHandler(quint32 deviceId, Report &report)
    : m_deviceId(deviceId)
    , m_report(report)
{
}

std::optional<Claim> PacketHandler::claim(const QByteArray &start) const
{
    const int index = indexOf(start);
    if (index < 0)
        return std::nullopt;
    const int length = start.size() < kFieldSize ? 0 : kPacketSize;
    return Claim{length, Place{sequence().at(index).step}};
}

Verdict PacketHandler::receive(const QByteArray &frame)
{
    const int index = indexOf(frame);
    const PacketRule &rule = sequence().at(index);
    const bool isConnect = rule.step == Step::Connect;

    Verdict verdict;
    verdict.meaning = name(index);
    verdict.violations = packetFaults(frame, rule);
    if (!isConnect && index != m_next)
        verdict.violations
            << QStringLiteral("%1 where the %2 should come").arg(name(index), name(m_next));
    if (!verdict.violations.isEmpty()) {
        verdict.meaning.prepend(QStringLiteral("bad "));
        return verdict;
    }

    if (isConnect)
        ++m_report.connects;
    if (rule.step == Step::Config)
        ++m_report.configReads;
    m_next = (index + 1) % sequence().size();
    verdict.opensExchange = isConnect;
    verdict.answer = Answer{Answer::Kind::Packet, answerTo(frame, rule.step),
                            verdict.meaning + QStringLiteral(" answer")};
    return verdict;
}

QByteArray PacketHandler::answerTo(const QByteArray &packet, Step step) const
{
    QByteArray answer = packet.left(kParamOffset);
    if (step == Step::DeviceId)
        answer += littleEndian(m_deviceId);
    return answer.leftJustified(kPacketSize, '\0');
}

} // namespace boardsim
