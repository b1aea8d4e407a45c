#include "pty.h"

#include <QDeadlineTimer>
#include <QThread>
#include <QtGlobal>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int kPollMs = 1;

} // namespace

Pty::Pty()
    : m_master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0)
        qFatal("no pseudo-terminal");
    m_path = ptsname(m_master);
    m_slave = open(m_path.constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios raw = settings();
    raw.c_iflag = 0;
    raw.c_oflag = 0;
    raw.c_lflag = 0;
    setSettings(raw);
    // Packet mode: the master also hears when the slave's queues are discarded.
    int on = 1;
    if (ioctl(m_master, TIOCPKT, &on) != 0)
        qFatal("no packet mode");
    m_reads = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_add_watch(m_reads, m_path.constData(), IN_ACCESS) < 0)
        qFatal("reads of the line cannot be watched");
}

Pty::~Pty()
{
    giveUpSlave();
    hangUp();
    close(m_reads);
}

QByteArray Pty::path() const
{
    return m_path;
}

int Pty::slave() const
{
    return m_slave;
}

void Pty::send(const QByteArray &bytes)
{
    forgetReads();
    const ssize_t count =
        write(m_master, bytes.constData(), static_cast<std::size_t>(bytes.size()));
    if (count != bytes.size())
        qFatal("the line does not take %d bytes", static_cast<int>(bytes.size()));
}

void Pty::deliver(const QByteArray &bytes)
{
    const int before = pending();
    send(bytes);
    const QDeadlineTimer deadline(kHangMs);
    while (pending() < before + bytes.size()) {
        if (deadline.hasExpired())
            qFatal("%d bytes do not arrive", static_cast<int>(bytes.size()));
        QThread::msleep(kPollMs);
    }
}

int Pty::pending() const
{
    int count = 0;
    if (ioctl(m_slave, FIONREAD, &count) != 0)
        qFatal("the held slave cannot be asked");
    return count;
}

/// Waits for one packet and sorts it. False when none comes in time or the serial line hung up.
bool Pty::collect(int timeoutMs)
{
    pollfd master{m_master, POLLIN, 0};
    if (poll(&master, 1, timeoutMs) <= 0 || !(master.revents & POLLIN))
        return false;
    char packet[4096];
    const ssize_t count = read(m_master, packet, sizeof packet);
    if (count < 1)
        return false;
    if (packet[0] == TIOCPKT_DATA) {
        m_received.append(packet + 1, static_cast<int>(count) - 1);
        return true;
    }
    if (packet[0] & TIOCPKT_FLUSHWRITE)
        ++m_discards;
    if (packet[0] & TIOCPKT_FLUSHREAD)
        ++m_inputDiscards;
    return true;
}

QByteArray Pty::receive(int count, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (m_received.size() < count && collect(static_cast<int>(deadline.remainingTime()))) { }
    QByteArray bytes = m_received.left(count);
    m_received.remove(0, bytes.size());
    return bytes;
}

QByteArray Pty::received()
{
    // Written bytes take a moment to arrive, but keep their order: when a mark written after them
    // has arrived, all of them have.
    static const QByteArray mark("\x7F<end of what was written>\x7F");
    if (write(m_slave, mark.constData(), static_cast<std::size_t>(mark.size())) != mark.size())
        qFatal("the held slave cannot be written");
    while (!m_received.endsWith(mark) && collect(kHangMs)) { }
    m_received.chop(mark.size());
    QByteArray bytes = m_received;
    m_received.clear();
    return bytes;
}

bool Pty::waitUntilTaken()
{
    // Sent bytes take a moment to arrive, so an empty queue alone does not show that they were
    // read.
    pollfd reads{m_reads, POLLIN, 0};
    if (poll(&reads, 1, kHangMs) != 1)
        return false;
    const QDeadlineTimer deadline(kHangMs);
    while (!deadline.hasExpired()) {
        if (pending() == 0)
            return true;
        QThread::msleep(kPollMs);
    }
    return false;
}

/// Forgets the reads that the product has done so far.
void Pty::forgetReads()
{
    char events[4096];
    while (read(m_reads, events, sizeof events) > 0) { }
}

bool Pty::waitForTimeout(int tenths)
{
    const QDeadlineTimer deadline(kHangMs);
    while (!deadline.hasExpired()) {
        const termios now = settings();
        if (now.c_cc[VMIN] == 0 && now.c_cc[VTIME] == tenths)
            return true;
        QThread::msleep(kPollMs);
    }
    return false;
}

bool Pty::waitForDiscards(int count, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (m_discards < count && collect(static_cast<int>(deadline.remainingTime()))) { }
    return m_discards >= count;
}

int Pty::discards()
{
    while (collect(0)) { }
    return m_discards;
}

int Pty::inputDiscards()
{
    while (collect(0)) { }
    return m_inputDiscards;
}

termios Pty::settings() const
{
    termios now{};
    tcgetattr(m_master, &now);
    return now;
}

void Pty::setSettings(const termios &settings)
{
    tcsetattr(m_master, TCSANOW, &settings);
}

void Pty::giveUpSlave()
{
    if (m_slave >= 0)
        close(m_slave);
    m_slave = -1;
}

bool Pty::isOpenedByProduct()
{
    giveUpSlave();
    // The master hears a hang-up while nobody has the slave open.
    pollfd master{m_master, 0, 0};
    return poll(&master, 1, 0) == 0;
}

void Pty::hangUp()
{
    if (m_master >= 0)
        close(m_master);
    m_master = -1;
}
