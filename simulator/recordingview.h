#ifndef BOARDSIM_RECORDINGVIEW_H
#define BOARDSIM_RECORDINGVIEW_H

#include "followedfile.h"
#include "linewatch.h"
#include "transferview.h"

namespace boardsim {

/// Draws a recording, also while it is being written.
class RecordingView {
public:
    /// Draws on `output`, a descriptor; `transcript` may be empty.
    RecordingView(int output, LineSink transcript, HexStyle style);

    /// Follows the file to its end, or until `signalDescriptor` tells a signal; SIGTSTP stops the
    /// process without the picture on the terminal. False on failure, see errorText().
    [[nodiscard]] bool run(FollowedFile &file, int signalDescriptor);

    const Report &report() const { return m_report; }
    QString errorText() const { return m_errorText; }

private:
    TimePoint now() const;
    void take();
    bool end(const QString &state);
    bool fail(const QString &error);

    const TimePoint m_start = Clock::now();
    Report m_report;
    LineWatch m_watch;
    TransferView m_view;
    RecordingReader m_reader;
    TimePoint m_last = m_start; // record, its time on the line
    TimePoint m_lastCame = m_start;
    QString m_errorText;
};

} // namespace boardsim

#endif // BOARDSIM_RECORDINGVIEW_H
