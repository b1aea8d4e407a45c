#include "apptransform.h"
#include "boundedstring.h"
#include "cymodem.h"
#include "fileio.h"
#include "launch.h"
#include "log.h"
#include "protocol.h"
#include "quickdownloadmaster.h"
#include "serialport.h"

#include <QFile>

#include <cstdio>

// The screens are there without a call, and every public header is found by its bare name.
int main()
{
    const FileIO bridge;
    for (const char *screen : {":/main.qml", ":/show.qml"}) {
        if (!bridge.exists(screen)) {
            std::printf("%s is missing\n", screen);
            return 1;
        }
    }
    return 0;
}
