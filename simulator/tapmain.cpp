#include "linewatch.h"
#include "program.h"
#include "tapcommandline.h"

#include <QCoreApplication>

#include <cstdio>
#include <sys/signalfd.h>
#include <unistd.h>

using namespace boardsim;

namespace {

constexpr const char *kName = "boardtap";
const QString kVersion = QStringLiteral(BOARDTAP_VERSION);

/// Keeps the first failure to write. The line goes on: a full disk must not stop an update.
class FileWriter {
public:
    bool open(const QString &path)
    {
        m_file.setFileName(path);
        return m_file.open(QIODevice::WriteOnly);
    }

    void write(const QByteArray &text)
    {
        const bool isWritten = m_file.write(text) == text.size() && m_file.flush();
        if (isWritten || m_hasFailed)
            return;
        m_hasFailed = true;
        static_cast<void>(fail(kName, Failed,
                               QStringLiteral("cannot write %1: %2; the line goes on")
                                   .arg(m_file.fileName(), m_file.errorString())));
    }

    bool hasFailed() const { return m_hasFailed; }

private:
    QFile m_file;
    bool m_hasFailed = false;
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

int read(const TapCommandLine &line, const LineSink &sink)
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
    return finish(line, report);
}

int watch(const TapCommandLine &line, const LineSink &sink, const sigset_t &endSignals)
{
    const TimePoint start = Clock::now();
    Report report;
    TapWatch watch(report, sink, line.hexStyle, start);
    watch.setDevice(line.device);
    if (line.summaryFile.isEmpty())
        watch.keepNoEvents();
    const Tap::Unheard unheard =
        isPseudoTerminal(line.device) ? Tap::Unheard::Kept : Tap::Unheard::Dropped;
    Tap tap(line.device, line.link, unheard, watch);
    if (!tap.open())
        return fail(kName, Failed, tap.errorText());
    FileWriter recording;
    if (!line.recordFile.isEmpty()) {
        if (!recording.open(line.recordFile))
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
    const bool isGood = tap.run(end);
    tap.close();
    watch.end(Clock::now(), QStringLiteral("end of the watch"));
    close(end);
    const int status = finish(line, report);
    if (!isGood)
        return fail(kName, Failed, tap.errorText());
    return recording.hasFailed() ? Failed : status;
}

int run(const TapCommandLine &line)
{
    const sigset_t endSignals = blockEndSignals();
    if (!line.summaryFile.isEmpty() && !isInWritableDirectory(line.summaryFile))
        return fail(kName, Failed, QStringLiteral("cannot write %1").arg(line.summaryFile));
    QFile transcript;
    if (!openTranscript(transcript, line.transcriptFile))
        return fail(kName, Failed, QStringLiteral("cannot write %1").arg(line.transcriptFile));
    const LineSink sink = sinkTo(transcript);
    return line.action == TapCommandLine::Action::Read ? read(line, sink)
                                                       : watch(line, sink, endSignals);
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
