#include "shelloutput.h"

#include <cstring>
#include <vector>

QList<QByteArray> readLinePieces(FILE *command, int pieceSize)
{
    QList<QByteArray> pieces;
    std::vector<char> piece(static_cast<std::size_t>(pieceSize));
    while (std::fgets(piece.data(), pieceSize, command)) {
        const std::size_t length = std::strlen(piece.data());
        if (length > 0 && piece[length - 1] == '\n')
            piece[length - 1] = '\0';
        pieces.append(QByteArray(piece.data()));
    }
    pclose(command);
    return pieces;
}
