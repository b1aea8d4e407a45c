#include "replydecoder.h"

#include "commanddecoder.h"
#include "packetdecoder.h"

#include <algorithm>

namespace boardsim {

namespace {

using State = YModemReceiver::State;

/// Control bytes that belong together come in one write, or one right after the other.
constexpr Milliseconds kControlGap{20};

constexpr int kMaxRun = 256; // of bytes that are no reply and no control bytes
constexpr int kMaxControls = 1000;
constexpr int kNoFrame = 0;
constexpr int kLeastReply = 4; // head, length byte, checksum, foot

bool isControl(char byte)
{
    return byte == kAck || byte == kNak || byte == kCancel || byte == kRequest;
}

bool isText(char byte)
{
    return (byte >= ' ' && byte <= '~') || (byte >= '\a' && byte <= '\r') || byte == '\x1b';
}

template <typename Is>
int runLength(const QByteArray &bytes, Is is)
{
    return static_cast<int>(std::find_if_not(bytes.begin(), bytes.end(), is) - bytes.begin());
}

QString requestMeaning(State state)
{
    switch (state) {
    case State::Off:
    case State::AwaitStart:
        return QStringLiteral("'C', asks for the start frame");
    case State::AwaitData:
        return QStringLiteral("'C', asks for the data");
    case State::AwaitEnd:
    case State::Done:
        break;
    }
    return QStringLiteral("'C', asks for the end frame");
}

/// Equal neighbours are named once, but for CA, which comes in pairs.
QString controlMeaning(const QByteArray &bytes, State state)
{
    const bool isOneKind = bytes.count(bytes.at(0)) == bytes.size();
    if (isOneKind && bytes.at(0) == kRequest)
        return requestMeaning(state);
    if (isOneKind && bytes.at(0) == kCancel && bytes.size() > 1)
        return QStringLiteral("CA CA");
    QStringList names;
    for (int i = 0; i < bytes.size(); ++i) {
        const char byte = bytes.at(i);
        if (i > 0 && byte == bytes.at(i - 1))
            continue;
        names << (byte == kAck          ? QStringLiteral("ACK")
                      : byte == kNak    ? QStringLiteral("NAK")
                      : byte == kCancel ? QStringLiteral("CA")
                                        : QStringLiteral("'C'"));
    }
    return names.join(QStringLiteral(" and "));
}

QString nameOf(const Received &request)
{
    switch (request.match.place.step) {
    case Step::Version:
        return QStringLiteral("version");
    case Step::StartCommand:
        return QStringLiteral("start command");
    case Step::Handshake:
        return handshakeName(request.bytes);
    case Step::Connect:
        return QStringLiteral("connect packet");
    case Step::Sync:
        return QStringLiteral("sync packet");
    case Step::DeviceId:
        return QStringLiteral("device id packet");
    case Step::Config:
        return QStringLiteral("config packet");
    default:
        return {};
    }
}

} // namespace

QString quotedText(const QByteArray &bytes)
{
    QString text;
    for (const char byte : bytes) {
        if (byte == '\n')
            text += QStringLiteral("\\n");
        else if (byte == '\r')
            text += QStringLiteral("\\r");
        else if (byte == '"' || byte == '\\')
            text += QLatin1Char('\\') + QString(QLatin1Char(byte));
        else if (byte >= ' ' && byte <= '~')
            text += QLatin1Char(byte);
        else
            text += QStringLiteral("\\x") + hexByte(static_cast<std::uint8_t>(byte));
    }
    return QLatin1Char('"') + text + QLatin1Char('"');
}

bool isConsoleText(const QByteArray &bytes)
{
    return !bytes.isEmpty() && runLength(bytes, isText) == bytes.size();
}

ReplyDecoder::ReplyDecoder(Milliseconds gap)
    : m_gap(gap)
{
}

void ReplyDecoder::expect(const Received &request)
{
    m_expected = request.match.place.step;
    if (isTransfer(m_expected))
        m_expected = Step::End; // control bytes are recognised without this
    m_request = request.bytes;
    m_requestName = nameOf(request);
}

void ReplyDecoder::add(TimePoint now, char byte)
{
    m_bytes += byte;
    m_lastByte = now;
    m_controlsAreComplete = false;
}

std::optional<DecodedReply> ReplyDecoder::take(TimePoint now, State state)
{
    if (m_bytes.isEmpty())
        return std::nullopt;
    if (auto reply = takeReply())
        return reply;

    const bool isOver = endsWithPause(now);
    const int controls = runLength(m_bytes, isControl);
    const bool isWholeRun = controls == m_bytes.size();
    if (controls > 0) {
        const bool isOnlyRequests =
            runLength(m_bytes, [](char c) { return c == kRequest; }) == controls;
        const bool isTextAfterAll = isOnlyRequests && !isWholeRun && isText(m_bytes.at(controls));
        if (!isTextAfterAll) {
            if (isWholeRun && !isOver && !m_controlsAreComplete && controls < kMaxControls)
                return std::nullopt;
            const QByteArray bytes = m_bytes.left(controls);
            QStringList violations;
            if (state == State::Off && !isOnlyRequests)
                violations << QStringLiteral("control byte outside a transfer");
            return cut(controls, controlMeaning(bytes, state), violations);
        }
    }
    if (isOver || m_bytes.size() >= kMaxRun) {
        if (auto reply = takeBadReply())
            return reply;
    } else if (m_expected != Step::End && !isText(m_bytes.at(0))) {
        return std::nullopt; // perhaps a reply
    }

    const int lineEnd = m_bytes.indexOf('\n') + 1;
    int text = runLength(m_bytes, isText);
    if (text > 0) {
        if (lineEnd > 0 && lineEnd <= text)
            text = lineEnd;
        else if (!isOver && text == m_bytes.size() && text < kMaxRun)
            return std::nullopt;
        text = std::min(text, kMaxRun);
        return cut(text, QStringLiteral("console text ") + quotedText(m_bytes.left(text)));
    }
    if (!isOver && m_bytes.size() < kMaxRun)
        return std::nullopt;
    const int rest = std::min<int>(m_bytes.size(), kMaxRun);
    return cut(rest, QStringLiteral("unexpected bytes"),
               {QStringLiteral("%1 unexpected bytes from 0x%2 on")
                    .arg(rest)
                    .arg(hexByte(byteAt(m_bytes, 0)))});
}

std::optional<DecodedReply> ReplyDecoder::takeRest(State state)
{
    return take(m_lastByte + m_gap, state);
}

std::optional<TimePoint> ReplyDecoder::deadline() const
{
    if (m_bytes.isEmpty())
        return std::nullopt;
    const bool isControls = runLength(m_bytes, isControl) == m_bytes.size();
    return m_lastByte + (isControls ? kControlGap : m_gap);
}

bool ReplyDecoder::endsWithPause(TimePoint now) const
{
    return now >= *deadline();
}

/// Of the reply that is to come, where it can be told without its bytes.
int ReplyDecoder::expectedLength() const
{
    if (m_expected == Step::Version)
        return versionReply({}).size();
    if (m_expected == Step::StartCommand)
        return startReply().size();
    return m_expected == Step::End ? kNoFrame : m_request.size();
}

/// The length of the sound reply that begins at `offset` and is there as a whole; 0: there is none.
int ReplyDecoder::replyLengthAt(int offset) const
{
    const int left = m_bytes.size() - offset;
    if (m_bytes.at(offset) != firstByte() || left < 2)
        return kNoFrame;
    // A board may have a longer reply; the program takes it by its length byte.
    const bool tellsItsLength = m_expected == Step::StartCommand || m_expected == Step::Handshake;
    const int length = tellsItsLength ? byteAt(m_bytes, offset + 1) : expectedLength();
    if (length < kLeastReply || length > left)
        return kNoFrame;
    return violationsOf(m_bytes.mid(offset, length)).isEmpty() ? length : kNoFrame;
}

char ReplyDecoder::firstByte() const
{
    return isCommand(m_expected) ? static_cast<char>(kFrameMark) : m_request.at(0);
}

QStringList ReplyDecoder::violationsOf(const QByteArray &reply) const
{
    if (!isCommand(m_expected))
        return packetReplyViolations(reply, m_request);
    return replyViolations(reply, m_expected);
}

QString ReplyDecoder::replyMeaning(const QByteArray &reply) const
{
    if (m_expected == Step::Version)
        return QStringLiteral("version answer \"%1\"")
            .arg(QString::fromLatin1(versionTextOf(reply)));
    return m_requestName + QStringLiteral(" answer");
}

/// A sound reply, or what came before it.
std::optional<DecodedReply> ReplyDecoder::takeReply()
{
    if (m_expected == Step::End)
        return std::nullopt;
    for (int offset = 0; offset < m_bytes.size(); ++offset) {
        const int length = replyLengthAt(offset);
        if (length == kNoFrame)
            continue;
        if (offset > 0) {
            const QByteArray before = m_bytes.left(offset);
            return cut(offset,
                       isConsoleText(before) ? QStringLiteral("console text ") + quotedText(before)
                                             : QStringLiteral("garbage"),
                       {QStringLiteral("%1 unexpected bytes before the %2 answer")
                            .arg(offset)
                            .arg(m_requestName)});
        }
        DecodedReply reply = cut(length, replyMeaning(m_bytes.left(length)));
        m_expected = Step::End;
        return reply;
    }
    return std::nullopt;
}

/// What came in place of a reply, when it looks like one.
std::optional<DecodedReply> ReplyDecoder::takeBadReply()
{
    if (m_expected == Step::End)
        return std::nullopt;
    const int size = m_bytes.size();
    const int expected = expectedLength();
    if (m_bytes.at(0) != firstByte() && size != expected)
        return std::nullopt;

    const bool hasFixedLength = m_expected == Step::Version || !isCommand(m_expected);
    const int length = hasFixedLength ? std::min(size, expected) : size;
    const QByteArray reply = m_bytes.left(length);
    const bool hasFoot =
        isCommand(m_expected) && length > kLeastReply && byteAt(reply, length - 1) == kFrameMark;
    QStringList violations;
    if (length < expected && !(hasFoot && !hasFixedLength))
        violations
            << QStringLiteral("answer broke off after %1 of %2 bytes").arg(length).arg(expected);
    else
        violations = violationsOf(reply);
    const QString meaning = QStringLiteral("bad %1 answer").arg(m_requestName);
    m_expected = Step::End;
    return cut(length, meaning, violations);
}

DecodedReply ReplyDecoder::cut(int size, const QString &meaning, const QStringList &violations)
{
    DecodedReply reply{m_bytes.left(size), meaning, violations, m_lastByte};
    m_bytes.remove(0, size);
    return reply;
}

} // namespace boardsim
