#ifndef BOARDSIM_REPLYDECODER_H
#define BOARDSIM_REPLYDECODER_H

#include "framedecoder.h"
#include "ymodemreceiver.h"

namespace boardsim {

/// Something that the board has sent.
struct DecodedReply {
    QByteArray bytes;
    QString meaning;
    QStringList violations;
    TimePoint time; ///< of its last byte
};

/// In double quotes, with escapes for what is not printable.
QString quotedText(const QByteArray &bytes);

/// Whether a console may print all of it.
bool isConsoleText(const QByteArray &bytes);

/// Decodes what comes from the board: replies to commands and packets, control bytes of the
/// transfer, console text. A reply is recognised by the request before it, since its own bytes may
/// be wrong; a pause ends what is not whole.
class ReplyDecoder {
public:
    /// A pause of `gap` ends a reply that is not whole.
    explicit ReplyDecoder(Milliseconds gap);

    /// The reply to this frame is to come; it replaces one that has not come.
    void expect(const Received &request);

    void add(TimePoint now, char byte);

    /// What is complete by now. `state` tells what control bytes mean.
    std::optional<DecodedReply> take(TimePoint now, YModemReceiver::State state);

    /// What is left, complete or not.
    std::optional<DecodedReply> takeRest(YModemReceiver::State state);

    /// The other side goes on: control bytes received so far are complete.
    void endControls() { m_controlsAreComplete = true; }

    /// When a pause will have ended what is being received.
    std::optional<TimePoint> deadline() const;

private:
    bool endsWithPause(TimePoint now) const;
    int expectedLength() const;
    int replyLengthAt(int offset) const;
    char firstByte() const;
    QStringList violationsOf(const QByteArray &reply) const;
    QString replyMeaning(const QByteArray &reply) const;
    std::optional<DecodedReply> takeReply();
    std::optional<DecodedReply> takeBadReply();
    DecodedReply cut(int size, const QString &meaning, const QStringList &violations = {});

    const Milliseconds m_gap;
    QByteArray m_bytes; // received and not taken
    TimePoint m_lastByte{};
    bool m_controlsAreComplete = false;
    Step m_expected = Step::End; // End: none
    QByteArray m_request;
    QString m_requestName;
};

} // namespace boardsim

#endif // BOARDSIM_REPLYDECODER_H
