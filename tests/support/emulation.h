#ifndef EMULATION_H
#define EMULATION_H

#include <QtGlobal>

/// Whether this program runs under an emulator of its processor, which lacks some calls.
inline bool isEmulated()
{
    return qEnvironmentVariableIsSet("UPDATE_ASSISTANT_EMULATOR");
}

#endif // EMULATION_H
