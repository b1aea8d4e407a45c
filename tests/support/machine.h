#ifndef MACHINE_H
#define MACHINE_H

#include "pty.h"

#include <QByteArray>
#include <QString>

// The product's fixed paths. Tests may use them only inside the sandbox.

/// Whether this program runs on the simulated machine.
bool onSimulatedMachine();

/// For initTestCase(): skips the program everywhere else.
#define SKIP_OFF_THE_SIMULATED_MACHINE()                                                           \
    do {                                                                                           \
        if (!onSimulatedMachine())                                                                 \
            QSKIP("needs fixed paths of the machine: start it with sandbox/run");                  \
    } while (false)

/// A pseudo-terminal, linked at the device path of the control board while this object lives. The
/// constructor ends the program off the simulated machine.
class BoardLine : public Pty {
public:
    BoardLine();
    ~BoardLine() override;
};

/// The directory of firmware images, made for this object and removed with it. What fails ends the
/// program.
class FirmwareDir {
public:
    FirmwareDir();
    ~FirmwareDir();
    FirmwareDir(const FirmwareDir &) = delete;
    FirmwareDir &operator=(const FirmwareDir &) = delete;

    /// Where the file `name` is or would be.
    QString path(const QString &name) const;
    void put(const QString &name, const QByteArray &content) const;
    /// Makes `name` a symbolic link to `target`.
    void link(const QString &name, const QByteArray &target) const;
};

#endif // MACHINE_H
