#include "transferview.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace boardsim {

namespace {

constexpr Milliseconds kDrawInterval{100};
constexpr Milliseconds kSilence{2000}; // on the line, from which on it is told
constexpr int kMaxBar = 60;
constexpr int kLabelWidth = 11;
constexpr int kPrintedSteps = 10; // lines of progress for a transfer, without a terminal

// What a terminal since the VT100 obeys, and its second screen, which all that matter have.
const QByteArray kTake = "\x1b[?1049h\x1b[?25l\x1b[?7l";  // second screen, no cursor, no wrapping
const QByteArray kLeave = "\x1b[?7h\x1b[?25h\x1b[?1049l"; // all of it back
const QByteArray kHome = "\x1b[H";
const QByteArray kEndOfLine = "\x1b[K";
const QByteArray kEndOfPicture = "\x1b[J";

bool canDrawOn(int output)
{
    const QByteArray type = qgetenv("TERM");
    return isatty(output) == 1 && !type.isEmpty() && type != "dumb";
}

struct Size {
    int width = 80;
    int height = 24;
};

Size sizeOf(int terminal)
{
    winsize size{};
    if (ioctl(terminal, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {};
    return {size.ws_col, size.ws_row};
}

bool takesBytes(int output)
{
    pollfd polled{output, POLLOUT, 0};
    return poll(&polled, 1, 0) == 1 && (polled.revents & POLLOUT) != 0;
}

/// What comes from the line is shown, never obeyed.
QString printable(QString text)
{
    std::replace_if(
        text.begin(), text.end(), [](QChar c) { return !c.isPrint(); }, QLatin1Char('?'));
    return text;
}

QString row(const char *label, const QString &text)
{
    return QLatin1String(label)
        + QString(kLabelWidth - static_cast<int>(qstrlen(label)), QLatin1Char(' ')) + text;
}

QString countText(int count, const QString &last)
{
    return count == 0 ? QStringLiteral("none")
                      : QStringLiteral("%1, the last: %2").arg(count).arg(last);
}

QString barText(int percent, int width)
{
    const int room = std::clamp(width - 8, 1, kMaxBar); // brackets, a blank and "100 %"
    const int full = room * percent / 100;
    return QLatin1Char('[') + QString(full, QLatin1Char('#'))
        + QString(room - full, QLatin1Char('.')) + QStringLiteral("] %1 %").arg(percent);
}

} // namespace

TransferView::TransferView(int output, const Report &report, TimePoint start)
    : m_output(output)
    , m_isTerminal(canDrawOn(output))
    , m_start(start)
    , m_progress(report)
{
}

void TransferView::take(const LineEvent &event)
{
    const int refusals = m_progress.refusals();
    m_progress.take(event);
    if (!m_isTerminal)
        printEvent(event, m_progress.refusals() > refusals);
}

void TransferView::draw(TimePoint now)
{
    const TimePoint wall = Clock::now();
    if (!m_isTerminal || wall < m_nextDraw)
        return;
    m_nextDraw = wall + kDrawInterval;
    if (!takesBytes(m_output))
        return; // a terminal that is stopped must not stop the line
    const Size size = sizeOf(m_output);
    QByteArray text = kHome;
    const QStringList lines = picture(now, size.width).mid(0, size.height);
    for (const QString &line : lines) {
        // Cleared first: behind a full line the cursor is still on its last character.
        text += kEndOfLine + printable(line).left(size.width).toLocal8Bit();
        if (&line != &lines.last())
            text += "\r\n";
    }
    if (lines.size() < size.height)
        text += "\r\n" + kEndOfPicture;
    if (m_hasTerminal && text == m_drawn)
        return;
    if (!std::exchange(m_hasTerminal, true))
        write(kTake);
    m_drawn = text;
    write(text);
}

std::optional<TimePoint> TransferView::deadline() const
{
    if (!m_isTerminal)
        return std::nullopt;
    return m_nextDraw;
}

void TransferView::leave()
{
    if (std::exchange(m_hasTerminal, false))
        write(kLeave);
    m_nextDraw = {};
}

void TransferView::end(TimePoint now, const QString &state)
{
    leave();
    m_state = state;
    if (!m_isTerminal) {
        print(now, QStringLiteral("transfer: ") + stepText());
        print(now, state);
        return;
    }
    const int width = sizeOf(m_output).width;
    for (const QString &line : picture(now, width))
        write(printable(line).left(width).toLocal8Bit() + '\n');
}

/// The lines, from the top.
QStringList TransferView::picture(TimePoint now, int width) const
{
    const auto &last = m_progress.lastEvent();
    const auto silence =
        last ? std::chrono::duration_cast<Milliseconds>(now - last->time) : Milliseconds(0);
    QString lastText = QStringLiteral("nothing yet");
    if (last)
        lastText = (last->bytes.isEmpty() ? QStringLiteral("-- ")
                        : last->toBoard   ? QStringLiteral("-> ")
                                          : QStringLiteral("<- "))
            + last->meaning;
    if (m_state.isEmpty() && silence >= kSilence)
        lastText = QStringLiteral("nothing for %1 s, after ")
                       .arg(std::chrono::duration_cast<std::chrono::seconds>(silence).count())
            + lastText;
    QString file = QStringLiteral("no start frame yet");
    if (m_progress.hasBegun() && !m_progress.transfer().fileName.isEmpty())
        file = QStringLiteral("\"%1\", %2 bytes")
                   .arg(m_progress.transfer().fileName,
                        QString::number(m_progress.transfer().announcedSize));
    QStringList lines{
        m_title + (m_state.isEmpty() ? QString() : QStringLiteral(": ") + m_state),
        row("board",
            m_progress.versionAnswer().isEmpty() ? QStringLiteral("no version answer yet")
                                                 : m_progress.versionAnswer()),
        row("transfer", stepText()),
        row("file", file),
        barText(m_progress.percent(), width),
        row("blocks", blocksText(now)),
        row("refused", countText(m_progress.refusals(), m_progress.lastRefusal())),
        row("malformed", countText(m_progress.violations(), m_progress.lastViolation())),
        row("time", durationText(std::chrono::duration_cast<Milliseconds>(now - m_start))),
        row("last", lastText),
    };
    const std::lock_guard<std::mutex> lock(m_faultsMutex);
    for (const QString &fault : m_faults)
        lines.insert(1, row("failed", fault));
    return lines;
}

QString TransferView::blocksText(TimePoint now) const
{
    if (!m_progress.hasBegun() || m_progress.transfer().blocksExpected == 0)
        return QStringLiteral("none yet");
    QString text = QStringLiteral("%1 of %2")
                       .arg(m_progress.transfer().blocksReceived)
                       .arg(m_progress.transfer().blocksExpected);
    const double speed = m_progress.blocksPerSecond(now);
    if (speed > 0)
        text += QStringLiteral(", %1 a second").arg(speed, 0, 'f', speed < 10 ? 2 : 0);
    const auto left = m_progress.timeLeft(now);
    if (left && m_state.isEmpty())
        text += QStringLiteral(", about %1 left").arg(durationText(*left, 0));
    return text;
}

/// Where the latest transfer is.
QString TransferView::stepText() const
{
    if (!m_progress.hasBegun())
        return QStringLiteral("none yet");
    const Transfer &transfer = m_progress.transfer();
    const QString step = transfer.complete ? QStringLiteral("complete")
        : transfer.eotReceived             ? QStringLiteral("all sent, the end frame is to come")
        : transfer.fileName.isEmpty()      ? QStringLiteral("in the boot loader")
        : m_state.isEmpty()                ? QStringLiteral("running")
                                           : QStringLiteral("not complete");
    return m_progress.number() > 1
        ? QStringLiteral("%1, number %2 on this line").arg(step).arg(m_progress.number())
        : step;
}

void TransferView::printEvent(const LineEvent &event, bool isRefusal)
{
    for (const QString &violation : event.violations)
        print(event.time, QStringLiteral("malformed: ") + violation);
    if (event.bytes.isEmpty()) {
        print(event.time, event.meaning);
        return;
    }
    if (event.meaning.startsWith(QLatin1String("version answer ")))
        print(event.time, QStringLiteral("board %1").arg(m_progress.versionAnswer()));
    if (!m_progress.hasBegun())
        return;
    if (isRefusal)
        print(event.time, QStringLiteral("refused: ") + m_progress.lastRefusal());
    printProgress(event.time);
}

void TransferView::printProgress(TimePoint now)
{
    const Transfer &transfer = m_progress.transfer();
    if (m_printedTransfer != m_progress.number() && !transfer.fileName.isEmpty()) {
        m_printedTransfer = m_progress.number();
        m_printedStep = 0;
        print(now,
              QStringLiteral("transfer of \"%1\", %2 bytes")
                  .arg(transfer.fileName, QString::number(transfer.announcedSize)));
    }
    const int step = m_progress.percent() * kPrintedSteps / 100;
    if (step == m_printedStep)
        return;
    m_printedStep = step;
    print(now, QStringLiteral("blocks: %1 (%2 %)").arg(blocksText(now)).arg(m_progress.percent()));
}

void TransferView::print(TimePoint time, const QString &text)
{
    const auto ms = std::chrono::duration_cast<Milliseconds>(time - m_start).count();
    write(QStringLiteral("%1.%2 ")
              .arg(ms / 1000, 5)
              .arg(ms % 1000, 3, 10, QLatin1Char('0'))
              .toLatin1()
          + printable(text).toLocal8Bit() + '\n');
}

/// A terminal that goes is found by its hang-up signal, a reader that goes ends nothing.
void TransferView::write(const QByteArray &text)
{
    for (int done = 0; done < text.size();) {
        const ssize_t count =
            ::write(m_output, text.constData() + done, static_cast<size_t>(text.size() - done));
        if (count < 0 && errno != EINTR)
            return;
        done += static_cast<int>(std::max<ssize_t>(count, 0));
    }
}

} // namespace boardsim
