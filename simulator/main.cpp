#include "boardsimulator.h"
#include "commandline.h"
#include "program.h"

#include <QCoreApplication>

#include <cstdio>
#include <ctime>

using namespace boardsim;

namespace {

constexpr const char *kName = "boardsim";

void waitForTheEnd(const sigset_t &endSignals, const BoardSimulator &simulator)
{
    const timespec lookInterval{0, 200000000};
    while (sigtimedwait(&endSignals, nullptr, &lookInterval) < 0) {
        if (simulator.hasFailed())
            return;
    }
}

int run(const CommandLine &line)
{
    Options options = line.options;
    QFile transcript;
    QString transcriptFault;
    if (!line.transcriptFile.isEmpty()) {
        if (!openOutput(transcript, line.transcriptFile))
            return failToWrite(kName, line.transcriptFile, transcript.errorString());
        options.transcript = sinkTo(transcript, transcriptFault);
    }
    const sigset_t endSignals = blockEndSignals();

    for (const QString &path : {line.summaryFile, options.imageFile}) {
        const QString fault = path.isEmpty() ? QString() : faultOfDirectory(path);
        if (!fault.isEmpty())
            return failToWrite(kName, path, fault);
    }

    BoardSimulator simulator(options);
    if (!simulator.open())
        return fail(kName, Failed, simulator.errorText());
    // Before the board is on, so that it comes before a transcript on standard output.
    std::printf("ready %s\n", qPrintable(simulator.slaveName()));
    std::fflush(stdout);
    if (!simulator.start())
        return fail(kName, Failed, simulator.errorText());
    waitForTheEnd(endSignals, simulator);
    simulator.stop();

    const Report report = simulator.report();
    if (!line.summaryFile.isEmpty()) {
        const QString fault = writeSummary(line.summaryFile, report);
        if (!fault.isEmpty())
            return failToWrite(kName, line.summaryFile, fault);
    }
    if (!report.errors.isEmpty())
        return fail(kName, Failed, report.errors.join(QLatin1String("; ")));
    if (!transcriptFault.isEmpty())
        return failToWrite(kName, line.transcriptFile, transcriptFault);
    if (!report.difference.isEmpty())
        return fail(kName, Violated, report.difference.trimmed());
    if (options.replay)
        return Good;
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
        return fail(kName, WrongUsage, line.message);
    case CommandLine::Action::Run:
        return run(line);
    }
    return Failed;
}
