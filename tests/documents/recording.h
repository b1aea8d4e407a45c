#ifndef RECORDING_H
#define RECORDING_H

#include <QByteArray>
#include <QByteArrayList>
#include <QVector>

/// A frame that went over the line.
struct RecordedFrame {
    QByteArray title; ///< as in boardsim's transcript: "-> version query (30 bytes)"
    QByteArray bytes;
};

/// What went over one line, from the first frame to the last.
using RecordedExchange = QVector<RecordedFrame>;

/// Runs every exchange of the bridge with the simulated board and records them. An entry of
/// `complaints` tells what did not go as it should. For the simulated machine only.
QVector<RecordedExchange> recordExchanges(QByteArrayList &complaints);

#endif // RECORDING_H
