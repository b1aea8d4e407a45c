#include "commanddecoder.h"

#include <QMap>

#include <algorithm>
#include <initializer_list>

namespace boardsim {

namespace {

constexpr int kLengthOffset = 1;
constexpr int kMarkerOffset = 2;
constexpr int kCommandOffset = 12;
constexpr int kCommandOffsetV3 = 23;
constexpr int kCommandOffsetV4 = 26;
constexpr int kVersionTextOffset = 16;
constexpr int kVersionReplySize = 36;
constexpr int kStartReplySize = 18;
constexpr std::uint8_t kStartCommandCode = 0x13;
constexpr int kParamBlock = 42;
constexpr int kTailSize = 2; // checksum and foot

struct Field {
    int offset;
    std::uint8_t value;
};

void put(QByteArray &frame, int offset, std::uint8_t value)
{
    frame[offset] = static_cast<char>(value);
}

unsigned sumOf(const QByteArray &frame)
{
    unsigned sum = 0;
    for (int i = 1; i <= frame.size() - 3; ++i)
        sum += byteAt(frame, i);
    return sum;
}

std::uint8_t checksumOf(const QByteArray &frame)
{
    return static_cast<std::uint8_t>(sumOf(frame) & 0xFFU);
}

QByteArray sealed(QByteArray frame)
{
    const int size = frame.size();
    put(frame, 0, kFrameMark);
    put(frame, kLengthOffset, static_cast<std::uint8_t>(size));
    put(frame, size - 2, checksumOf(frame));
    put(frame, size - 1, kFrameMark);
    return frame;
}

QByteArray sealedFrame(int size, std::initializer_list<Field> fields)
{
    QByteArray frame(size, '\0');
    for (const Field &field : fields)
        put(frame, field.offset, field.value);
    return sealed(frame);
}

struct Command {
    Step step;
    QString meaning;
    QByteArray frame;         // its one valid form
    QMap<int, QString> names; // of single bytes by their offset
    int Report::*count;       // of the valid ones
};

const QVector<Command> &commands()
{
    static const QMap<int, QString> names{{kMarkerOffset, QStringLiteral("marker byte 2")},
                                          {kCommandOffset, QStringLiteral("command code")}};
    static const QString commandByte = QStringLiteral("command byte");
    static const QVector<Command> table{
        {Step::Version, QStringLiteral("version query"),
         sealedFrame(30,
                     {{kMarkerOffset, 0xFF},
                      {kCommandOffset, 0x0F},
                      {14, 0x37}, // meaning unknown, as are the next three
                      {17, 0x01},
                      {22, 0x08},
                      {23, 0x71}}),
         names, &Report::versionQueries},
        {Step::StartCommand, QStringLiteral("update start command"),
         sealedFrame(18, {{kMarkerOffset, 0xFF}, {kCommandOffset, kStartCommandCode}}), names,
         &Report::startCommands},
        {Step::Handshake,
         QStringLiteral("V3 handshake"),
         sealedFrame(73, {{kCommandOffsetV3, 0x0F}}),
         {{kCommandOffsetV3, commandByte}},
         &Report::handshakesV3},
        {Step::Handshake,
         QStringLiteral("V4 handshake"),
         sealedFrame(76, {{kCommandOffsetV4, 0x0F}}),
         {{kCommandOffsetV4, commandByte}},
         &Report::handshakesV4},
    };
    return table;
}

/// The command whose head and length byte, or head alone, are in `start`; null: none.
const Command *findCommand(const QByteArray &start)
{
    const auto &table = commands();
    const auto found = std::find_if(table.begin(), table.end(), [&start](const Command &command) {
        return command.frame.startsWith(start.left(kLengthOffset + 1));
    });
    return found == table.end() ? nullptr : &*found;
}

QString fieldName(int offset, const Command &command)
{
    if (offset == 0)
        return QStringLiteral("head");
    if (offset == command.frame.size() - 1)
        return QStringLiteral("foot");
    if (offset == kLengthOffset)
        return QStringLiteral("length byte");
    if (command.names.contains(offset))
        return command.names.value(offset);
    return (byteAt(command.frame, offset) == 0 ? QStringLiteral("zero byte %1")
                                               : QStringLiteral("fixed byte %1"))
        .arg(offset);
}

QString mismatch(const QString &name, std::uint8_t value, std::uint8_t expected)
{
    return QStringLiteral("%1 is 0x%2, not 0x%3").arg(name, hexByte(value), hexByte(expected));
}

/// What is wrong with `frame`, which is as long as the command's, one text a byte.
QStringList mismatches(const QByteArray &frame, const Command &command)
{
    const int checksumOffset = frame.size() - 2;
    QStringList texts;
    for (int i = 0; i < frame.size(); ++i) {
        if (i != checksumOffset && frame.at(i) != command.frame.at(i))
            texts << mismatch(fieldName(i, command), byteAt(frame, i), byteAt(command.frame, i));
    }
    const std::uint8_t checksum = checksumOf(frame);
    if (byteAt(frame, checksumOffset) != checksum)
        texts << mismatch(QStringLiteral("checksum"), byteAt(frame, checksumOffset), checksum);
    return texts;
}

} // namespace

CommandDecoder::CommandDecoder(Report &report)
    : m_report(report)
{
}

std::optional<FrameMatch> CommandDecoder::match(const QByteArray &start) const
{
    const Command *command = findCommand(start);
    if (!command)
        return std::nullopt;
    if (start.size() <= kLengthOffset)
        return FrameMatch{};
    return FrameMatch{static_cast<int>(command->frame.size()), Place{command->step}};
}

DecodedFrame CommandDecoder::decode(const QByteArray &frame)
{
    const Command &command = *findCommand(frame);
    const QStringList violations = mismatches(frame, command);
    if (!violations.isEmpty())
        return {QStringLiteral("bad ") + command.meaning, violations};
    ++(m_report.*command.count);
    return {command.meaning, {}, DecodedFrame::Outcome::Accepted};
}

QByteArray versionReply(const QByteArray &text)
{
    QByteArray frame = sealedFrame(kVersionReplySize, {});
    frame.replace(kVersionTextOffset, text.size(), text);
    if (text.size() < kMaxVersionText)
        put(frame, kVersionReplySize - 2, checksumOf(frame));
    return frame;
}

QByteArray versionTextOf(const QByteArray &reply)
{
    const QByteArray text = reply.mid(kVersionTextOffset, kMaxVersionText);
    const int end = text.indexOf('\0');
    if (end >= 0)
        return text.left(end);
    const bool hasChecksum = byteAt(reply, kVersionReplySize - kTailSize) == checksumOf(reply);
    return hasChecksum ? text.chopped(1) : text;
}

QByteArray startReply()
{
    // Deliberate: the assistant takes this reply only when bytes 1 to n-3 add up, in 16 bits, to
    // the value of the foot, 0xE7. So there is no 0xFF marker here, and byte 14 makes up the sum.
    constexpr std::uint8_t kFiller = kFrameMark - kStartReplySize - kStartCommandCode;
    return sealedFrame(kStartReplySize, {{kCommandOffset, kStartCommandCode}, {14, kFiller}});
}

QString handshakeName(const QByteArray &handshake)
{
    const Command *command = findCommand(handshake);
    return command ? command->meaning : QString();
}

QStringList replyViolations(const QByteArray &reply, Step step)
{
    const int size = reply.size();
    QStringList texts;
    const auto check = [&](const QString &name, int offset, int expected) {
        if (byteAt(reply, offset) != expected)
            texts << mismatch(name, byteAt(reply, offset), static_cast<std::uint8_t>(expected));
    };
    check(QStringLiteral("head"), 0, kFrameMark);
    check(QStringLiteral("length byte"), kLengthOffset, size);
    if (step != Step::Version || versionTextOf(reply).size() < kMaxVersionText)
        check(QStringLiteral("checksum"), size - kTailSize, checksumOf(reply));
    check(QStringLiteral("foot"), size - 1, kFrameMark);
    const unsigned sum = sumOf(reply);
    if (step == Step::StartCommand && sum != byteAt(reply, size - 1))
        texts << QStringLiteral("sum of bytes 1 to %1 is 0x%2, not the foot")
                     .arg(size - 3)
                     .arg(sum, 4, 16, QLatin1Char('0'));
    return texts;
}

int paramOffsetOf(const QByteArray &handshake)
{
    return handshake.size() - kParamBlock - kTailSize;
}

QByteArray paramBlock(const QByteArray &text)
{
    return text.leftJustified(kParamBlock, '\0');
}

QByteArray paramsOf(const QByteArray &frame, int paramOffset)
{
    return frame.mid(paramOffset, frame.size() - paramOffset - kTailSize);
}

QByteArray withParams(const QByteArray &frame, int paramOffset, const QByteArray &params)
{
    return sealed(frame.left(paramOffset) + params + QByteArray(kTailSize, '\0'));
}

} // namespace boardsim
