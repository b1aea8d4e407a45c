#include "fileio.h"

#include "serialport.h"

#include <QDebug>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/time.h>

namespace {

constexpr std::uint8_t kHandshakeCommand = 15;
constexpr int kAnswerMax = 100; // a longer reply cannot be received whole

constexpr int kBlockSize = 64;
constexpr int kBlockCapacity = 128;              // of the caller's buffer
constexpr unsigned long kBlockClockTicks = 1000; // processor time, not milliseconds
constexpr int kTimeOutLabel = 232;               // a fixed number in the output line

constexpr unsigned kVersionParams = 50; // parameter bytes that are searched for the version

void printBytes(const char *label, const unsigned char *bytes, int count)
{
    for (int i = 0; i < count; ++i)
        qDebug() << label << i << "]:" << int(bytes[i]);
}

void printStatus(int checkpoint, const FileIO &io)
{
    qDebug("m_frame_state %d : %d", checkpoint, io.frameStatus());
}

/// Writes the request's checksum and checks the request. The result changes nothing; V3 prints it
/// as this checkpoint and the next.
void checkRequest(FileIO &io, std::uint8_t *frame, const Protocol &protocol, int checkpoint)
{
    static_cast<void>(io.setCrc(frame, protocol));
    if (protocol.version == kProtocolV4) {
        static_cast<void>(io.analyzeV4(frame, protocol));
        return;
    }
    printStatus(checkpoint, io);
    static_cast<void>(io.analyzeV3(frame, protocol));
    printStatus(checkpoint + 1, io);
}

/// Fills in the request step by step and checks it after each step.
void buildRequest(FileIO &io, std::uint8_t *frame, const Protocol &protocol)
{
    const auto length = static_cast<std::uint8_t>(protocol.frame_min_len + protocol.param_len);
    frame[protocol.head_offset] = protocol.frame_head;
    frame[protocol.len_offset] = length;
    frame[protocol.cmd_offset] = kHandshakeCommand;
    frame[length - 1] = protocol.frame_foot;
    checkRequest(io, frame, protocol, 1);
    frame[protocol.arg_offset] = 0;
    checkRequest(io, frame, protocol, 3);
    frame[protocol.opt1_offset] = 0;
    checkRequest(io, frame, protocol, 5);
    io.setMachineParam(MachineParam{}, frame, protocol);
    checkRequest(io, frame, protocol, 7);
}

/// Copies a received piece to `position` of the block. Bytes outside the block are dropped.
void keepWhatFits(const unsigned char *piece, int count, unsigned char *block, int position)
{
    const int begin = std::max(position, 0);
    const int end = std::min(position + count, kBlockCapacity);
    if (begin < end)
        std::copy(piece + (begin - position), piece + (end - position), block + begin);
}

/// The text after the first underscore of the parameters, up to its terminating zero.
QString versionText(const unsigned char *params, unsigned count)
{
    // Two zero bytes more than are searched: the first terminates a text without a zero byte, the
    // second makes the text after that terminator empty.
    char text[kVersionParams + 2] = {};
    std::memcpy(text, params, std::min(count, kVersionParams));
    const char *const end = text + std::strlen(text);
    // Deliberate: without an underscore the version starts after the terminating zero. It is empty
    // unless more parameters follow there. (tst_handshake::textWithoutUnderscoreIsEmpty)
    return QString::fromLatin1(std::find(static_cast<const char *>(text), end, '_') + 1);
}

} // namespace

int FileIO::handsharkeV3()
{
    const Protocol &protocol = m_protocolV3;
    unsigned char frame[kFrameMaxV3] = {};
    unsigned char sent[kFrameMaxV3] = {};
    unsigned char received[kFrameMaxV3] = {};
    buildRequest(*this, frame, protocol);
    const unsigned length = getSourceFrameBufV3(sent, frame);
    printBytes("tx_buf[", sent, protocol.frame_max_len);
    const int count =
        serialIoctl(sent, static_cast<unsigned char>(length), received, protocol.frame_max_len);
    qDebug() << "serialIoctl len:" << count;
    // Deliberate: prints and checks the request that was sent; the reply is not examined.
    // (tst_handshake::v3JudgesItsOwnRequest)
    printBytes("rx_buf[", frame, protocol.frame_max_len);
    static_cast<void>(analyzeV3(frame, protocol));
    printStatus(9, *this);

    if (!concludeHandshake())
        return -1;
    unsigned char params[sizeof m_frameRecordV3.params];
    takeVersion(params, getParamV3(params, protocol));
    return count;
}

int FileIO::handsharkeV4()
{
    const Protocol &protocol = m_protocolV4;
    unsigned char frame[kFrameMaxV4] = {};
    unsigned char sent[kFrameMaxV4] = {};
    unsigned char received[kFrameMaxV4] = {};

    buildRequest(*this, frame, protocol);
    const unsigned length = getSourceFrameBufV4(sent, frame);
    const int count =
        serialIoctl(sent, static_cast<unsigned char>(length), received, protocol.frame_max_len);
    qDebug() << "serialIoctl len:" << count;
    std::memcpy(frame, received, sizeof frame);
    for (int i = 0; i < count; ++i)
        std::printf("handsharkeV4():rx_buf[%d]=%x\n", i, static_cast<unsigned>(frame[i]));
    static_cast<void>(analyzeV4(frame, protocol));

    if (!concludeHandshake())
        return -1;
    unsigned char params[sizeof m_frameRecordV4.params];
    takeVersion(params, getParamV4(params, protocol));
    return count;
}

bool FileIO::concludeHandshake() const
{
    const bool good = m_frameStatus == FRAME_OK;
    std::puts(good ? "handsharke: FRAME_OK" : "handsharke: FRAME_BAD");
    return good;
}

void FileIO::takeVersion(const unsigned char *params, unsigned count)
{
    m_mcuVersion = versionText(params, count);
    qDebug() << "mcuVersion:" << m_mcuVersion;
    qDebug() << "is K7QX:" << (m_mcuVersion.contains(QLatin1String("K7QX")) ? "true" : "false");
}

int FileIO::serialIoctl(unsigned char *tx, unsigned char len, unsigned char *rx, int /*wait*/)
{
    // If the write fails, no reply comes, and callers get the result for that.
    static_cast<void>(m_serialPort->Write(tx, len));
    return m_serialPort->Read(rx, kAnswerMax);
}

int FileIO::RcvData(unsigned char *buf)
{
    unsigned char piece[kBlockSize];
    int total = 0;
    // Unsigned, since the count may wrap.
    const auto start = static_cast<unsigned long>(clock());
    // Deliberate: set once. select() reduces it, and later reads wait only for the remainder.
    // (tst_rcvdata::waitCarriesOver)
    timeval wait{1, 100000};
    for (;;) {
        // Deliberate: always asks for a whole block, so the loop ends early only when the pieces
        // add up to exactly 64. (tst_rcvdata::passing64RunsIntoTheTimeOut)
        const int count = m_serialPort->read_uart_port(piece, kBlockSize, &wait);
        if (count <= kBlockSize) // a failed read is 65535, without bytes
            keepWhatFits(piece, count, buf, total);
        total += count;
        if (count < 0)
            std::printf("read failed! (%s)\n", std::strerror(errno));
        if (total == kBlockSize)
            return total;
        if (static_cast<unsigned long>(clock()) - start > kBlockClockTicks) {
            std::printf("Time out:line = %d\n\r", kTimeOutLabel);
            return total;
        }
    }
}

void FileIO::setLocalVersion(QString version)
{
    m_localVersion = version;
}
