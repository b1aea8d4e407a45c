#ifndef BOARDSIM_COMMANDLINE_H
#define BOARDSIM_COMMANDLINE_H

#include "options.h"

#include <QStringList>

namespace boardsim {

/// What the program `boardsim` was asked to do.
struct CommandLine {
    enum class Action {
        Run,
        ShowHelp,
        Refuse, // `message` says why
    };
    Action action = Action::Run;
    QString message; // the help text, or what is wrong
    Options options;
    QString transcriptFile; // "-": standard output; empty: none
    QString summaryFile;
};

/// `arguments` begin with the program's name.
CommandLine parseCommandLine(const QStringList &arguments);

} // namespace boardsim

#endif // BOARDSIM_COMMANDLINE_H
