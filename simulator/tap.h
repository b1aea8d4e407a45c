#ifndef BOARDSIM_TAP_H
#define BOARDSIM_TAP_H

#include "clock.h"
#include "pseudoterminal.h"
#include "serialdevice.h"

#include <QByteArray>

namespace boardsim {

/// Is told what goes over a line, right after it has gone on.
class LineListener {
public:
    virtual ~LineListener() = default;
    virtual void bytesPassed(TimePoint now, bool toBoard, const QByteArray &bytes) = 0;
    /// Bytes from the board while no program has the line open. They do not go on.
    virtual void bytesUnheard(TimePoint now, const QByteArray &bytes) = 0;
    virtual void deviceGone(TimePoint now) = 0;
    virtual void deviceReturned(TimePoint now) = 0;
    /// Something that a user of the line has to know.
    virtual void noted(TimePoint now, const QString &text) = 0;
};

/// Carries the bytes between a serial device and a pseudo-terminal, unchanged, in both directions.
class Tap {
public:
    /// What the board sends while no program has the line open.
    enum class Unheard {
        Kept,    ///< for the next program, as a pseudo-terminal does
        Dropped, ///< as a serial port does
    };

    Tap(QString device, QString linkPath, Unheard unheard, LineListener &listener);

    /// Opens the device, then the pseudo-terminal and its link. False on failure, see errorText().
    [[nodiscard]] bool open();

    /// Carries until `endDescriptor` can be read. A device that goes away hangs up the
    /// pseudo-terminal and removes the link; both are made anew when it comes back. False when that
    /// fails, see errorText().
    [[nodiscard]] bool run(int endDescriptor);

    /// Removes the link and closes both sides.
    void close();

    /// The device that the program opens.
    QString slaveName() const { return m_terminal.slaveName(); }
    QString errorText() const { return m_errorText; }

private:
    enum class Limit {
        Waiting, ///< of the bytes that wait for the device
        None,    ///< what a program has left is no more than the line holds
    };

    bool openTerminal();
    int timeoutMs() const;
    void lookForPrograms();
    void lookAtSpeed();
    void noteUnread(TimePoint now, qint64 count);
    bool carryToBoard(Limit limit);
    bool carryFromBoard();
    bool writeOut();
    void lose(TimePoint now);

    const QString m_devicePath;
    const QString m_linkPath;
    const Unheard m_unheard;
    LineListener &m_listener;
    SerialDevice m_device;
    PseudoTerminal m_terminal;
    bool m_isOpen = true;       // by a program; where bytes are kept, always
    bool m_hasLineSpeed = true; // set by the program
    QByteArray m_toDevice;      // read, not yet written
    QByteArray m_toProgram;     // as well
    TimePoint m_nextTry{};      // to open a device that has gone
    QString m_errorText;
};

} // namespace boardsim

#endif // BOARDSIM_TAP_H
