#include "transcript.h"

#include <utility>

namespace boardsim {

namespace {

constexpr int kBytesPerLine = 32;
constexpr int kWholeOnOneLine = 36; // the reply to the version query
constexpr int kShortHead = 12;
constexpr int kShortTail = 6;

/// Pairs of lower-case digits with a blank between them.
QString hexBytes(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.toHex(' '));
}

} // namespace

Transcript::Transcript(LineSink sink, HexStyle style, Report &report, TimePoint start)
    : m_sink(std::move(sink))
    , m_style(style)
    , m_report(report)
    , m_start(start)
{
}

void Transcript::received(TimePoint now, const QString &meaning, const QByteArray &bytes)
{
    frame(now, true, meaning, bytes);
}

void Transcript::sent(TimePoint now, const QString &meaning, const QByteArray &bytes)
{
    frame(now, false, meaning, bytes);
}

void Transcript::note(TimePoint now, const QString &text)
{
    line(now, "--", text);
}

void Transcript::faultMade(TimePoint now, const QString &fault)
{
    line(now, "**", QStringLiteral("fault: ") + fault);
    m_report.faultsMade << fault;
    m_explanation = fault;
}

void Transcript::violation(TimePoint now, const QString &text)
{
    const QString explained = m_explanation.isEmpty()
        ? QString()
        : QStringLiteral(" (after fault %1)").arg(m_explanation);
    line(now, "!!", QStringLiteral("violation: ") + text + explained);
    m_report.violations.append({elapsedMs(now), text, m_explanation});
}

void Transcript::hungUp(TimePoint now)
{
    note(now, QStringLiteral("board hangs up"));
    m_report.hungUp = true;
}

void Transcript::failed(TimePoint now, const QString &text)
{
    note(now, QStringLiteral("failed: ") + text);
    m_report.errors << text;
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

void Transcript::frame(TimePoint now, bool toBoard, const QString &meaning, const QByteArray &bytes)
{
    m_report.frames.append({elapsedMs(now), toBoard, meaning, bytes});
    const char *mark = toBoard ? "->" : "<-";
    const int size = bytes.size();
    const QString what = size == 1
        ? QStringLiteral("%1 (1 byte)").arg(meaning)
        : QStringLiteral("%1 (%2 bytes)").arg(meaning, QString::number(size));
    if (size <= kWholeOnOneLine) {
        line(now, mark, QStringLiteral("%1: %2").arg(what, hexBytes(bytes)));
        return;
    }
    if (m_style == HexStyle::Short) {
        line(now, mark,
             QStringLiteral("%1: %2 ... %3")
                 .arg(what, hexBytes(bytes.left(kShortHead)), hexBytes(bytes.right(kShortTail))));
        return;
    }
    line(now, mark, what + QLatin1Char(':'));
    for (int offset = 0; offset < size; offset += kBytesPerLine)
        line(now, "  ",
             QStringLiteral("  %1: %2")
                 .arg(offset, 4, 10, QLatin1Char('0'))
                 .arg(hexBytes(bytes.mid(offset, kBytesPerLine))));
}

} // namespace boardsim
