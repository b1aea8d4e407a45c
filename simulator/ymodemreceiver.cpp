#include "ymodemreceiver.h"

#include <algorithm>
#include <array>

namespace boardsim {

namespace {

constexpr char kSoh = 0x01; // head of a block with 128 bytes: start and end frame
constexpr char kStx = 0x02; // head of a block with 1024 bytes: data
constexpr char kEot = 0x04;
constexpr char kPadding = 0x1A;

constexpr int kHeaderSize = 3; // head, block number, its complement
constexpr int kCrcSize = 2;
constexpr int kShortPayload = 128;
constexpr int kDataPayload = 1024;
constexpr int kMaxSizeDigits = 8;

QByteArray payloadOf(const QByteArray &frame)
{
    return frame.mid(kHeaderSize, frame.size() - kHeaderSize - kCrcSize);
}

/// What is wrong with what every block has: number, complement and CRC.
QStringList blockViolations(const QByteArray &frame, std::uint8_t expectedNumber)
{
    QStringList violations;
    const auto number = byteAt(frame, 1);
    const auto complement = byteAt(frame, 2);
    if (number != expectedNumber)
        violations << QStringLiteral("block number is %1, not %2").arg(number).arg(expectedNumber);
    if (number + complement != 0xFF)
        violations << QStringLiteral("complement 0x%1 does not fit block number 0x%2")
                          .arg(hexByte(complement), hexByte(number));

    const std::uint16_t crc = crc16(payloadOf(frame));
    const auto high = byteAt(frame, frame.size() - 2);
    const auto low = byteAt(frame, frame.size() - 1);
    if (((high << 8) | low) != crc)
        violations << QStringLiteral("CRC is 0x%1%2, not 0x%3")
                          .arg(hexByte(high), hexByte(low))
                          .arg(crc, 4, 16, QLatin1Char('0'));
    return violations;
}

bool consistsOf(const QByteArray &bytes, char value)
{
    return std::all_of(bytes.begin(), bytes.end(), [value](char c) { return c == value; });
}

bool isPrintableAscii(const QByteArray &text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

/// Hexadecimal as printf's "%x" writes it: lower case, no prefix, no leading zero.
bool isHexNumber(const QByteArray &text)
{
    if (text.isEmpty() || text.size() > kMaxSizeDigits || text.startsWith('0'))
        return false;
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

/// What the start frame announces.
struct FileHeader {
    QByteArray name;
    qint64 size = 0;
};

FileHeader parseFileHeader(const QByteArray &payload, QStringList &violations)
{
    FileHeader header;
    const int nameEnd = payload.indexOf('\0');
    if (nameEnd < 0) {
        violations << QStringLiteral("file name has no zero byte at its end");
        return header;
    }
    header.name = payload.left(nameEnd);
    if (header.name.isEmpty())
        violations << QStringLiteral("file name is empty");
    else if (!isPrintableAscii(header.name))
        violations << QStringLiteral("file name is not printable ASCII");

    const int sizeEnd = payload.indexOf('\0', nameEnd + 1);
    if (sizeEnd < 0) {
        violations << QStringLiteral("size text has no zero byte at its end");
        return header;
    }
    const QByteArray sizeText = payload.mid(nameEnd + 1, sizeEnd - nameEnd - 1);
    if (isHexNumber(sizeText))
        header.size = sizeText.toLongLong(nullptr, 16);
    else
        violations << QStringLiteral("size text \"%1\" is not a hexadecimal number above 0")
                          .arg(QString::fromLatin1(sizeText));
    if (!consistsOf(payload.mid(sizeEnd), '\0'))
        violations << QStringLiteral("start frame is not filled up with zeros");
    return header;
}

DecodedFrame accepted(const QString &meaning)
{
    return {meaning, {}, DecodedFrame::Outcome::Accepted};
}

DecodedFrame refused(const QString &meaning, const QStringList &violations)
{
    return {meaning, violations, DecodedFrame::Outcome::Refused};
}

constexpr std::array<std::uint16_t, 256> makeCrcTable()
{
    constexpr unsigned kPolynomial = 0x1021;
    std::array<std::uint16_t, 256> table{};
    for (unsigned byte = 0; byte < table.size(); ++byte) {
        unsigned value = byte << 8;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 0x8000U) != 0 ? (value << 1) ^ kPolynomial : value << 1;
        table[byte] = static_cast<std::uint16_t>(value & 0xFFFFU);
    }
    return table;
}

constexpr std::array<std::uint16_t, 256> kCrcTable = makeCrcTable();

} // namespace

std::uint16_t crc16(const QByteArray &bytes)
{
    unsigned crc = 0;
    for (const char c : bytes) {
        const unsigned index = (crc >> 8) ^ static_cast<std::uint8_t>(c);
        crc = ((crc << 8) ^ kCrcTable[index]) & 0xFFFFU;
    }
    return static_cast<std::uint16_t>(crc);
}

YModemReceiver::YModemReceiver(Report &report)
    : m_report(report)
{
}

void YModemReceiver::begin()
{
    m_report.transfers.append(Transfer{});
    m_state = State::AwaitStart;
}

std::optional<FrameMatch> YModemReceiver::match(const QByteArray &start) const
{
    if (m_state == State::Off)
        return std::nullopt;
    const char head = start.at(0);
    if (head == kSoh)
        return FrameMatch{kHeaderSize + kShortPayload + kCrcSize, currentPlace(head)};
    if (m_state == State::Done)
        return std::nullopt;
    if (head == kStx)
        return FrameMatch{kHeaderSize + kDataPayload + kCrcSize, currentPlace(head)};
    if (head == kEot)
        return FrameMatch{1, currentPlace(head)};
    return std::nullopt;
}

DecodedFrame YModemReceiver::decode(const QByteArray &frame)
{
    switch (frame.at(0)) {
    case kSoh:
        return receiveShortBlock(frame);
    case kStx:
        return receiveDataBlock(frame);
    default:
        return receiveEot();
    }
}

Place YModemReceiver::currentPlace(char head) const
{
    if (m_state == State::AwaitStart)
        return {Step::StartFrame};
    if (m_state == State::AwaitEnd || m_state == State::Done)
        return {Step::End};
    if (head == kEot)
        return {Step::Eot};
    const Transfer &transfer = m_report.transfers.last();
    return {Step::Block, transfer.blocksReceived + 1, transfer.blocksExpected};
}

DecodedFrame YModemReceiver::receiveShortBlock(const QByteArray &frame)
{
    switch (m_state) {
    case State::AwaitStart:
        return receiveStartFrame(frame);
    case State::AwaitEnd:
    case State::Done:
        return receiveEndFrame(frame);
    default:
        return refused(QStringLiteral("128-byte block among the data"),
                       {QStringLiteral("128-byte block where 1024-byte blocks are sent")});
    }
}

DecodedFrame YModemReceiver::receiveStartFrame(const QByteArray &frame)
{
    QStringList violations = blockViolations(frame, 0);
    const FileHeader header = parseFileHeader(payloadOf(frame), violations);
    if (!violations.isEmpty())
        return refused(QStringLiteral("bad start frame"), violations);

    Transfer &transfer = m_report.transfers.last();
    transfer.fileName = QString::fromLatin1(header.name);
    transfer.announcedSize = header.size;
    // A size that is a multiple of 1024 is followed by one block of nothing but padding.
    transfer.blocksExpected = header.size / kDataPayload + 1;
    m_state = State::AwaitData;
    return accepted(QStringLiteral("start frame: \"%1\", %2 bytes (hex %3), blocks to come: %4")
                        .arg(transfer.fileName, QString::number(header.size),
                             QString::number(header.size, 16),
                             QString::number(transfer.blocksExpected)));
}

DecodedFrame YModemReceiver::receiveDataBlock(const QByteArray &frame)
{
    if (m_state != State::AwaitData) {
        const QString wanted = m_state == State::AwaitStart ? QStringLiteral("start frame")
                                                            : QStringLiteral("end frame");
        return refused(QStringLiteral("data block out of turn"),
                       {QStringLiteral("data block where the %1 should come").arg(wanted)});
    }

    Transfer &transfer = m_report.transfers.last();
    const qint64 block = transfer.blocksReceived + 1;
    const QString name = QStringLiteral("block %1 of %2").arg(block).arg(transfer.blocksExpected);
    if (block > transfer.blocksExpected)
        return refused(QStringLiteral("data block too many"),
                       {QStringLiteral("data block after the last one, EOT should come")});

    QStringList violations = blockViolations(frame, static_cast<std::uint8_t>(block & 0xFF));
    const QByteArray payload = payloadOf(frame);
    const qint64 left = transfer.announcedSize - transfer.image.size();
    const int used = static_cast<int>(std::min<qint64>(left, kDataPayload));
    if (violations.isEmpty() && !consistsOf(payload.mid(used), kPadding))
        violations
            << QStringLiteral("last block is not filled up with 0x1a behind byte %1").arg(used);
    if (!violations.isEmpty())
        return refused(QStringLiteral("bad %1").arg(name), violations);

    transfer.image += payload.left(used);
    transfer.blocksReceived = block;
    return accepted(QStringLiteral("%1, %2 bytes of data").arg(name).arg(used));
}

DecodedFrame YModemReceiver::receiveEot()
{
    if (m_state != State::AwaitData)
        return refused(QStringLiteral("EOT out of turn"), {QStringLiteral("EOT out of turn")});

    Transfer &transfer = m_report.transfers.last();
    transfer.eotReceived = true;
    m_state = State::AwaitEnd;
    DecodedFrame frame = accepted(QStringLiteral("EOT"));
    if (transfer.blocksReceived < transfer.blocksExpected)
        frame.violations << QStringLiteral("EOT after %1 of %2 blocks")
                                .arg(transfer.blocksReceived)
                                .arg(transfer.blocksExpected);
    return frame;
}

DecodedFrame YModemReceiver::receiveEndFrame(const QByteArray &frame)
{
    QStringList violations = blockViolations(frame, 0);
    if (!consistsOf(payloadOf(frame), '\0'))
        violations << QStringLiteral("payload of the end frame is not all zeros");

    Transfer &transfer = m_report.transfers.last();
    if (m_state == State::Done) {
        ++transfer.extraEndFrames;
        return {QStringLiteral("further end frame, not answered"), violations};
    }
    if (!violations.isEmpty())
        return refused(QStringLiteral("bad end frame"), violations);

    transfer.complete = true;
    m_state = State::Done;
    return accepted(QStringLiteral("end frame"));
}

} // namespace boardsim
