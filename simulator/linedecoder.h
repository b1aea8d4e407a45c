#ifndef BOARDSIM_LINEDECODER_H
#define BOARDSIM_LINEDECODER_H

#include "replydecoder.h"
#include "requestdecoder.h"

#include <functional>

namespace boardsim {

/// Something that has gone over the line.
struct LineEvent {
    TimePoint time; ///< of its last byte
    bool toBoard = false;
    QByteArray bytes; ///< empty: a note about the board
    QString meaning;
    QStringList violations;
    std::optional<Place> place; ///< of a frame to the board whose kind could be told
};

/// Decodes both directions of a serial line, from the bytes alone. Each byte is in exactly one
/// event, and the events of a direction have its bytes in their order.
class LineDecoder {
public:
    using Sink = std::function<void(const LineEvent &event)>;

    /// Counts in `report`, which must outlive this: its last transfer tells the progress. The sink
    /// gets each event as soon as it is complete. A pause of `gap` ends a frame that is not whole.
    LineDecoder(Report &report, Sink sink, Milliseconds gap = Milliseconds(250));

    void toBoard(TimePoint now, const QByteArray &bytes);
    void fromBoard(TimePoint now, const QByteArray &bytes);

    /// Ends what a pause has ended.
    void step(TimePoint now);

    /// When step() is needed next; not set: not before something comes.
    std::optional<TimePoint> deadline() const;

    /// Gives the sink what is left, complete or not. More may come afterwards.
    void flush();

private:
    void takeRequest(const Received &request);
    void takeReply(const DecodedReply &reply);
    void takeReplies(TimePoint now);
    void enterBootLoader(TimePoint time);
    DecodedFrame decoded(const Received &request);
    void note(TimePoint time, const QString &text);

    const Sink m_sink;
    RequestDecoder m_requests;
    ReplyDecoder m_replies;
    TimePoint m_lastRequestByte{};
    QByteArray m_lastFrame; // of a transfer, accepted
    QString m_lastMeaning;
    bool m_isRefused = false;   // by the board, which the decoder cannot know
    bool m_startIsDue = false;  // the boot loader, after the reply to the start command
    bool m_isRestarted = false; // the board has printed text since the transfer
};

} // namespace boardsim

#endif // BOARDSIM_LINEDECODER_H
