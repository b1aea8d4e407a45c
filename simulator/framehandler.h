#ifndef BOARDSIM_FRAMEHANDLER_H
#define BOARDSIM_FRAMEHANDLER_H

#include "place.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

namespace boardsim {

/// What the board says to a frame.
struct Answer {
    enum class Kind {
        Frame,   // a command answer, with head, length, checksum and foot
        Packet,  // a packet of the boot loader, with none of these
        Control, // control bytes of the boot loader
    };
    Kind kind = Kind::Frame;
    QByteArray bytes;
    QString meaning;
    int paramOffset = 0; // of a command answer: where its parameters begin; 0: it has none
};

/// A handler's word on the first bytes of something received.
struct Claim {
    int length = 0; // of the whole frame in bytes; 0: cannot be told yet
    Place place;
};

/// What came of a whole frame.
struct Verdict {
    enum class Next {
        Stay,
        EnterBootLoader,
        LeaveBootLoader,
    };
    QString meaning;
    QStringList violations; // everything that is off in it; empty when it is good
    std::optional<Answer> answer;
    Next next = Next::Stay;
    bool opensExchange = false; // what went wrong before it explains nothing any more
};

/// One kind of exchange that the board takes part in: knows its frames by their first bytes, checks
/// them and says what is answered. Sends nothing itself. A further exchange is a further handler.
class FrameHandler {
public:
    virtual ~FrameHandler() = default;

    /// Whether the frame that begins with `start` (at least one byte) is for this handler.
    virtual std::optional<Claim> claim(const QByteArray &start) const = 0;

    /// Judges a whole frame that claim() gave the length of.
    virtual Verdict receive(const QByteArray &frame) = 0;

    /// Whether the application answers it, so that the board leaves its boot loader for it.
    virtual bool isForApplication() const { return false; }

    /// What is answered to a claimed frame that broke off; nothing by default.
    virtual std::optional<Answer> answerToBrokenFrame() const { return std::nullopt; }
};

} // namespace boardsim

#endif // BOARDSIM_FRAMEHANDLER_H
