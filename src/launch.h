#ifndef LAUNCH_H
#define LAUNCH_H

#include <QString>

class QFile;

// Start-up: the pid file and the two launch modes. Everything here runs on the main thread.

/// True when `path` names a regular file (or a link to one); false for a directory or nothing.
bool isFileExist(QString path);

/// Kills the process whose decimal id the file holds, with the shell's `kill -9`. Always true.
bool killPid(QString pidFilePath);

/// Kills the instance named in the pid file, if there is such a file.
void stopPreviousInstance(const QString &pidFilePath);

/// Writes this process's id into `pidFile` and closes it. Does nothing when it cannot be opened.
void recordProcessId(QFile &pidFile);

/// Shows the update screen. Returns the event loop's exit code, or -1 without entering the loop
/// when the screen yields no root object. No application object may exist yet.
[[nodiscard]] int runUpdateAssistant(int &argc, char **argv);

/// Shows the status screen in the mode that `argv[1]` names (UTF-8); `argc` is at least 2.
/// Returns the event loop's exit code. No application object may exist yet.
[[nodiscard]] int runStatusScreen(int &argc, char **argv);

/// Shows the status screen turned for a portrait display, and closes it again before it returns 0:
/// no event loop runs here. `argv` is not read. Needs an application object.
int showTip(char **argv);

#endif // LAUNCH_H
