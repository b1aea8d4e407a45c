#include "fileio.h"

// Sends the firmware, which is in its place, to the board on the line; the status says how it went.
int main()
{
    return FileIO().updateMcu() == 0 ? 0 : 1;
}
