#ifndef BOARDSIM_COMMANDDECODER_H
#define BOARDSIM_COMMANDDECODER_H

#include "framedecoder.h"
#include "report.h"

// The frames of the board's application: what it accepts, byte for byte, and what it replies.
//
//   offset   0     1       2     12       23       26       n-2       n-1
//   command  0xE7  length  0xFF  command                    checksum  0xE7
//   V3       0xE7  length                 command           checksum  0xE7
//   V4       0xE7  length                          command  checksum  0xE7
//
// V3 and V4 are the versions of the machine protocol: after their headers, from byte 29 or 32 on,
// come the parameters. The checksum is the low byte of the sum of bytes 1 to n-3.

namespace boardsim {

constexpr std::uint8_t kFrameMark = 0xE7; // head and foot of every command frame

/// Longest version text: with more than 17 characters no zero byte follows it, and the 19th takes
/// the place of the checksum.
constexpr int kMaxVersionText = 19;

/// Most parameters of a handshake reply: with them a V4 frame has the 255 bytes that its length
/// byte can tell. A well-behaved board keeps to 80 in V3 and 166 in V4.
constexpr int kMaxParams = 221;

/// The version query (30 bytes), the update start command (18) and the handshakes (73 in V3, 76 in
/// V4). Each has one valid form; any other is ignored, as no board answers what it does not
/// understand.
class CommandDecoder : public FrameDecoder {
public:
    /// Counts the valid ones in `report`, which must outlive this.
    explicit CommandDecoder(Report &report);

    std::optional<FrameMatch> match(const QByteArray &start) const override;
    DecodedFrame decode(const QByteArray &frame) override;

private:
    Report &m_report;
};

/// The 36-byte reply to the version query. `text` is ASCII, at most kMaxVersionText characters.
QByteArray versionReply(const QByteArray &text);

/// The version text in such a reply, up to its zero byte.
QByteArray versionTextOf(const QByteArray &reply);

/// The 18-byte reply to the start command.
QByteArray startReply();

/// Where the parameters of a handshake begin, and those of its reply.
int paramOffsetOf(const QByteArray &handshake);

/// A text as the parameters of a handshake: filled up with zeros to the 42 bytes that it has.
QByteArray paramBlock(const QByteArray &text);

/// The parameters of a frame.
QByteArray paramsOf(const QByteArray &frame, int paramOffset);

/// "V3 handshake" or "V4 handshake".
QString handshakeName(const QByteArray &handshake);

/// What is wrong with a reply, where the program looks or the envelope is at stake: head, length
/// byte, checksum and foot; one text a field. The reply to the version query has no checksum when
/// its version text takes that place; the sum of the reply to the start command is its foot as
/// well.
QStringList replyViolations(const QByteArray &reply, Step step);

/// The frame with other parameters; length byte, checksum and foot are right again.
QByteArray withParams(const QByteArray &frame, int paramOffset, const QByteArray &params);

} // namespace boardsim

#endif // BOARDSIM_COMMANDDECODER_H
