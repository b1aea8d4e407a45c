#include "pseudoterminal.h"

#include <QFile>
#include <QFileInfo>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace boardsim {

namespace {

bool makeRaw(int descriptor)
{
    termios settings{};
    if (tcgetattr(descriptor, &settings) != 0)
        return false;
    settings.c_iflag = 0;
    settings.c_oflag = 0;
    settings.c_lflag = 0;
    settings.c_cflag = CS8 | CREAD | CLOCAL;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    cfsetispeed(&settings, B115200);
    cfsetospeed(&settings, B115200);
    return tcsetattr(descriptor, TCSANOW, &settings) == 0;
}

/// A simulator that was killed leaves such a link; its number may be in use again.
bool pointsToTerminal(const QFileInfo &link)
{
    return link.isSymLink() && link.symLinkTarget().startsWith(QLatin1String("/dev/pts/"));
}

void closeDescriptor(int &descriptor)
{
    if (descriptor >= 0)
        ::close(descriptor);
    descriptor = -1;
}

} // namespace

PseudoTerminal::~PseudoTerminal()
{
    close();
}

bool PseudoTerminal::open(const QString &linkPath)
{
    if (openPair() && (linkPath.isEmpty() || makeLink(linkPath)))
        return true;
    close();
    return false;
}

void PseudoTerminal::hangUp()
{
    closeDescriptor(m_programs);
    closeDescriptor(m_slave);
    closeDescriptor(m_master);
}

void PseudoTerminal::watchPrograms()
{
    m_programs = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    const QByteArray name = QFile::encodeName(m_slaveName);
    if (inotify_add_watch(m_programs, name.constData(), IN_OPEN | IN_CLOSE) < 0)
        closeDescriptor(m_programs);
    else
        closeDescriptor(m_slave);
}

bool PseudoTerminal::isOpen()
{
    if (m_programs < 0)
        return true;
    // Only to be awake: equal events come as one, so they cannot be counted.
    std::array<char, 1024> events{};
    while (read(m_programs, events.data(), events.size()) > 0) { }
    pollfd master{m_master, 0, 0};
    return poll(&master, 1, 0) <= 0 || (master.revents & POLLHUP) == 0;
}

bool PseudoTerminal::hasLineSpeed() const
{
    termios settings{};
    return tcgetattr(m_master, &settings) != 0 || cfgetospeed(&settings) == B115200;
}

int PseudoTerminal::dropUnread()
{
    int count = 0;
    const QByteArray name = QFile::encodeName(m_slaveName);
    int slave = ::open(name.constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (ioctl(slave, FIONREAD, &count) != 0 || tcflush(slave, TCIFLUSH) != 0)
        count = 0;
    closeDescriptor(slave);
    return count;
}

void PseudoTerminal::close()
{
    hangUp();
    if (!m_linkPath.isEmpty() && QFile::symLinkTarget(m_linkPath) == m_slaveName)
        QFile::remove(m_linkPath);
    m_linkPath.clear();
}

bool PseudoTerminal::openPair()
{
    m_master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m_master < 0)
        return fail(QStringLiteral("cannot open a pseudo-terminal"));
    if (grantpt(m_master) != 0 || unlockpt(m_master) != 0)
        return fail(QStringLiteral("cannot unlock the pseudo-terminal"));
    const char *name = ptsname(m_master);
    if (!name)
        return fail(QStringLiteral("cannot tell the name of the pseudo-terminal"));
    m_slaveName = QFile::decodeName(name);
    m_slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m_slave < 0 || !makeRaw(m_slave))
        return fail(QStringLiteral("cannot set up %1").arg(m_slaveName));
    if (fcntl(m_master, F_SETFL, O_NONBLOCK) != 0)
        return fail(QStringLiteral("cannot set up %1").arg(m_slaveName));
    return true;
}

bool PseudoTerminal::makeLink(const QString &linkPath)
{
    const QFileInfo info(linkPath);
    if (info.exists() && !pointsToTerminal(info)) {
        m_errorText = QStringLiteral("%1 exists and is not a left-over link").arg(linkPath);
        return false;
    }
    const QByteArray path = QFile::encodeName(linkPath);
    if (info.isSymLink() && unlink(path.constData()) != 0)
        return fail(QStringLiteral("cannot replace %1").arg(linkPath));
    if (symlink(QFile::encodeName(m_slaveName).constData(), path.constData()) != 0)
        return fail(QStringLiteral("cannot make the link %1").arg(linkPath));
    m_linkPath = linkPath;
    return true;
}

bool PseudoTerminal::fail(const QString &what)
{
    m_errorText = QStringLiteral("%1: %2").arg(what, QString::fromLocal8Bit(strerror(errno)));
    return false;
}

} // namespace boardsim
