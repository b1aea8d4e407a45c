#ifndef BOARDSIM_FRAMEDECODER_H
#define BOARDSIM_FRAMEDECODER_H

#include "clock.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <cstdint>
#include <optional>

// How the bytes that the board receives become frames, and what each frame means. Nothing here
// knows what the board replies.

namespace boardsim {

/// What the board takes part in, step by step: each is one frame to the board and its reply.
enum class Step {
    Version, // a command of the application, as the next two
    StartCommand,
    Handshake, // of either version
    Connect,   // a packet of the boot loader, as the next three
    Sync,
    DeviceId,
    Config,
    StartFrame, // of a transfer, as all that follow; with the 'C's that ask for it
    Block,
    Eot,
    End,
};

constexpr bool isCommand(Step step)
{
    return step <= Step::Handshake;
}

constexpr bool isTransfer(Step step)
{
    return step >= Step::StartFrame;
}

/// Where the exchange is.
struct Place {
    Step step = Step::Version;
    qint64 block = 0;  ///< for Step::Block: counted from 1
    qint64 blocks = 0; ///< for Step::Block: how many the announced size makes
};

/// What the first bytes of a frame tell about it.
struct FrameMatch {
    int length = 0; ///< of the whole frame in bytes; 0: cannot be told yet
    Place place;
};

/// A frame in words, and whether the board accepts it.
struct DecodedFrame {
    enum class Outcome {
        Accepted, ///< gets the reply of its step
        Refused,  ///< gets a NAK
        Ignored,  ///< gets no reply
    };
    QString meaning;
    QStringList violations; ///< everything that is wrong with it; empty when it is valid
    Outcome outcome = Outcome::Ignored;
};

/// One kind of frames: recognises them by their first bytes and checks them.
class FrameDecoder {
public:
    virtual ~FrameDecoder() = default;

    /// Whether `start` (at least one byte) begins a frame of this kind.
    virtual std::optional<FrameMatch> match(const QByteArray &start) const = 0;

    /// Decodes a whole frame that match() gave the length of.
    virtual DecodedFrame decode(const QByteArray &frame) = 0;

    /// Whether a frame of this kind that broke off is refused, not ignored.
    virtual bool refusesBrokenFrames() const { return false; }
};

/// Received bytes that belong together.
struct Received {
    enum class Kind {
        Whole,      ///< a frame
        Broken,     ///< a frame that broke off
        Unexpected, ///< of no frame; all up to a pause
    };
    Kind kind = Kind::Whole;
    QByteArray bytes;
    FrameDecoder *decoder = nullptr; ///< of a frame; null while its kind could not be told
    FrameMatch match;                ///< the decoder's
};

/// Says what `received` is.
DecodedFrame decode(const Received &received);

/// Cuts what arrives into frames: the first bytes give a frame's kind and length; a pause ends what
/// is not whole.
class FrameAssembler {
public:
    using Decoders = QVector<FrameDecoder *>;

    explicit FrameAssembler(Milliseconds gap);

    /// Adds a byte; of the `decoders`, the first that matches a frame's start gets the frame.
    void add(TimePoint now, char byte, const Decoders &decoders);

    /// The match of the frame that is being received; null while there is none.
    const FrameMatch *match() const
    {
        return m_current.match.length > 0 ? &m_current.match : nullptr;
    }

    /// Bytes received of what is not complete yet.
    int size() const { return m_current.bytes.size(); }

    /// What is complete by now: a whole frame, or anything when the pause is long enough.
    std::optional<Received> take(TimePoint now);

    /// What is left, complete or not.
    std::optional<Received> takeRest();

    /// When a pause will have ended what is being received.
    std::optional<TimePoint> deadline() const;

private:
    void matchStart(const Decoders &decoders);

    const Milliseconds m_gap;
    Received m_current;
    TimePoint m_lastByte{};
};

/// Two lower-case digits.
inline QString hexByte(std::uint8_t value)
{
    return QStringLiteral("%1").arg(value, 2, 16, QLatin1Char('0'));
}

/// `offset` is less than the size of `bytes`.
inline std::uint8_t byteAt(const QByteArray &bytes, int offset)
{
    return static_cast<std::uint8_t>(bytes.at(offset));
}

} // namespace boardsim

#endif // BOARDSIM_FRAMEDECODER_H
