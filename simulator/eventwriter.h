#ifndef BOARDSIM_EVENTWRITER_H
#define BOARDSIM_EVENTWRITER_H

#include "linedecoder.h"
#include "recording.h"

namespace boardsim {

// A decoded recording for other programs: lines of JSON, the head of the recording first.

QByteArray toJsonLine(const Recording &head);

/// `start` is that of the line.
QByteArray toJsonLine(const LineEvent &event, TimePoint start);

} // namespace boardsim

#endif // BOARDSIM_EVENTWRITER_H
