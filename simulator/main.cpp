#include "boardsimulator.h"
#include "commandline.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

#include <csignal>
#include <cstdio>
#include <ctime>

using namespace boardsim;

namespace {

enum ExitStatus {
    Good = 0,
    Violated = 1,
    WrongUsage = 2,
    Failed = 3,
};

int fail(ExitStatus status, const QString &text)
{
    std::fprintf(stderr, "boardsim: %s\n", qPrintable(text));
    return status;
}

/// Looked at first: a wrong path ends the program at the start, not when there is data to lose.
bool isInWritableDirectory(const QString &path)
{
    const QFileInfo directory(QFileInfo(path).absolutePath());
    return directory.isDir() && directory.isWritable();
}

bool openTranscript(QFile &file, const QString &path)
{
    if (path == QLatin1String("-"))
        return file.open(stdout, QIODevice::WriteOnly);
    file.setFileName(path);
    return file.open(QIODevice::WriteOnly);
}

LineSink sinkTo(QFile &file)
{
    return [&file](const QByteArray &line) {
        file.write(line + '\n');
        file.flush(); // somebody follows the file
    };
}

/// The signals that end the program; blocked before any thread starts, so that all inherit that.
sigset_t blockEndSignals()
{
    sigset_t endSignals;
    sigemptyset(&endSignals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&endSignals, signal);
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
    return endSignals;
}

void waitForTheEnd(const sigset_t &endSignals, const BoardSimulator &simulator)
{
    const timespec lookInterval{0, 200000000};
    while (sigtimedwait(&endSignals, nullptr, &lookInterval) < 0) {
        if (simulator.hasFailed())
            return;
    }
}

bool writeSummary(const QString &path, const Report &report)
{
    QFile file(path);
    const QByteArray text = QJsonDocument(toJson(report)).toJson();
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size() && file.flush();
}

int run(const CommandLine &line)
{
    const sigset_t endSignals = blockEndSignals();
    std::signal(SIGPIPE, SIG_IGN); // a reader of the transcript may go

    Options options = line.options;
    QFile transcript;
    if (!line.transcriptFile.isEmpty()) {
        if (!openTranscript(transcript, line.transcriptFile))
            return fail(Failed, QStringLiteral("cannot write %1").arg(line.transcriptFile));
        options.transcript = sinkTo(transcript);
    }

    for (const QString &path : {line.summaryFile, options.imageFile}) {
        if (!path.isEmpty() && !isInWritableDirectory(path))
            return fail(Failed, QStringLiteral("cannot write %1").arg(path));
    }

    BoardSimulator simulator(options);
    if (!simulator.open())
        return fail(Failed, simulator.errorText());
    // Before the board is on, so that it comes before a transcript on standard output.
    std::printf("ready %s\n", qPrintable(simulator.slaveName()));
    std::fflush(stdout);
    if (!simulator.start())
        return fail(Failed, simulator.errorText());
    waitForTheEnd(endSignals, simulator);
    simulator.stop();

    const Report report = simulator.report();
    if (!line.summaryFile.isEmpty() && !writeSummary(line.summaryFile, report))
        return fail(Failed, QStringLiteral("cannot write %1").arg(line.summaryFile));
    if (!report.errors.isEmpty())
        return fail(Failed, report.errors.join(QLatin1String("; ")));
    return report.hasUnexplainedViolation() ? Violated : Good;
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const CommandLine line = parseCommandLine(QCoreApplication::arguments());
    switch (line.action) {
    case CommandLine::Action::ShowHelp:
        std::fputs(qPrintable(line.message), stdout);
        return Good;
    case CommandLine::Action::Refuse:
        return fail(WrongUsage, line.message);
    case CommandLine::Action::Run:
        return run(line);
    }
    return Failed;
}
