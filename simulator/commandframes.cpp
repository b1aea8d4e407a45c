#include "commandframes.h"

#include "hextext.h"

#include <initializer_list>

namespace boardsim {

namespace {

constexpr int kLengthOffset = 1;
constexpr int kMarkerOffset = 2;
constexpr int kCommandOffset = 12;
constexpr int kVersionTextOffset = 16;
constexpr int kVersionReplySize = 36;
constexpr int kStartReplySize = 18;
constexpr quint8 kStartCommandCode = 0x13;
constexpr quint8 kHandshakeCode = 0x0F;
constexpr int kTailSize = 2; // checksum and foot

struct Field {
    int offset;
    quint8 value;
};

void put(QByteArray &frame, int offset, quint8 value)
{
    frame[offset] = static_cast<char>(value);
}

quint8 at(const QByteArray &frame, int offset)
{
    return static_cast<quint8>(frame.at(offset));
}

unsigned sumUnderChecksum(const QByteArray &frame)
{
    unsigned sum = 0;
    for (int i = 1; i <= frame.size() - 3; ++i)
        sum += at(frame, i);
    return sum;
}

QByteArray sealed(QByteArray frame)
{
    const int size = frame.size();
    put(frame, 0, kFrameMark);
    put(frame, kLengthOffset, static_cast<quint8>(size));
    put(frame, size - 2, static_cast<quint8>(sumUnderChecksum(frame) & 0xFFU));
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

ExpectedFrame command(const QByteArray &frame)
{
    return {frame,
            {{kMarkerOffset, QStringLiteral("marker byte 2")},
             {kCommandOffset, QStringLiteral("command code")}}};
}

int handshakeCommandOffset(ProtocolVersion version)
{
    return version == ProtocolVersion::V3 ? 23 : 26;
}

QString fieldName(int offset, const ExpectedFrame &expected)
{
    if (offset == 0)
        return QStringLiteral("head");
    if (offset == expected.bytes.size() - 1)
        return QStringLiteral("foot");
    if (offset == kLengthOffset)
        return QStringLiteral("length byte");
    if (expected.names.contains(offset))
        return expected.names.value(offset);
    return (at(expected.bytes, offset) == 0 ? QStringLiteral("zero byte %1")
                                            : QStringLiteral("fixed byte %1"))
        .arg(offset);
}

QString mismatch(const QString &name, quint8 value, quint8 expected)
{
    return QStringLiteral("%1 is 0x%2, not 0x%3").arg(name, hexByte(value), hexByte(expected));
}

} // namespace

ExpectedFrame versionQuery()
{
    return command(sealedFrame(30,
                               {{kMarkerOffset, 0xFF},
                                {kCommandOffset, 0x0F},
                                {14, 0x37}, // meaning unknown, as are the next three
                                {17, 0x01},
                                {22, 0x08},
                                {23, 0x71}}));
}

ExpectedFrame startCommand()
{
    return command(sealedFrame(18, {{kMarkerOffset, 0xFF}, {kCommandOffset, kStartCommandCode}}));
}

ExpectedFrame handshake(ProtocolVersion version)
{
    return {handshakeReply(version, paramBlock(QByteArray())),
            {{handshakeCommandOffset(version), QStringLiteral("command byte")}}};
}

QByteArray versionReply(const QByteArray &text)
{
    QByteArray frame = sealedFrame(kVersionReplySize, {});
    frame.replace(kVersionTextOffset, text.size(), text);
    if (text.size() < kMaxVersionText)
        put(frame, kVersionReplySize - 2, static_cast<quint8>(sumUnderChecksum(frame) & 0xFFU));
    return frame;
}

QByteArray startReply()
{
    // Deliberate: the assistant takes this answer only when bytes 1 to n-3 add up, in 16 bits, to
    // the value of the foot, 0xE7. So there is no 0xFF marker here, and byte 14 makes up the sum.
    constexpr quint8 kFiller = kFrameMark - kStartReplySize - kStartCommandCode;
    return sealedFrame(kStartReplySize, {{kCommandOffset, kStartCommandCode}, {14, kFiller}});
}

QByteArray handshakeReply(ProtocolVersion version, const QByteArray &params)
{
    QByteArray frame(paramOffset(version) + kTailSize, '\0');
    put(frame, handshakeCommandOffset(version), kHandshakeCode);
    return withParams(frame, paramOffset(version), params);
}

int paramOffset(ProtocolVersion version)
{
    return version == ProtocolVersion::V3 ? 29 : 32;
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

QStringList commandFrameFaults(const QByteArray &frame, const ExpectedFrame &expected)
{
    const int checksumOffset = frame.size() - 2;
    QStringList faults;
    for (int i = 0; i < frame.size(); ++i) {
        if (i != checksumOffset && frame.at(i) != expected.bytes.at(i))
            faults << mismatch(fieldName(i, expected), at(frame, i), at(expected.bytes, i));
    }
    const auto sum = static_cast<quint8>(sumUnderChecksum(frame) & 0xFFU);
    if (at(frame, checksumOffset) != sum)
        faults << mismatch(QStringLiteral("checksum"), at(frame, checksumOffset), sum);
    return faults;
}

} // namespace boardsim
