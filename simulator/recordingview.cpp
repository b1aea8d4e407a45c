#include "recordingview.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

namespace boardsim {

namespace {

constexpr int kLookMs = 100; // at a file that somebody writes

/// Frames are written as a whole, some time after they came: only a longer pause is one of the
/// line.
constexpr Milliseconds kLag{400};

/// The text may stop within a frame. Only the next record tells then how long the line was silent:
/// this is enough to end a run of control bytes, and too short to end a frame.
constexpr Milliseconds kAfterRecord{100};

bool isStop(int signalDescriptor)
{
    signalfd_siginfo signal{};
    return read(signalDescriptor, &signal, sizeof signal) == sizeof signal
        && signal.ssi_signo == SIGTSTP;
}

} // namespace

RecordingView::RecordingView(int output, LineSink transcript, HexStyle style)
    : m_watch(m_report, std::move(transcript), style, m_start)
    , m_view(output, m_report, m_start)
{
    m_watch.keepNoEvents();
    m_watch.listen([this](const LineEvent &event) { m_view.take(event); });
}

bool RecordingView::run(FollowedFile &file, int signalDescriptor)
{
    m_view.setTitle(file.name());
    bool isBusy = true;
    for (;;) {
        std::array<pollfd, 2> polled{
            {{signalDescriptor, POLLIN, 0}, {file.streamDescriptor(), POLLIN, 0}}};
        static_cast<void>(poll(polled.data(), polled.size(), isBusy ? 0 : kLookMs));
        if (polled[0].revents != 0) {
            if (!isStop(signalDescriptor))
                return end(QStringLiteral("not watched any more"));
            m_view.leave();
            static_cast<void>(std::raise(SIGSTOP));
        }
        const bool isQuiet = file.streamDescriptor() >= 0 && polled[1].revents == 0;
        QByteArray bytes;
        const auto input = isQuiet ? FollowedFile::Input::Nothing : file.read(bytes);
        isBusy = input == FollowedFile::Input::Bytes;
        switch (input) {
        case FollowedFile::Input::Bytes:
            if (!m_reader.add(bytes))
                return fail(file.name() + QStringLiteral(": ") + m_reader.errorText());
            take();
            break;
        case FollowedFile::Input::Nothing:
            m_watch.step(std::min(now(), m_last + kAfterRecord));
            break;
        case FollowedFile::Input::End:
            if (!m_reader.finish())
                return fail(file.name() + QStringLiteral(": ") + m_reader.errorText());
            take();
            return end(QStringLiteral("end of the recording"));
        case FollowedFile::Input::Failed:
            return fail(file.errorText());
        }
        m_view.draw(now());
    }
}

/// On the line.
TimePoint RecordingView::now() const
{
    return m_last + std::max(Clock::duration(0), Clock::now() - m_lastCame - kLag);
}

void RecordingView::take()
{
    for (const Record &record : m_reader.take().records) {
        watchRecord(record, m_start, m_watch);
        m_last = m_start + Milliseconds(record.ms);
    }
    m_lastCame = Clock::now();
}

bool RecordingView::end(const QString &state)
{
    m_watch.end(m_last, state);
    m_view.end(m_last, state);
    return true;
}

bool RecordingView::fail(const QString &error)
{
    m_errorText = error;
    static_cast<void>(end(QStringLiteral("failed")));
    return false;
}

} // namespace boardsim
