#ifndef BOARDSIM_TRANSCRIPT_H
#define BOARDSIM_TRANSCRIPT_H

#include "clock.h"

#include <QByteArray>
#include <QString>

#include <functional>

namespace boardsim {

enum class HexStyle {
    Full,  // long frames go on in lines of their own
    Short, // one line an event: head and tail of long frames
};

/// Receives one whole line, without the line feed, on the simulator's thread.
using LineSink = std::function<void(const QByteArray &line)>;

/// Writes what happens as text for people: seconds since the start, the direction ("->" to the
/// board, "<-" from it), what it means and its bytes.
class Transcript {
public:
    Transcript(LineSink sink, HexStyle style);

    void received(TimePoint now, const QString &meaning, const QByteArray &frame);
    void sent(TimePoint now, const QString &meaning, const QByteArray &frame);
    void note(TimePoint now, const QString &text);
    void fault(TimePoint now, const QString &text);
    void violation(TimePoint now, const QString &text);

    /// Milliseconds since the start.
    qint64 elapsedMs(TimePoint now) const;

private:
    void line(TimePoint now, const char *mark, const QString &text);
    void bytes(TimePoint now, const char *mark, const QString &meaning, const QByteArray &frame);

    LineSink m_sink;
    HexStyle m_style;
    TimePoint m_start;
};

} // namespace boardsim

#endif // BOARDSIM_TRANSCRIPT_H
