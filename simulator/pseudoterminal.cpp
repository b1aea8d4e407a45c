#include "pseudoterminal.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
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
    closeDescriptor(m_slave);
    closeDescriptor(m_master);
}

int PseudoTerminal::dropUnread()
{
    int count = 0;
    if (ioctl(m_slave, FIONREAD, &count) != 0 || tcflush(m_slave, TCIFLUSH) != 0)
        return 0;
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
