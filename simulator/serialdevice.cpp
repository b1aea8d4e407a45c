#include "serialdevice.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/major.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

namespace boardsim {

namespace {

QString reasonOf(int error, const QString &path)
{
    if (error == EACCES)
        return QStringLiteral("no right to open %1: become a member of its group, or root")
            .arg(path);
    return QStringLiteral("cannot open %1: %2").arg(path, QString::fromLocal8Bit(strerror(error)));
}

} // namespace

SerialDevice::~SerialDevice()
{
    close();
}

bool SerialDevice::open(const QString &path)
{
    close();
    m_descriptor =
        ::open(QFile::encodeName(path).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_descriptor < 0)
        return fail(reasonOf(errno, path));
    if (isatty(m_descriptor) == 0)
        return fail(QStringLiteral("%1 is no serial device").arg(path));
    termios settings{};
    settings.c_cflag = CS8 | CREAD | CLOCAL;
    settings.c_cc[VMIN] = 1; // else a read of nothing looks like a hang-up
    cfsetispeed(&settings, B115200);
    cfsetospeed(&settings, B115200);
    if (tcsetattr(m_descriptor, TCSANOW, &settings) != 0)
        return fail(QStringLiteral("cannot set up %1: %2")
                        .arg(path, QString::fromLocal8Bit(strerror(errno))));
    return true;
}

void SerialDevice::close()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
}

bool isPseudoTerminal(const QString &path)
{
    struct stat info { };
    if (stat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISCHR(info.st_mode))
        return false;
    const auto number = major(info.st_rdev);
    return number >= UNIX98_PTY_SLAVE_MAJOR
        && number < UNIX98_PTY_SLAVE_MAJOR + UNIX98_PTY_MAJOR_COUNT;
}

bool SerialDevice::fail(const QString &text)
{
    m_errorText = text;
    close();
    return false;
}

} // namespace boardsim
