#ifndef BOARDSIM_COMMANDFRAMES_H
#define BOARDSIM_COMMANDFRAMES_H

#include <QByteArray>
#include <QString>
#include <QStringList>

// The frames of the board's application: what it accepts, byte for byte, and what it answers.
//
//   offset  0     1       2     12       n-2       n-1
//           0xE7  length  0xFF  command  checksum  0xE7
//
// The checksum is the low byte of the sum of bytes 1 to n-3.

namespace boardsim {

constexpr quint8 kFrameMark = 0xE7; // head and foot of every command frame

/// Longest version text: with more than 17 characters no zero byte follows it, and the 19th takes
/// the place of the checksum.
constexpr int kMaxVersionText = 19;

/// The one version query that a board answers, 30 bytes.
QByteArray versionQuery();

/// The one command that takes a board into its boot loader, 18 bytes.
QByteArray startCommand();

/// The 36-byte answer to the version query. `text` is ASCII, at most kMaxVersionText characters.
QByteArray versionReply(const QByteArray &text);

/// The 18-byte answer to the start command.
QByteArray startReply();

/// What is wrong with `frame` where `expected` should have come, one sentence a byte; empty when
/// they are equal. Both have the same length.
QStringList commandFrameFaults(const QByteArray &frame, const QByteArray &expected);

} // namespace boardsim

#endif // BOARDSIM_COMMANDFRAMES_H
