#ifndef REPORTS_H
#define REPORTS_H

#include "boardsimulator.h"

#include <QByteArrayList>

// What tests ask a board's report.

bool hasViolation(const boardsim::Report &report);

/// What the board has sent, a write each.
QByteArrayList sentByBoard(const boardsim::Report &report);

#endif // REPORTS_H
