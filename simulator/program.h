#ifndef BOARDSIM_PROGRAM_H
#define BOARDSIM_PROGRAM_H

#include "report.h"
#include "transcript.h"

#include <QFile>

#include <csignal>

// What the programs boardsim and boardtap have in common.

namespace boardsim {

enum ExitStatus {
    Good = 0,
    Violated = 1,
    WrongUsage = 2,
    Failed = 3,
};

/// Prints the text as an error of the program; returns `status`.
int fail(const char *program, ExitStatus status, const QString &text);

/// Looked at first: a wrong path ends the program at the start, not when there is data to lose.
bool isInWritableDirectory(const QString &path);

/// "-" is standard output.
[[nodiscard]] bool openOutput(QFile &file, const QString &path);

/// `file` and `hasFailed` must outlive the sink. `hasFailed` is set when a line could not be
/// written, unless its reader has gone.
LineSink sinkTo(QFile &file, bool &hasFailed);

/// The signals that end the program; blocked before any thread starts, so that all inherit that,
/// and after files are opened: to open a FIFO may take any time. A reader of the transcript that
/// goes ends nothing.
sigset_t blockEndSignals();

[[nodiscard]] bool writeSummary(const QString &path, const Report &report);

} // namespace boardsim

#endif // BOARDSIM_PROGRAM_H
