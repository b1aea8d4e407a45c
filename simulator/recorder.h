#ifndef BOARDSIM_RECORDER_H
#define BOARDSIM_RECORDER_H

#include "linedecoder.h"
#include "recording.h"

#include <array>
#include <deque>

namespace boardsim {

/// Writes a recording: all bytes of the line as they come, each frame under its meaning.
class Recorder {
public:
    /// Takes text for the end of the file.
    using Writer = std::function<void(const QByteArray &text)>;

    Recorder(Writer writer, TimePoint start);

    /// Bytes came; before the decoder has them. Those that no program heard are written as
    /// comments: a replay must not send them.
    void add(TimePoint now, bool toBoard, const QByteArray &bytes, bool isHeard = true);

    /// The decoder has told what the next bytes of their direction are.
    void describe(const LineEvent &event);

    /// Something happened to the line. Everything before it has been described.
    void happened(TimePoint now, Record::Kind kind);

    /// Writes what is left.
    void flush();

private:
    struct Piece {
        TimePoint time; // of its last byte
        bool toBoard;
        QByteArray bytes;
        QByteArray comment;
        bool isHeard;
    };

    qint64 msOf(TimePoint time) const;
    void writeReady(bool all);

    const Writer m_writer;
    const TimePoint m_start;
    std::array<std::deque<Piece>, 2> m_raw; // not described yet, by direction
    std::deque<Piece> m_described;          // by time; a late frame may still come before them
};

} // namespace boardsim

#endif // BOARDSIM_RECORDER_H
