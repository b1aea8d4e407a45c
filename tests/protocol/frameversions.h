#ifndef FRAMEVERSIONS_H
#define FRAMEVERSIONS_H

#include "capture.h"
#include "fileio.h"
#include "plainframe.h"

#include <QtTest>

#include <random>

// One fact for either version of the machine protocol: its rows are versions(), its body is
// forVersionOfTheRow([](auto v) { ... }).

struct V3 {
    using Record = FrameRecordV3;
    PlainLayout layout = kPlainV3;
    int checkedParamOffset = 66;
    const Protocol &protocol(const FileIO &io) const { return io.protocolV3(); }
    const Record &record(const FileIO &io) const { return io.frameRecordV3(); }
    int analyze(FileIO &io, unsigned char *buf, const Protocol &protocol) const
    {
        return io.analyzeV3(buf, protocol);
    }
    unsigned source(const FileIO &io, unsigned char *dst, unsigned char *src) const
    {
        return io.getSourceFrameBufV3(dst, src);
    }
    unsigned params(const FileIO &io, unsigned char *out, const Protocol &protocol) const
    {
        return io.getParamV3(out, protocol);
    }
};

struct V4 {
    using Record = FrameRecordV4;
    PlainLayout layout = kPlainV4;
    int checkedParamOffset = 69;
    const Protocol &protocol(const FileIO &io) const { return io.protocolV4(); }
    const Record &record(const FileIO &io) const { return io.frameRecordV4(); }
    int analyze(FileIO &io, unsigned char *buf, const Protocol &protocol) const
    {
        return io.analyzeV4(buf, protocol);
    }
    unsigned source(const FileIO &io, unsigned char *dst, unsigned char *src) const
    {
        return io.getSourceFrameBufV4(dst, src);
    }
    unsigned params(const FileIO &io, unsigned char *out, const Protocol &protocol) const
    {
        return io.getParamV4(out, protocol);
    }
};

inline void versions()
{
    QTest::addColumn<int>("version");
    QTest::newRow("V3") << 3;
    QTest::newRow("V4") << 4;
}

template <typename Check>
void forVersionOfTheRow(Check check)
{
    QFETCH(int, version);
    if (version == 3)
        check(V3{});
    else
        check(V4{});
}

/// Collects the debug lines and drops them: the analysis of V3 prints on every call.
class Quiet {
    MessageCapture m_messages;
};

/// Analyses a copy of the frame, and ends the program when the analysis writes to it.
template <typename V>
int analyze(V v, FileIO &io, const QByteArray &frame, const Protocol &protocol)
{
    const Quiet quiet;
    Bytes bytes = exact(frame);
    const int result = v.analyze(io, bytes.data(), protocol);
    if (textOf(bytes) != frame)
        qFatal("the analysis writes to the frame");
    return result;
}

template <typename V>
int analyze(V v, FileIO &io, const QByteArray &frame)
{
    return analyze(v, io, frame, v.protocol(io));
}

/// Random bytes with head, length, foot and sum put right.
inline QByteArray randomFrame(int length, unsigned seed)
{
    std::mt19937 random(seed);
    QByteArray bytes(length, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random());
    return framed(bytes);
}

template <typename Array>
QByteArray bytesOf(const Array &array)
{
    return {reinterpret_cast<const char *>(array), static_cast<int>(sizeof array)};
}

template <typename Record>
bool sameRecords(const Record &a, const Record &b)
{
    bool same = a.head == b.head && a.len == b.len && a.type == b.type
        && bytesOf(a.addr) == bytesOf(b.addr) && bytesOf(a.block) == bytesOf(b.block)
        && a.cmd == b.cmd && a.arg == b.arg && a.opt1 == b.opt1 && a.opt2 == b.opt2
        && a.opt3 == b.opt3 && bytesOf(a.params) == bytesOf(b.params) && a.sum == b.sum
        && a.foot == b.foot;
    if constexpr (std::is_same_v<Record, FrameRecordV4>)
        same = same && bytesOf(a.ext) == bytesOf(b.ext);
    return same;
}

/// `bytes` with another value at one position.
inline QByteArray with(QByteArray bytes, int position, int value)
{
    bytes[position] = static_cast<char>(value);
    return bytes;
}

/// `count` bytes from the value `from` on, each one more than the one before.
inline QByteArray counting(int from, int count)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i)
        bytes.append(static_cast<char>(from + i));
    return bytes;
}

#endif // FRAMEVERSIONS_H
