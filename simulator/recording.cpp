#include "recording.h"

#include <QFile>

#include <algorithm>
#include <utility>

namespace boardsim {

namespace {

using Kind = Record::Kind;

const QByteArray kFirstLine = "serial line recording 1";
const QByteArray kFirstLineOfAnyVersion = "serial line recording ";

constexpr int kMaxLine = 1000;
constexpr int kMaxRecord = 64 * 1024; // bytes
constexpr int kMaxSpeed = 10000000;
constexpr int kBytesPerLine = 32;
constexpr int kMaxSecondDigits = 9;
constexpr int kMsDigits = 3;

const QByteArray kToBoard = "->";
const QByteArray kFromBoard = "<-";
const QByteArray kEvent = "--";
const QByteArray kHangUp = "hang-up";
const QByteArray kReturn = "return";

bool isDigits(const QByteArray &text)
{
    return !text.isEmpty()
        && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool isHexPair(const QByteArray &word)
{
    return word.size() == 2 && QByteArray::fromHex(word).toHex() == word.toLower();
}

/// For messages: never more than a short text of printable characters.
QString shown(const QByteArray &text)
{
    constexpr int kMaxShown = 40;
    QString result;
    for (const char c : text.left(kMaxShown))
        result += c >= ' ' && c <= '~' ? QLatin1Char(c) : QLatin1Char('?');
    if (text.size() > kMaxShown)
        result += QStringLiteral("...");
    return QLatin1Char('"') + result + QLatin1Char('"');
}

/// Words of a line, without its comment.
QList<QByteArray> wordsOf(const QByteArray &line)
{
    QList<QByteArray> words;
    const int comment = line.indexOf('#');
    for (const QByteArray &word :
         line.left(comment < 0 ? line.size() : comment).simplified().split(' ')) {
        if (!word.isEmpty())
            words << word;
    }
    return words;
}

QByteArray timeText(qint64 ms)
{
    return QStringLiteral("%1.%2")
        .arg(ms / 1000, 5)
        .arg(ms % 1000, kMsDigits, 10, QLatin1Char('0'))
        .toLatin1();
}

} // namespace

bool RecordingReader::add(const QByteArray &text)
{
    m_size += text.size();
    if (m_size > kMaxRecordingSize) {
        m_errorText = QStringLiteral("more than %1 MiB").arg(kMaxRecordingSize / 1024 / 1024);
        return false;
    }
    m_rest += text;
    int start = 0;
    for (int end = 0; (end = m_rest.indexOf('\n', start)) >= 0; start = end + 1) {
        if (!readLine(m_rest.mid(start, end - start)))
            return false;
    }
    m_rest.remove(0, start);
    return m_rest.size() <= kMaxLine || readLine(m_rest);
}

bool RecordingReader::finish()
{
    const bool hasLine = !m_rest.isEmpty() || m_line == 0;
    return (!hasLine || readLine(std::exchange(m_rest, {}))) && finishHead();
}

Recording RecordingReader::take()
{
    Recording taken = m_recording;
    m_recording.records.clear();
    return taken;
}

bool RecordingReader::refuse(const QString &why)
{
    m_errorText = QStringLiteral("line %1: %2").arg(m_line).arg(why);
    return false;
}

bool RecordingReader::readLine(QByteArray line)
{
    ++m_line;
    if (line.size() > kMaxLine)
        return refuse(QStringLiteral("more than %1 characters").arg(kMaxLine));
    if (line.endsWith('\r'))
        line.chop(1);
    if (m_line == 1)
        return readFirstLine(line);
    const QList<QByteArray> words = wordsOf(line);
    if (words.isEmpty())
        return true;
    if (words.first().endsWith(':'))
        return readHeadLine(words, line);
    if (isHexPair(words.first()))
        return readBytes(words);
    return finishHead() && readRecord(words);
}

bool RecordingReader::readFirstLine(const QByteArray &line)
{
    if (line == kFirstLine)
        return true;
    if (line.startsWith(kFirstLineOfAnyVersion))
        return refuse(QStringLiteral("version %1 of the format is not known, only 1")
                          .arg(shown(line.mid(kFirstLineOfAnyVersion.size()))));
    return refuse(QStringLiteral("no recording: it begins with %1, not with \"%2\"")
                      .arg(shown(line), QString::fromLatin1(kFirstLine)));
}

bool RecordingReader::readHeadLine(const QList<QByteArray> &words, const QByteArray &line)
{
    static const QSet<QByteArray> names{"speed", "boardtap", "program", "board"};
    const QByteArray name = words.first().chopped(1);
    if (m_last)
        return refuse(QStringLiteral("%1 stands after the first record").arg(shown(name)));
    if (!names.contains(name))
        return refuse(QStringLiteral("the head has no %1").arg(shown(name)));
    if (m_head.contains(name))
        return refuse(QStringLiteral("%1 stands twice").arg(shown(name)));
    if (words.size() < 2)
        return refuse(QStringLiteral("%1 has no value").arg(shown(name)));
    m_head << name;
    if (name == "speed") {
        const int speed = isDigits(words.at(1)) ? words.at(1).toInt() : 0;
        if (words.size() > 2 || speed < 1 || speed > kMaxSpeed)
            return refuse(QStringLiteral("the speed is a number from 1 to %1, not %2")
                              .arg(kMaxSpeed)
                              .arg(shown(words.at(1))));
        m_recording.speed = speed;
        return true;
    }
    const QByteArray value = line.mid(line.indexOf(':') + 1).split('#').constFirst();
    const QString text = QString::fromUtf8(value.trimmed());
    (name == "boardtap"      ? m_recording.madeBy
         : name == "program" ? m_recording.program
                             : m_recording.board) = text;
    return true;
}

bool RecordingReader::finishHead()
{
    for (const char *name : {"speed", "boardtap"}) {
        if (!m_head.contains(name))
            return refuse(QStringLiteral("the head does not say \"%1:\"").arg(QLatin1String(name)));
    }
    return true;
}

bool RecordingReader::readRecord(const QList<QByteArray> &words)
{
    Record record;
    record.line = m_line;
    if (!readTime(words.first(), record.ms))
        return false;
    if (words.size() < 3)
        return refuse(QStringLiteral("a direction and bytes are missing after the time"));
    const QByteArray &direction = words.at(1);
    if (direction == kEvent)
        return readEvent(record, words);
    if (direction != kToBoard && direction != kFromBoard)
        return refuse(QStringLiteral("%1 is neither ->, <- nor --").arg(shown(direction)));
    if (m_isAway)
        return refuse(QStringLiteral("bytes while the device is away"));
    record.kind = direction == kToBoard ? Kind::ToBoard : Kind::FromBoard;
    append(record);
    return readBytes(words.mid(2));
}

bool RecordingReader::readTime(const QByteArray &word, qint64 &ms)
{
    const QList<QByteArray> parts = word.split('.');
    const bool isTime = parts.size() == 2 && isDigits(parts.at(0))
        && parts.at(0).size() <= kMaxSecondDigits && isDigits(parts.at(1))
        && parts.at(1).size() == kMsDigits;
    if (!isTime)
        return refuse(QStringLiteral("%1 is no time like 1.234").arg(shown(word)));
    ms = parts.at(0).toLongLong() * 1000 + parts.at(1).toLongLong();
    if (m_last && ms < m_last->ms)
        return refuse(QStringLiteral("%1 is earlier than the record before it").arg(shown(word)));
    return true;
}

bool RecordingReader::readEvent(Record record, const QList<QByteArray> &words)
{
    const QByteArray &what = words.at(2);
    if (words.size() > 3 || (what != kHangUp && what != kReturn))
        return refuse(QStringLiteral("%1 is neither hang-up nor return").arg(shown(what)));
    if ((what == kHangUp) == m_isAway)
        return refuse(m_isAway ? QStringLiteral("hang-up of a device that is away")
                               : QStringLiteral("return of a device that is there"));
    m_isAway = what == kHangUp;
    record.kind = m_isAway ? Kind::HangUp : Kind::Return;
    append(record);
    return true;
}

void RecordingReader::append(const Record &record)
{
    m_recording.records << record;
    m_last = record;
    m_lastSize = 0;
}

bool RecordingReader::readBytes(const QList<QByteArray> &words)
{
    if (!m_last)
        return refuse(QStringLiteral("bytes without a time and a direction"));
    if (m_last->kind == Kind::HangUp || m_last->kind == Kind::Return)
        return refuse(QStringLiteral("bytes without a direction"));
    if (m_recording.records.isEmpty())
        m_recording.records << *m_last; // its first lines have been taken
    Record &record = m_recording.records.last();
    for (const QByteArray &word : words) {
        if (!isHexPair(word))
            return refuse(
                QStringLiteral("%1 is no byte in two hexadecimal digits").arg(shown(word)));
        record.bytes += QByteArray::fromHex(word);
    }
    m_lastSize += words.size();
    if (m_lastSize > kMaxRecord)
        return refuse(QStringLiteral("a record of more than %1 bytes").arg(kMaxRecord));
    return true;
}

std::optional<Recording> parseRecording(const QByteArray &text, QString &error)
{
    RecordingReader reader;
    if (reader.add(text) && reader.finish())
        return reader.take();
    error = reader.errorText();
    return std::nullopt;
}

std::optional<Recording> readRecording(const QString &path, QString &error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    auto recording = parseRecording(file.read(kMaxRecordingSize + 1), error);
    if (!recording)
        error = QStringLiteral("%1: %2").arg(path, error);
    return recording;
}

QByteArray recordingHead(int speed, const QString &madeBy)
{
    return kFirstLine + "\nspeed: " + QByteArray::number(speed) + "\nboardtap: " + madeBy.toUtf8()
        + '\n';
}

QByteArray commentLine(const QString &text)
{
    constexpr int kMaxComment = 400; // characters, each at most 3 bytes
    return "# " + text.left(kMaxComment).toUtf8() + '\n';
}

QByteArray recordLines(const Record &record)
{
    const QByteArray time = timeText(record.ms) + ' ';
    if (record.kind == Kind::HangUp)
        return time + kEvent + ' ' + kHangUp + '\n';
    if (record.kind == Kind::Return)
        return time + kEvent + ' ' + kReturn + '\n';
    const QByteArray head = time + (record.kind == Kind::ToBoard ? kToBoard : kFromBoard);
    QByteArray lines;
    for (int offset = 0; offset < record.bytes.size(); offset += kBytesPerLine)
        lines += (offset == 0 ? head : QByteArray(head.size(), ' ')) + ' '
            + record.bytes.mid(offset, kBytesPerLine).toHex(' ') + '\n';
    return lines;
}

} // namespace boardsim
