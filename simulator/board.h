#ifndef BOARDSIM_BOARD_H
#define BOARDSIM_BOARD_H

#include "commandhandler.h"
#include "line.h"
#include "options.h"
#include "report.h"
#include "transcript.h"
#include "ymodemreceiver.h"

namespace boardsim {

/// The board: cuts what arrives into frames, gives each to the exchange that it belongs to and
/// sends the answers. Driven by its owner, on one thread: step() whenever bytes came or deadline()
/// has passed.
class Board {
public:
    /// `line` and `report` must outlive the board.
    Board(const Options &options, Line &line, Report &report);

    void begin(TimePoint now);

    /// Deals with all that has arrived and all that is due.
    void step(TimePoint now);

    /// When step() is needed next if nothing arrives; not set: only then.
    std::optional<TimePoint> deadline() const;

    /// Writes a closing line into the transcript.
    void end(TimePoint now);

private:
    using Handlers = QVector<FrameHandler *>;

    Handlers activeHandlers();
    void take(TimePoint now, char byte);
    void claimStart();
    void finishFrame(TimePoint now);
    void dropBrokenFrame(TimePoint now);
    void carryOut(TimePoint now, const Verdict &verdict, const Place &place);
    void enterBootLoader(TimePoint now, TimePoint firstRequest);
    void leaveBootLoader(TimePoint now);
    void answer(TimePoint now, const Answer &answer, const Place &place);
    void send(TimePoint now, const QVector<Write> &writes);
    void sendDue(TimePoint now);
    void requestStartFrame(TimePoint now);
    void violate(TimePoint now, const QString &text);
    void keepImage(TimePoint now);
    void record(TimePoint now, bool toBoard, const QString &meaning, const QByteArray &bytes);

    const Options m_options;
    Line &m_line;
    Report &m_report;
    Transcript m_transcript;

    CommandHandler m_versionQuery;
    CommandHandler m_startCommand;
    YModemReceiver m_receiver;
    bool m_inBootLoader = false;

    // What is being received. A frame that no handler claims is collected up to the next pause.
    QByteArray m_frame;
    FrameHandler *m_handler = nullptr;
    Claim m_claim;
    bool m_stray = false;
    TimePoint m_lastByte{};

    TimePoint m_answerDone{}; // when the last byte of the latest answer is out
    std::optional<TimePoint> m_nextRequest;
};

} // namespace boardsim

#endif // BOARDSIM_BOARD_H
