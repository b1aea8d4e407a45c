#ifndef BOARDSIM_REPORT_H
#define BOARDSIM_REPORT_H

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QVector>

namespace boardsim {

/// Something that went over the serial line.
struct FrameRecord {
    qint64 ms = 0; ///< since the simulator was started
    bool toBoard = false;
    QString meaning;
    QByteArray bytes;
};

/// Something that the assistant did and must not do.
struct Violation {
    qint64 ms = 0;
    QString text;
    QString explainedBy; ///< the fault made before it that may have led to it; empty: none
};

/// One stay in the boot loader.
struct Transfer {
    QString fileName; ///< empty until the start frame came
    qint64 announcedSize = 0;
    qint64 blocksExpected = 0;
    qint64 blocksReceived = 0;
    bool eotReceived = false;
    bool complete = false;  ///< the end frame came
    int extraEndFrames = 0; ///< after it; this sender replies to the last ACK with one
    QByteArray image;       ///< what was received, cut at the announced size
};

/// Everything that has happened so far.
struct Report {
    int versionQueries = 0; ///< valid ones, as below
    int startCommands = 0;
    int handshakesV3 = 0;
    int handshakesV4 = 0;
    int connects = 0;
    int configReads = 0; ///< each ends a whole sequence of packets
    QVector<Transfer> transfers;
    QVector<FrameRecord> frames;
    QVector<Violation> violations;
    QStringList faultsMade; ///< as they were given, in the order in which they were made
    QStringList errors;     ///< of the simulator itself: the serial line or the image file failed
    bool hungUp = false;
    QString difference; ///< of a replay: where the program left the recording; empty: nowhere

    /// Whether a violation happened that no fault explains.
    bool hasUnexplainedViolation() const;

    /// The latest transfer; an empty one when there was none.
    Transfer lastTransfer() const;
};

/// The summary for machines.
QJsonObject toJson(const Report &report);

} // namespace boardsim

#endif // BOARDSIM_REPORT_H
