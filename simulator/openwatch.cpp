#include "openwatch.h"

#include <QFile>

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

namespace boardsim {

OpenWatch::~OpenWatch()
{
    close();
}

void OpenWatch::watch(const QString &path)
{
    close();
    m_descriptor = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_add_watch(m_descriptor, QFile::encodeName(path).constData(), IN_OPEN | IN_CLOSE)
        < 0)
        close();
}

void OpenWatch::close()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
    m_count = 0;
}

bool OpenWatch::update()
{
    bool wasClosed = false;
    std::array<char, 4096> events{}; // without names: the watch is on a file
    while (m_descriptor >= 0) {
        const ssize_t size = read(m_descriptor, events.data(), events.size());
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0)
            break;
        for (std::size_t offset = 0; offset < static_cast<std::size_t>(size);) {
            inotify_event event{};
            std::memcpy(&event, events.data() + offset, sizeof event);
            offset += sizeof event + event.len;
            if (event.mask & IN_OPEN)
                ++m_count;
            else if (event.mask & IN_CLOSE)
                wasClosed = --m_count == 0 || wasClosed;
        }
    }
    return wasClosed;
}

} // namespace boardsim
