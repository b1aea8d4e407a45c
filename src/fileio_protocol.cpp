#include "fileio.h"

#include "frame.h"

#include <QDebug>

#include <cstring>

namespace {

constexpr int kCheckedParamByte = 37; // its offset in the frame is printed

template <typename Record>
unsigned copySource(unsigned char *dst, const unsigned char *src, const Record &record)
{
    if (record.len > 0)
        std::memmove(dst, src, record.len);
    return record.len;
}

template <typename Record>
unsigned copyParams(unsigned char *out, const Protocol &protocol, const Record &record)
{
    const unsigned count = paramLength(record.len, protocol, sizeof record.params);
    if (count > 0)
        std::memcpy(out, record.params, count);
    return count;
}

/// Prints the six output lines that precede a V3 analysis.
///
/// Deliberate: some labels do not name the value that follows them.
/// (tst_frameanalysis::v3PrintsSixLines)
void printFraming(const unsigned char *buf, const Protocol &protocol)
{
    const int length = buf[protocol.len_offset];
    const bool hasFoot = length > 0 && length <= protocol.frame_max_len;
    qDebug() << "buf head_offset:" << int(buf[protocol.head_offset]);
    qDebug() << "protocolData head_offset:" << int(protocol.frame_head);
    qDebug() << "buf len_offset:" << length;
    qDebug() << "protocolData frame_min_len:" << int(protocol.frame_min_len);
    qDebug() << "buf buf len_offset:" << (hasFoot ? int(buf[length - 1]) : 0);
    qDebug() << "protocolData frame_foot:" << int(protocol.frame_foot);
}

} // namespace

void FileIO::initProtocolV3()
{
    layOutV3(m_protocolV3);
}

void FileIO::initProtocolV4()
{
    layOutV4(m_protocolV4);
}

int FileIO::setMachineParam(MachineParam param, unsigned char *buf, Protocol protocol)
{
    std::memcpy(buf + protocol.param_offset, param.bytes, sizeof param.bytes);
    qDebug() << "protocolData.param_offset+37:" << protocol.param_offset + kCheckedParamByte;
    return m_frameStatus;
}

int FileIO::setCrc(unsigned char *buf, Protocol protocol)
{
    m_frameStatus = FRAME_BAD;
    if (isFramed(buf, protocol)) {
        const unsigned length = buf[protocol.len_offset];
        buf[length - 2] = frameSum(buf, length);
        m_frameStatus = FRAME_OK;
    }
    return m_frameStatus;
}

int FileIO::analyzeV3(unsigned char *buf, Protocol protocol)
{
    printFraming(buf, protocol);
    m_frameStatus = analyzeFrame(buf, protocol, m_frameRecordV3);
    return m_frameStatus;
}

int FileIO::analyzeV4(unsigned char *buf, Protocol protocol)
{
    m_frameStatus = analyzeFrame(buf, protocol, m_frameRecordV4);
    return m_frameStatus;
}

unsigned FileIO::getSourceFrameBufV3(unsigned char *dst, unsigned char *src) const
{
    return copySource(dst, src, m_frameRecordV3);
}

unsigned FileIO::getSourceFrameBufV4(unsigned char *dst, unsigned char *src) const
{
    return copySource(dst, src, m_frameRecordV4);
}

unsigned FileIO::getParamV3(unsigned char *out, Protocol protocol) const
{
    return copyParams(out, protocol, m_frameRecordV3);
}

unsigned FileIO::getParamV4(unsigned char *out, Protocol protocol) const
{
    return copyParams(out, protocol, m_frameRecordV4);
}
