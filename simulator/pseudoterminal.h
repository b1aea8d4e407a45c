#ifndef BOARDSIM_PSEUDOTERMINAL_H
#define BOARDSIM_PSEUDOTERMINAL_H

#include <QString>

namespace boardsim {

/// A raw pseudo-terminal and, where wanted, a link to its slave side. It keeps the slave side open
/// itself, so that the line lives on while the assistant closes and opens it.
class PseudoTerminal {
public:
    PseudoTerminal() = default;
    ~PseudoTerminal();
    PseudoTerminal(const PseudoTerminal &) = delete;
    PseudoTerminal &operator=(const PseudoTerminal &) = delete;

    /// Opens the line and makes the link `linkPath` (empty: none). A link there that
    /// dangles or points to a pseudo-terminal is replaced, anything else is refused. False on
    /// failure, see errorText().
    [[nodiscard]] bool open(const QString &linkPath);

    /// Hangs up: who has the slave side open gets end of file or EIO. The link stays, dangling.
    void hangUp();

    /// From now on this does not keep the slave side open itself, so that isOpen() tells whether a
    /// program has. Where the system has no watch left, it does, and the line counts as open.
    void watchPrograms();

    /// Can be read when a program has opened or closed the line; -1: not watched. Owned by this.
    int programsDescriptor() const { return m_programs; }

    /// Takes what programsDescriptor() has. True while a program has the line open.
    bool isOpen();

    /// False when a program has set another speed than kLineSpeed.
    bool hasLineSpeed() const;

    /// Drops what no program has read. Returns the number of bytes.
    int dropUnread();

    /// Hangs up and removes the link, if it is still ours.
    void close();

    /// The board's side, non-blocking; -1 when closed. Owned by this.
    int masterDescriptor() const { return m_master; }

    /// The device that the assistant opens.
    QString slaveName() const { return m_slaveName; }

    /// Why open() failed.
    QString errorText() const { return m_errorText; }

private:
    bool openPair();
    bool makeLink(const QString &linkPath);
    bool fail(const QString &what);

    int m_master = -1;
    int m_slave = -1;
    int m_programs = -1;
    QString m_slaveName;
    QString m_linkPath;
    QString m_errorText;
};

} // namespace boardsim

#endif // BOARDSIM_PSEUDOTERMINAL_H
