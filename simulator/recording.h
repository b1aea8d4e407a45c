#ifndef BOARDSIM_RECORDING_H
#define BOARDSIM_RECORDING_H

#include <QByteArray>
#include <QString>
#include <QVector>

#include <optional>

// A recording of a serial line: text that people read and edit. docs/recordings.md describes it.

namespace boardsim {

constexpr int kLineSpeed = 115200; // baud, the product's

/// One piece of what went over the line, or what happened to it.
struct Record {
    enum class Kind {
        ToBoard,
        FromBoard,
        HangUp, ///< the device of the board went away
        Return, ///< it came back
    };
    Kind kind = Kind::ToBoard;
    qint64 ms = 0; ///< of the last byte, since the beginning
    QByteArray bytes;
    int line = 0; ///< of the file; 0: not from a file
};

struct Recording {
    int speed = kLineSpeed;
    QString madeBy; ///< version of the tap
    QVector<Record> records;
};

constexpr int kMaxRecordingSize = 64 * 1024 * 1024; // bytes of the file

/// Reads a recording. Not set when it is broken or too large; `error` then says where and why.
std::optional<Recording> parseRecording(const QByteArray &text, QString &error);

/// Reads the file; as above.
std::optional<Recording> readRecording(const QString &path, QString &error);

/// The head of a recording.
QByteArray recordingHead(int speed, const QString &madeBy);

/// A line of comment.
QByteArray commentLine(const QString &text);

/// The lines of a record.
QByteArray recordLines(const Record &record);

} // namespace boardsim

#endif // BOARDSIM_RECORDING_H
