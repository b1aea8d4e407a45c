#include "linequeue.h"
#include "linewatch.h"
#include "program.h"
#include "tapcommandline.h"

#include <QCoreApplication>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

using namespace boardsim;

namespace {

constexpr const char *kName = "boardtap";
constexpr std::chrono::seconds kTimeToTell{10}; // what has happened before the end
const QString kVersion = QStringLiteral(BOARDTAP_VERSION);

/// A file that grows until it cannot. A line that is watched goes on then: a full disk must not
/// stop an update.
class GrowingFile {
public:
    explicit GrowingFile(bool isOfALine)
        : m_isOfALine(isOfALine)
    {
    }

    bool openTranscript(const QString &path)
    {
        m_name = path == QLatin1String("-") ? QStringLiteral("standard output") : path;
        return boardsim::openTranscript(m_file, path);
    }

    bool openRecording(const QString &path)
    {
        m_name = path;
        m_isRecording = true;
        m_file.setFileName(path);
        return m_file.open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    }

    void write(const QByteArray &text)
    {
        if (m_isStopped)
            return;
        errno = 0;
        if (m_isRecording && m_size + text.size() > kMaxRecordingSize)
            stop(QStringLiteral("no recording is longer"));
        else if (writeAll(text) && m_file.flush())
            m_size += text.size();
        else
            stop(m_file.errorString());
    }

    bool hasFailed() const { return m_hasFailed; }

private:
    /// The disk may have room for a part: the rest tells why there is no more.
    bool writeAll(const QByteArray &text)
    {
        qint64 done = 0;
        while (done < text.size()) {
            const qint64 count = m_file.write(text.constData() + done, text.size() - done);
            if (count <= 0)
                return false;
            done += count;
        }
        return true;
    }

    void stop(const QString &why)
    {
        m_isStopped = true;
        m_hasFailed = errno != EPIPE; // a reader who has gone wants no more
        if (m_hasFailed)
            static_cast<void>(
                fail(kName, Failed,
                     QStringLiteral("cannot write %1: %2").arg(m_name, why)
                         + (m_isOfALine ? QStringLiteral("; the line goes on") : QString())));
        // Half a record would make the recording unreadable.
        if (m_isRecording)
            static_cast<void>(m_file.resize(m_size));
    }

    QFile m_file;
    QString m_name;
    const bool m_isOfALine;
    bool m_isRecording = false;
    bool m_isStopped = false;
    bool m_hasFailed = false;
    qint64 m_size = 0;
};

/// Tells the user what the transcript may not show them.
class TapWatch : public LineWatch {
public:
    using LineWatch::LineWatch;

    void setDevice(const QString &device) { m_device = device; }

    void deviceGone(TimePoint now) override
    {
        LineWatch::deviceGone(now);
        tell(QStringLiteral("%1 has gone; waiting for it to come back").arg(m_device));
    }
    void deviceReturned(TimePoint now) override
    {
        LineWatch::deviceReturned(now);
        tell(QStringLiteral("%1 is back").arg(m_device));
    }

private:
    static void tell(const QString &text) { static_cast<void>(fail(kName, Good, text)); }

    QString m_device;
};

int finish(const TapCommandLine &line, const Report &report)
{
    if (!line.summaryFile.isEmpty() && !writeSummary(line.summaryFile, report))
        return fail(kName, Failed, QStringLiteral("cannot write %1").arg(line.summaryFile));
    return report.violations.isEmpty() ? Good : Violated;
}

int read(const TapCommandLine &line, GrowingFile &transcript, const LineSink &sink)
{
    QString error;
    const auto recording = readRecording(line.readFile, error);
    if (!recording)
        return fail(kName, Failed, error);
    const TimePoint start = Clock::now();
    Report report;
    LineWatch watch(report, sink, line.hexStyle, start);
    watchRecording(*recording, start, watch);
    if (!line.imageFile.isEmpty()) {
        QFile file(line.imageFile);
        const QByteArray image = report.lastTransfer().image;
        if (!file.open(QIODevice::WriteOnly) || file.write(image) != image.size() || !file.flush())
            return fail(kName, Failed, QStringLiteral("cannot write %1").arg(line.imageFile));
    }
    const int status = finish(line, report);
    return transcript.hasFailed() ? Failed : status;
}

/// Carries until a signal ends it, on a thread of its own, and tells the watch meanwhile. False
/// when the line has failed. What cannot be told in time after the end is given up: a terminal that
/// is held, or a reader of the transcript that does not read.
bool carry(Tap &tap, int endDescriptor, LineQueue &queue, LineWatch &watch)
{
    bool isGood = false;
    std::promise<void> told;
    std::thread line([&tap, &queue, &isGood, endDescriptor, isTold = told.get_future()] {
        isGood = tap.run(endDescriptor);
        tap.close();
        queue.end();
        if (isTold.wait_for(kTimeToTell) == std::future_status::ready)
            return;
        static_cast<void>(
            fail(kName, Failed, QStringLiteral("nobody reads the transcript: its end is lost")));
        std::_Exit(Failed);
    });
    while (!queue.isAtEnd()) {
        if (const LineQueue::Event event = queue.take(watch.deadline()))
            event(watch);
        else
            watch.step(Clock::now());
    }
    watch.end(Clock::now(), QStringLiteral("end of the watch"));
    told.set_value();
    line.join();
    return isGood;
}

int watch(const TapCommandLine &line, GrowingFile &transcript, const LineSink &sink,
          const sigset_t &endSignals)
{
    const TimePoint start = Clock::now();
    Report report;
    TapWatch watch(report, sink, line.hexStyle, start);
    watch.setDevice(line.device);
    if (line.summaryFile.isEmpty())
        watch.keepNoEvents();
    LineQueue queue;
    const Tap::Unheard unheard =
        isPseudoTerminal(line.device) ? Tap::Unheard::Kept : Tap::Unheard::Dropped;
    Tap tap(line.device, line.link, unheard, queue);
    if (!tap.open())
        return fail(kName, Failed, tap.errorText());
    GrowingFile recording(true);
    if (!line.recordFile.isEmpty()) {
        if (!recording.openRecording(line.recordFile))
            return fail(kName, Failed, QStringLiteral("cannot write %1").arg(line.recordFile));
        recording.write(recordingHead(kLineSpeed, kVersion));
        watch.record([&recording](const QByteArray &text) { recording.write(text); });
    }
    const int end = signalfd(-1, &endSignals, SFD_CLOEXEC);
    if (end < 0)
        return fail(kName, Failed, QStringLiteral("cannot wait for signals"));
    std::printf("ready %s\n", qPrintable(tap.slaveName()));
    std::fflush(stdout);
    watch.note(Clock::now(),
               QStringLiteral("%1 at %2 baud, for the program at %3")
                   .arg(line.device)
                   .arg(kLineSpeed)
                   .arg(line.link));
    const bool isGood = carry(tap, end, queue, watch);
    close(end);
    const int status = finish(line, report);
    if (!isGood)
        return fail(kName, Failed, tap.errorText());
    return recording.hasFailed() || transcript.hasFailed() ? Failed : status;
}

int run(const TapCommandLine &line)
{
    const sigset_t endSignals = blockEndSignals();
    if (!line.summaryFile.isEmpty() && !isInWritableDirectory(line.summaryFile))
        return fail(kName, Failed, QStringLiteral("cannot write %1").arg(line.summaryFile));
    const bool isReading = line.action == TapCommandLine::Action::Read;
    GrowingFile transcript(!isReading);
    if (!transcript.openTranscript(line.transcriptFile))
        return fail(kName, Failed, QStringLiteral("cannot write %1").arg(line.transcriptFile));
    const LineSink sink = [&transcript](const QByteArray &text) { transcript.write(text + '\n'); };
    return isReading ? read(line, transcript, sink) : watch(line, transcript, sink, endSignals);
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const TapCommandLine line = parseTapCommandLine(QCoreApplication::arguments());
    switch (line.action) {
    case TapCommandLine::Action::ShowHelp:
        std::fputs(qPrintable(line.message), stdout);
        return Good;
    case TapCommandLine::Action::Refuse:
        return fail(kName, WrongUsage, line.message);
    case TapCommandLine::Action::Read:
    case TapCommandLine::Action::Watch:
        return run(line);
    }
    return Failed;
}
