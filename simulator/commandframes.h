#ifndef BOARDSIM_COMMANDFRAMES_H
#define BOARDSIM_COMMANDFRAMES_H

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

// The frames of the board's application: what it accepts, byte for byte, and what it answers.
//
//   offset   0     1       2     12       23       26       n-2       n-1
//   command  0xE7  length  0xFF  command                    checksum  0xE7
//   V3       0xE7  length                 command           checksum  0xE7
//   V4       0xE7  length                          command  checksum  0xE7
//
// V3 and V4 are the versions of the machine protocol: behind their headers, from byte 29 or 32 on,
// come the parameters. The checksum is the low byte of the sum of bytes 1 to n-3.

namespace boardsim {

constexpr quint8 kFrameMark = 0xE7; // head and foot of every command frame

/// Longest version text: with more than 17 characters no zero byte follows it, and the 19th takes
/// the place of the checksum.
constexpr int kMaxVersionText = 19;

/// Parameters of a handshake, and of an answer to it that says no more than it must.
constexpr int kParamBlock = 42;

/// Most parameters of a handshake answer: with them a V4 frame has the 255 bytes that its length
/// byte can tell. A well-behaved board keeps to 80 in V3 and 166 in V4.
constexpr int kMaxParams = 221;

enum class ProtocolVersion {
    V3 = 3,
    V4 = 4,
};

/// The one valid form of a frame.
struct ExpectedFrame {
    QByteArray bytes;
    QMap<int, QString> names; // of single bytes by their offset, for those that are off
};

/// The one version query that a board answers, 30 bytes.
ExpectedFrame versionQuery();

/// The one command that takes a board into its boot loader, 18 bytes.
ExpectedFrame startCommand();

/// The one handshake that a board answers, 73 bytes in V3 and 76 in V4.
ExpectedFrame handshake(ProtocolVersion version);

/// The 36-byte answer to the version query. `text` is ASCII, at most kMaxVersionText characters.
QByteArray versionReply(const QByteArray &text);

/// The 18-byte answer to the start command.
QByteArray startReply();

/// The answer to a handshake with these parameters, at most kMaxParams. Its header is that of the
/// handshake.
QByteArray handshakeReply(ProtocolVersion version, const QByteArray &params);

/// Where the parameters of a handshake and of its answer begin.
int paramOffset(ProtocolVersion version);

/// What a board says for short: the text, filled up with zeros to kParamBlock.
QByteArray paramBlock(const QByteArray &text);

/// The parameters of a frame.
QByteArray paramsOf(const QByteArray &frame, int paramOffset);

/// The frame with other parameters; length byte, checksum and foot are right again.
QByteArray withParams(const QByteArray &frame, int paramOffset, const QByteArray &params);

/// What is wrong with `frame` where `expected` should have come, one sentence a byte; empty when
/// they are equal. Both have the same length.
QStringList commandFrameFaults(const QByteArray &frame, const ExpectedFrame &expected);

} // namespace boardsim

#endif // BOARDSIM_COMMANDFRAMES_H
