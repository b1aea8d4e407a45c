#include "followedfile.h"

#include <QFile>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace boardsim {

namespace {

struct flock wholeFile(short type)
{
    struct flock lock { };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

bool isBeingWritten(int descriptor)
{
    struct flock lock = wholeFile(F_RDLCK);
    return fcntl(descriptor, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

} // namespace

void markAsWritten(int descriptor)
{
    struct flock lock = wholeFile(F_WRLCK);
    // A file system without locks: nobody can follow the file, which is written all the same.
    static_cast<void>(fcntl(descriptor, F_SETLK, &lock));
}

FollowedFile::~FollowedFile()
{
    if (m_descriptor > STDIN_FILENO)
        close(m_descriptor);
}

bool FollowedFile::open(const QString &path)
{
    const bool isInput = path == QLatin1String("-");
    m_name = isInput ? QStringLiteral("standard input") : path;
    // Without O_NONBLOCK, a named pipe that nobody writes would be waited for here.
    m_descriptor = isInput
        ? STDIN_FILENO
        : ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    struct stat status { };
    if (m_descriptor < 0 || fstat(m_descriptor, &status) != 0) {
        m_errorText = QStringLiteral("cannot read %1: %2")
                          .arg(m_name, QString::fromLocal8Bit(strerror(errno)));
        return false;
    }
    if (isatty(m_descriptor) == 1 || S_ISDIR(status.st_mode) || S_ISBLK(status.st_mode)) {
        m_errorText = QStringLiteral("%1 is no recording").arg(m_name);
        return false;
    }
    m_isStream = !S_ISREG(status.st_mode);
    return true;
}

FollowedFile::Input FollowedFile::read(QByteArray &bytes)
{
    // Asked before the file is read: what is written between the two is read the next time.
    const bool isWritten = !m_isStream && isBeingWritten(m_descriptor);
    std::array<char, 65536> buffer{};
    const ssize_t count = ::read(m_descriptor, buffer.data(), buffer.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN))
        return Input::Nothing;
    if (count < 0) {
        m_errorText = QStringLiteral("cannot read %1: %2")
                          .arg(m_name, QString::fromLocal8Bit(strerror(errno)));
        return Input::Failed;
    }
    if (count > 0) {
        bytes = QByteArray(buffer.data(), static_cast<int>(count));
        m_size += count;
        return Input::Bytes;
    }
    struct stat status { };
    if (!m_isStream && fstat(m_descriptor, &status) == 0 && status.st_size < m_size) {
        m_errorText = QStringLiteral("%1 has been begun again").arg(m_name);
        return Input::Failed;
    }
    return isWritten ? Input::Nothing : Input::End;
}

} // namespace boardsim
