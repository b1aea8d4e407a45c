#include "transcript.h"

#include "hextext.h"

#include <utility>

namespace boardsim {

namespace {

constexpr int kBytesPerLine = 32;
constexpr int kWholeOnOneLine = 36; // the answer to the version query
constexpr int kShortHead = 12;
constexpr int kShortTail = 6;

} // namespace

Transcript::Transcript(LineSink sink, HexStyle style)
    : m_sink(std::move(sink))
    , m_style(style)
    , m_start(Clock::now())
{
}

void Transcript::received(TimePoint now, const QString &meaning, const QByteArray &frame)
{
    bytes(now, "->", meaning, frame);
}

void Transcript::sent(TimePoint now, const QString &meaning, const QByteArray &frame)
{
    bytes(now, "<-", meaning, frame);
}

void Transcript::note(TimePoint now, const QString &text)
{
    line(now, "--", text);
}

void Transcript::fault(TimePoint now, const QString &text)
{
    line(now, "**", QStringLiteral("fault: ") + text);
}

void Transcript::violation(TimePoint now, const QString &text)
{
    line(now, "!!", QStringLiteral("violation: ") + text);
}

qint64 Transcript::elapsedMs(TimePoint now) const
{
    return std::chrono::duration_cast<Milliseconds>(now - m_start).count();
}

void Transcript::line(TimePoint now, const char *mark, const QString &text)
{
    if (!m_sink)
        return;
    const qint64 ms = elapsedMs(now);
    m_sink(QStringLiteral("%1.%2 %3 %4")
               .arg(ms / 1000, 5)
               .arg(ms % 1000, 3, 10, QLatin1Char('0'))
               .arg(QLatin1String(mark), text)
               .toUtf8());
}

void Transcript::bytes(TimePoint now, const char *mark, const QString &meaning,
                       const QByteArray &frame)
{
    const int size = frame.size();
    const QString what = size == 1 ? QStringLiteral("%1 (1 byte)").arg(meaning)
                                   : QStringLiteral("%1 (%2 bytes)").arg(meaning).arg(size);
    if (size <= kWholeOnOneLine) {
        line(now, mark, QStringLiteral("%1: %2").arg(what, hexBytes(frame)));
        return;
    }
    if (m_style == HexStyle::Short) {
        line(now, mark,
             QStringLiteral("%1: %2 ... %3")
                 .arg(what, hexBytes(frame.left(kShortHead)), hexBytes(frame.right(kShortTail))));
        return;
    }
    line(now, mark, what + QLatin1Char(':'));
    for (int offset = 0; offset < size; offset += kBytesPerLine)
        line(now, "  ",
             QStringLiteral("  %1: %2")
                 .arg(offset, 4, 10, QLatin1Char('0'))
                 .arg(hexBytes(frame.mid(offset, kBytesPerLine))));
}

} // namespace boardsim
