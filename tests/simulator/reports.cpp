#include "reports.h"

using namespace boardsim;

bool hasViolation(const Report &report)
{
    return !report.violations.isEmpty();
}

QByteArrayList sentByBoard(const Report &report)
{
    QByteArrayList sent;
    for (const FrameRecord &frame : report.frames) {
        if (!frame.toBoard)
            sent << frame.bytes;
    }
    return sent;
}
