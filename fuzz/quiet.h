#ifndef QUIET_H
#define QUIET_H

/// Drops what the product prints on standard output, by Qt's debug stream and by its log.
void beQuiet();

#endif // QUIET_H
