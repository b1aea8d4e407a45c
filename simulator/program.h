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

/// That the file cannot be written, and why, as a sentence.
QString cannotWrite(const QString &path, const QString &why);

/// Prints that; returns Failed.
int failToWrite(const char *program, const QString &path, const QString &why);

/// Why the directory of the file takes no file; empty when it does. Looked at first: a wrong path
/// ends the program at the start, not when there is data to lose.
QString faultOfDirectory(const QString &path);

/// "-" is standard output.
[[nodiscard]] bool openOutput(QFile &file, const QString &path);

/// `file` and `fault` must outlive the sink. `fault` tells why a line could not be written, unless
/// its reader has gone.
LineSink sinkTo(QFile &file, QString &fault);

/// The signals that end the program; blocked before any thread starts, so that all inherit that,
/// and after files are opened: to open a FIFO may take any time. A reader of the transcript that
/// goes ends nothing.
sigset_t blockEndSignals();

/// Returns why it cannot; empty when it has.
[[nodiscard]] QString writeWhole(const QString &path, const QByteArray &content);
[[nodiscard]] QString writeSummary(const QString &path, const Report &report);

} // namespace boardsim

#endif // BOARDSIM_PROGRAM_H
