#ifndef BOARDSIM_TRANSFERVIEW_H
#define BOARDSIM_TRANSFERVIEW_H

#include "transferprogress.h"

#include <QStringList>

#include <mutex>

namespace boardsim {

/// Draws the progress of the transfers on a line: a picture that changes where the output is a
/// terminal, else lines, one for each thing that happens. It never waits for a terminal while the
/// line goes on, and prints no character of the line that a terminal would obey.
class TransferView {
public:
    /// Draws on `output`, a descriptor. `report` is the decoder's and must outlive this; `start` is
    /// that of the line.
    TransferView(int output, const Report &report, TimePoint start);
    ~TransferView() { leave(); }
    TransferView(const TransferView &) = delete;
    TransferView &operator=(const TransferView &) = delete;

    /// What stands above the picture.
    void setTitle(const QString &title) { m_title = title; }

    /// Shows from now on what has failed: the picture hides what is printed. Any thread.
    void addFault(const QString &text)
    {
        const std::lock_guard<std::mutex> lock(m_faultsMutex);
        m_faults << text;
    }

    void take(const LineEvent &event);

    /// Draws what is new, at most some times a second. `now` is the time on the line.
    void draw(TimePoint now);

    /// When draw() is needed next; not set: never, since the output is no terminal.
    std::optional<TimePoint> deadline() const;

    /// Leaves the terminal as it was; the next draw() takes it again.
    void leave();

    /// Leaves the terminal, and prints the last picture.
    void end(TimePoint now, const QString &state);

private:
    QStringList picture(TimePoint now, int width) const;
    QString blocksText(TimePoint now) const;
    QString stepText() const;
    void printEvent(const LineEvent &event, bool isRefusal);
    void printProgress(TimePoint now);
    void print(TimePoint time, const QString &text);
    void write(const QByteArray &text);

    const int m_output;
    const bool m_isTerminal;
    const TimePoint m_start;
    TransferProgress m_progress;
    QString m_title;
    mutable std::mutex m_faultsMutex;
    QStringList m_faults;
    QString m_state;
    bool m_hasTerminal = false; // it shows the picture now
    QByteArray m_drawn;
    TimePoint m_nextDraw{};
    int m_printedTransfer = 0; // of which the start has been printed
    int m_printedStep = 0;     // of its progress
};

} // namespace boardsim

#endif // BOARDSIM_TRANSFERVIEW_H
