#ifndef BOARDSIM_RECORDING_H
#define BOARDSIM_RECORDING_H

#include <QByteArray>
#include <QList>
#include <QSet>
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
    QString madeBy;  ///< version of the tap
    QString program; ///< what people say about it; empty: nothing
    QString board;   ///< as well
    QVector<Record> records;
};

constexpr int kMaxRecordingSize = 64 * 1024 * 1024; // bytes of its text

/// Reads a recording piece by piece, also while it is being written.
class RecordingReader {
public:
    /// Takes the next piece of the text. False when it is broken or too large, see errorText();
    /// nothing more is taken then.
    [[nodiscard]] bool add(const QByteArray &text);

    /// There is no more. False as above.
    [[nodiscard]] bool finish();

    /// The head as far as it has come, and the records since the last call. What has come of the
    /// last one may go on in the next call: as a further record of its kind and time.
    Recording take();

    QString errorText() const { return m_errorText; }

private:
    bool refuse(const QString &why);
    bool readLine(QByteArray line);
    bool readFirstLine(const QByteArray &line);
    bool readHeadLine(const QList<QByteArray> &words, const QByteArray &line);
    bool finishHead();
    bool readRecord(const QList<QByteArray> &words);
    bool readTime(const QByteArray &word, qint64 &ms);
    bool readEvent(Record record, const QList<QByteArray> &words);
    void append(const Record &record);
    bool readBytes(const QList<QByteArray> &words);

    QByteArray m_rest; // of the text: a line without its line feed
    qint64 m_size = 0;
    int m_line = 0;
    Recording m_recording;        // not taken yet
    QSet<QByteArray> m_head;      // names that stand in it
    std::optional<Record> m_last; // as it began
    int m_lastSize = 0;           // its bytes
    bool m_isAway = false;
    QString m_errorText;
};

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
