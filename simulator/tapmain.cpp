#include "eventwriter.h"
#include "followedfile.h"
#include "linequeue.h"
#include "linewatch.h"
#include "program.h"
#include "recordingview.h"
#include "tapcommandline.h"
#include "transferview.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
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
        return openOutput(m_file, path);
    }

    bool openRecording(const QString &path)
    {
        m_name = path;
        m_isRecording = true;
        m_file.setFileName(path);
        QIODevice::OpenMode mode = QIODevice::WriteOnly | QIODevice::Unbuffered;
        const QFileInfo info(path);
        if (!info.exists() || info.isFile())
            mode |= QIODevice::Append; // what the file has stays until beginRecording()
        return m_file.open(mode);
    }

    void beginRecording(const QByteArray &head)
    {
        if (!m_file.isSequential())
            static_cast<void>(m_file.resize(0));
        markAsWritten(m_file.handle());
        write(head);
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
    QString errorText() const { return m_file.errorString(); }

    /// Shows what fails there, too.
    void tell(TransferView &view) { m_view = &view; }

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
        const QString text = cannotWrite(m_name, why)
            + (m_isOfALine ? QStringLiteral("; the line goes on") : QString());
        if (m_hasFailed)
            static_cast<void>(fail(kName, Failed, text));
        if (m_hasFailed && m_view)
            m_view->addFault(text);
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
    TransferView *m_view = nullptr;
};

/// Tells the user what the transcript may not show them.
class TapWatch : public LineWatch {
public:
    using LineWatch::LineWatch;

    void setDevice(const QString &device) { m_device = device; }

    /// Draws the line, too.
    void draw(TransferView &view)
    {
        m_view = &view;
        listen([&view](const LineEvent &event) { view.take(event); });
    }

    void step(TimePoint now) override
    {
        LineWatch::step(now);
        if (m_view)
            m_view->draw(now);
    }
    std::optional<TimePoint> deadline() const override
    {
        return sooner(LineWatch::deadline(), m_view ? m_view->deadline() : std::nullopt);
    }

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
    void tell(const QString &text)
    {
        if (!m_view) // which shows it
            static_cast<void>(fail(kName, Good, text));
    }

    QString m_device;
    TransferView *m_view = nullptr;
};

int finish(const TapCommandLine &line, const Report &report)
{
    if (!line.summaryFile.isEmpty()) {
        const QString fault = writeSummary(line.summaryFile, report);
        if (!fault.isEmpty())
            return failToWrite(kName, line.summaryFile, fault);
    }
    return report.violations.isEmpty() ? Good : Violated;
}

/// Tells two queues, each of which is taken at its own pace.
class Fork : public LineListener {
public:
    Fork(LineQueue &first, LineQueue &second)
        : m_queues{&first, &second}
    {
    }

    void bytesPassed(TimePoint now, bool toBoard, const QByteArray &bytes) override
    {
        for (LineQueue *queue : m_queues)
            queue->bytesPassed(now, toBoard, bytes);
    }
    void bytesUnheard(TimePoint now, const QByteArray &bytes) override
    {
        for (LineQueue *queue : m_queues)
            queue->bytesUnheard(now, bytes);
    }
    void deviceGone(TimePoint now) override
    {
        for (LineQueue *queue : m_queues)
            queue->deviceGone(now);
    }
    void deviceReturned(TimePoint now) override
    {
        for (LineQueue *queue : m_queues)
            queue->deviceReturned(now);
    }
    void noted(TimePoint now, const QString &text) override
    {
        for (LineQueue *queue : m_queues)
            queue->noted(now, text);
    }

private:
    const std::array<LineQueue *, 2> m_queues;
};

/// Becomes scripts/draw-recording. Returns only when that fails.
int drawPage(const TapCommandLine &line)
{
    const QByteArray recording = QFile::encodeName(line.readFile);
    const QByteArray page = QFile::encodeName(line.htmlFile);
    std::signal(SIGPIPE, SIG_DFL);
    execl(BOARDTAP_DRAW, BOARDTAP_DRAW, "--build", BOARDTAP_BUILD, "--", recording.constData(),
          page.constData(), nullptr);
    return fail(kName, Failed, QStringLiteral("cannot run " BOARDTAP_DRAW));
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
    QFile events;
    bool isWritten = true;
    if (!line.eventsFile.isEmpty()) {
        if (!openOutput(events, line.eventsFile))
            return failToWrite(kName, line.eventsFile, events.errorString());
        watch.keepNoEvents();
        const auto write = [&](const QByteArray &text) {
            isWritten = isWritten && events.write(text) == text.size();
        };
        write(toJsonLine(*recording));
        watch.listen([=](const LineEvent &event) { write(toJsonLine(event, start)); });
    }
    watchRecording(*recording, start, watch);
    if (!isWritten || (events.isOpen() && !events.flush()))
        return failToWrite(kName, line.eventsFile, events.errorString());
    if (!line.imageFile.isEmpty()) {
        const QString fault = writeWhole(line.imageFile, report.lastTransfer().image);
        if (!fault.isEmpty())
            return failToWrite(kName, line.imageFile, fault);
    }
    const int status = finish(line, report);
    if (transcript.hasFailed())
        return Failed;
    return line.htmlFile.isEmpty() ? status : drawPage(line);
}

/// Tells the watch until the line has ended.
void tellAll(LineQueue &queue, LineWatch &watch)
{
    while (!queue.isAtEnd()) {
        if (const LineQueue::Event event = queue.take(watch.deadline()))
            event(watch);
        else
            watch.step(Clock::now());
    }
    watch.end(Clock::now(), QStringLiteral("end of the watch"));
}

/// Carries until a signal ends it, and tells the watch and the recorder meanwhile, each on a thread
/// of its own. False when the line has failed. What cannot be told in time after the end is given
/// up: a terminal that is held, or a reader of the transcript that does not read.
bool carry(const TapCommandLine &line, int endDescriptor, LineWatch &watch, LineWatch &recorder,
           Tap &tap, LineQueue &watched, LineQueue &recorded)
{
    bool isGood = false;
    std::promise<void> told;
    auto record = std::async(std::launch::async, [&] { tellAll(recorded, recorder); });
    std::thread thread([&, isTold = told.get_future()] {
        isGood = tap.run(endDescriptor);
        tap.close();
        watched.end();
        recorded.end();
        const TimePoint end = Clock::now() + kTimeToTell;
        if (record.wait_until(end) != std::future_status::ready)
            static_cast<void>(fail(kName, Failed,
                                   QStringLiteral("%1 does not take the recording: its end is lost")
                                       .arg(line.recordFile)));
        else if (isTold.wait_until(end) != std::future_status::ready)
            static_cast<void>(fail(kName, Failed,
                                   QStringLiteral("nobody reads the transcript: its end is lost")));
        else
            return;
        std::_Exit(Failed);
    });
    tellAll(watched, watch);
    told.set_value();
    thread.join();
    return isGood;
}

int watch(const TapCommandLine &line, GrowingFile &transcript, const LineSink &sink)
{
    GrowingFile recording(true);
    if (!line.recordFile.isEmpty() && !recording.openRecording(line.recordFile))
        return failToWrite(kName, line.recordFile, recording.errorText());
    sigset_t endSignals = blockEndSignals();
    const TimePoint start = Clock::now();
    Report report;
    TapWatch watch(report, sink, line.hexStyle, start);
    watch.setDevice(line.device);
    std::unique_ptr<TransferView> view;
    if (!line.viewFile.isEmpty()) {
        view = std::make_unique<TransferView>(STDOUT_FILENO, report, start);
        view->setTitle(line.device);
        watch.draw(*view);
        transcript.tell(*view);
        recording.tell(*view);
        std::signal(SIGTSTP, SIG_IGN); // a tap that stands still carries nothing
        sigaddset(&endSignals, SIGQUIT);
        pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
    }
    if (line.summaryFile.isEmpty())
        watch.keepNoEvents();
    LineQueue watched;
    LineQueue recorded;
    Fork both(watched, recorded);
    const Tap::Unheard unheard =
        isPseudoTerminal(line.device) ? Tap::Unheard::Kept : Tap::Unheard::Dropped;
    Tap tap(line.device, line.link, unheard, both);
    if (!tap.open())
        return fail(kName, Failed, tap.errorText());
    Report unused;
    LineWatch recorder(unused, {}, line.hexStyle, start);
    recorder.keepNoEvents();
    if (!line.recordFile.isEmpty()) {
        recording.beginRecording(recordingHead(kLineSpeed, kVersion));
        recorder.record([&recording](const QByteArray &text) { recording.write(text); });
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
    const bool isGood = carry(line, end, watch, recorder, tap, watched, recorded);
    if (view)
        view->end(Clock::now(), QStringLiteral("end of the watch"));
    close(end);
    const int status = finish(line, report);
    if (!isGood)
        return fail(kName, Failed, tap.errorText());
    return recording.hasFailed() || transcript.hasFailed() ? Failed : status;
}

int view(const TapCommandLine &line, const GrowingFile &transcript, const LineSink &sink)
{
    sigset_t endSignals = blockEndSignals();
    FollowedFile file;
    if (!file.open(line.viewFile))
        return fail(kName, Failed, file.errorText());
    // Each of them would leave the picture on the terminal.
    sigaddset(&endSignals, SIGQUIT);
    sigaddset(&endSignals, SIGTSTP);
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
    const int descriptor = signalfd(-1, &endSignals, SFD_CLOEXEC);
    if (descriptor < 0)
        return fail(kName, Failed, QStringLiteral("cannot wait for signals"));
    RecordingView view(STDOUT_FILENO, sink, line.hexStyle);
    const bool isGood = view.run(file, descriptor);
    close(descriptor);
    const int status = finish(line, view.report());
    if (!isGood)
        return fail(kName, Failed, view.errorText());
    return transcript.hasFailed() ? Failed : status;
}

int run(const TapCommandLine &line)
{
    std::signal(SIGPIPE, SIG_IGN); // a reader of the transcript that goes ends nothing
    if (!line.summaryFile.isEmpty()) {
        const QString fault = faultOfDirectory(line.summaryFile);
        if (!fault.isEmpty())
            return failToWrite(kName, line.summaryFile, fault);
    }
    const bool isWatching = line.action == TapCommandLine::Action::Watch;
    GrowingFile transcript(isWatching);
    LineSink sink;
    if (!line.transcriptFile.isEmpty()) {
        if (!transcript.openTranscript(line.transcriptFile))
            return failToWrite(kName, line.transcriptFile, transcript.errorText());
        sink = [&transcript](const QByteArray &text) { transcript.write(text + '\n'); };
    }
    switch (line.action) {
    case TapCommandLine::Action::Read:
        return read(line, transcript, sink);
    case TapCommandLine::Action::View:
        return view(line, transcript, sink);
    default:
        return watch(line, transcript, sink);
    }
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
    case TapCommandLine::Action::View:
    case TapCommandLine::Action::Watch:
        return run(line);
    }
    return Failed;
}
