#ifndef SHELLOUTPUT_H
#define SHELLOUTPUT_H

#include <QByteArray>
#include <QList>

#include <cstdio>

/// Reads the whole output of a popen() stream and closes the stream; its exit status is dropped.
/// One entry per output line, without the line feed; a line of `pieceSize` - 1 or more characters
/// makes several.
QList<QByteArray> readLinePieces(FILE *command, int pieceSize);

#endif // SHELLOUTPUT_H
