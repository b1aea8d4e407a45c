#ifndef TESTBOARD_H
#define TESTBOARD_H

#include "assistantline.h"
#include "boardsimulator.h"

#include <QByteArrayList>

// Replies of the boot loader.
const QByteArray kAckReply("\x06");
const QByteArray kAckAndRequest("\x06"
                                "C");
const QByteArray kNakReply("\x15");

/// A board that soon notices that a frame broke off, with these faults.
boardsim::Options quickToNotice(const QByteArrayList &faults = {});

/// The same board, but it starts in its boot loader.
boardsim::Options inBootLoader(boardsim::Options options = {});

/// A running board, and the assistant's end of its line.
class TestBoard : public BoardSimulator {
public:
    /// Ends the program when the board does not start.
    explicit TestBoard(const boardsim::Options &options = {});

    /// Waits until `condition` holds. False when it does not in ten seconds.
    bool await(const Condition &condition) const;
    bool awaitViolations(int count = 1) const;
    /// Sends `bytes` to the board and waits for the first violation.
    bool refuses(const QByteArray &bytes);
    bool awaitFaults(int count) const;
    bool awaitSent(int count) const;
    bool awaitQuiet(boardsim::Milliseconds quiet) const;

    /// What the board has sent, chunk by chunk.
    QByteArrayList sent() const;

    /// Text of the first violation; empty when there is none.
    QString violation() const;

    AssistantLine line;

private:
    QString startedDevice();
};

#endif // TESTBOARD_H
