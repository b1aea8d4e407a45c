#ifndef SHELLOUTPUT_H
#define SHELLOUTPUT_H

#include <QByteArray>
#include <QList>

#include <cstdio>

/// Reads all that a popen() stream prints and closes it; its exit status is dropped. One entry a
/// line, without the line feed; a line of `pieceSize` - 1 or more characters makes several.
QList<QByteArray> readLinePieces(FILE *command, int pieceSize);

#endif // SHELLOUTPUT_H
