#ifndef PLAINFRAME_H
#define PLAINFRAME_H

#include <QByteArray>

#include <cstdint>
#include <vector>

// Frames of the machine protocol written out plainly, apart from the product's own code.

constexpr char kMark = '\xE7'; // head and foot

/// Lengths of one version, and where its parameters begin.
struct PlainLayout {
    int shortest;
    int longest;
    int cmd;
    int arg;
    int opt1;
    int params;
};

constexpr PlainLayout kPlainV3{31, 111, 23, 24, 26, 29};
constexpr PlainLayout kPlainV4{34, 200, 26, 27, 29, 32};

/// Sum, modulo 256, of bytes 1 to `length` - 3.
inline std::uint8_t plainSum(const QByteArray &frame, int length)
{
    int sum = 0;
    for (int i = 1; i <= length - 3; ++i)
        sum += static_cast<unsigned char>(frame[i]);
    return static_cast<std::uint8_t>(sum & 0xFF);
}

/// The bytes with length byte, head, foot and sum put right.
inline QByteArray framed(QByteArray bytes)
{
    const int length = bytes.size();
    bytes[0] = kMark;
    bytes[1] = static_cast<char>(length);
    bytes[length - 1] = kMark;
    bytes[length - 2] = static_cast<char>(plainSum(bytes, length));
    return bytes;
}

/// A sound frame of `length` bytes; what `params` does not fill is zero.
inline QByteArray plainFrame(const PlainLayout &layout, int length, const QByteArray &params = {})
{
    QByteArray bytes(length, '\0');
    bytes.replace(layout.params, params.size(), params);
    return framed(bytes);
}

/// Bytes on the heap, in exactly their size, so that the sanitizers see every one beyond them.
using Bytes = std::vector<unsigned char>;

inline Bytes exact(const QByteArray &bytes)
{
    return {bytes.begin(), bytes.end()};
}

inline QByteArray textOf(const Bytes &bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), static_cast<int>(bytes.size())};
}

#endif // PLAINFRAME_H
