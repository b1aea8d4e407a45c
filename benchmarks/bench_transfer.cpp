#include "fileio.h"

// Runs updateMcu() once: sends the firmware at its fixed path over the serial line. The exit status
// is 0 on success.
int main()
{
    return FileIO().updateMcu() == 0 ? 0 : 1;
}
