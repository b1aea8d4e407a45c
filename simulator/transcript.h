#ifndef BOARDSIM_TRANSCRIPT_H
#define BOARDSIM_TRANSCRIPT_H

#include "clock.h"
#include "report.h"

#include <QByteArray>
#include <QString>

#include <functional>

namespace boardsim {

/// How bytes are printed.
enum class HexStyle {
    Full,  ///< the bytes of long frames stand on output lines of their own
    Short, ///< one output line an event: head and tail of long frames
};

/// Receives one whole output line, without the line feed, on the simulator's thread.
using LineSink = std::function<void(const QByteArray &line)>;

/// Writes what happens, each event once, into the report and as output lines: seconds since the
/// start, the direction ("->" to the board, "<-" from it), what it means and its bytes.
class Transcript {
public:
    /// `sink` may be empty; `report` must outlive this.
    Transcript(LineSink sink, HexStyle style, Report &report, TimePoint start = Clock::now());

    /// Bytes came from the assistant.
    void received(TimePoint now, const QString &meaning, const QByteArray &bytes);
    /// Bytes went out to the assistant.
    void sent(TimePoint now, const QString &meaning, const QByteArray &bytes);
    /// Writes an output line; the report does not have it.
    void note(TimePoint now, const QString &text);

    /// A fault was made: it explains the violations after it, up to the next new exchange.
    void faultMade(TimePoint now, const QString &fault);
    /// The assistant did something that it must not do.
    void violation(TimePoint now, const QString &text);

    /// An exchange begins: faults made before it explain no violation any more.
    void newExchange() { m_explanation.clear(); }

    /// The board has closed the serial line.
    void hungUp(TimePoint now);
    /// The simulator itself has failed.
    void failed(TimePoint now, const QString &text);

private:
    qint64 elapsedMs(TimePoint now) const;
    void line(TimePoint now, const char *mark, const QString &text);
    void frame(TimePoint now, bool toBoard, const QString &meaning, const QByteArray &bytes);

    LineSink m_sink;
    HexStyle m_style;
    Report &m_report;
    TimePoint m_start;
    QString m_explanation; // the latest fault of this exchange
};

} // namespace boardsim

#endif // BOARDSIM_TRANSCRIPT_H
