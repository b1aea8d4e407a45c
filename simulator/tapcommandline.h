#ifndef BOARDSIM_TAPCOMMANDLINE_H
#define BOARDSIM_TAPCOMMANDLINE_H

#include "transcript.h"

#include <QStringList>

namespace boardsim {

/// What the program `boardtap` was asked to do.
struct TapCommandLine {
    enum class Action {
        Watch,
        Read, // a recording
        View, // a recording, while it is written
        ShowHelp,
        Refuse, // `message` says why
    };
    Action action = Action::Watch;
    QString message; // the help text, or what is wrong
    QString device;
    QString link;
    QString readFile;
    QString viewFile;       // "-": standard input or, with a device, the line; empty: no view
    QString transcriptFile; // "-": standard output; empty: none
    QString eventsFile;     // as well
    QString htmlFile;       // empty: no page
    QString summaryFile;
    QString recordFile;
    QString imageFile;
    HexStyle hexStyle = HexStyle::Full;
};

/// `arguments` begin with the program's name.
TapCommandLine parseTapCommandLine(const QStringList &arguments);

} // namespace boardsim

#endif // BOARDSIM_TAPCOMMANDLINE_H
