#include "tap.h"

#include "recording.h"

#include <QFileInfo>

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace boardsim {

namespace {

constexpr int kMaxWaiting = 64 * 1024;    // bytes for a side that does not take them
constexpr Milliseconds kTryInterval{200}; // to open a device that has gone

/// Writes what the descriptor takes, and removes it from `waiting`. False when it has failed.
bool writeSome(int descriptor, QByteArray &waiting)
{
    while (!waiting.isEmpty()) {
        const ssize_t count =
            write(descriptor, waiting.constData(), static_cast<size_t>(waiting.size()));
        if (count > 0)
            waiting.remove(0, static_cast<int>(count));
        else if (count < 0 && errno == EINTR)
            continue;
        else
            return count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
    return true;
}

enum class Input {
    Bytes,
    Nothing,
    HungUp,
};

Input readSome(int descriptor, QByteArray &bytes)
{
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    do
        count = read(descriptor, buffer.data(), buffer.size());
    while (count < 0 && errno == EINTR);
    if (count > 0) {
        bytes = QByteArray(buffer.data(), static_cast<int>(count));
        return Input::Bytes;
    }
    return count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? Input::Nothing : Input::HungUp;
}

} // namespace

Tap::Tap(QString device, QString linkPath, Unheard unheard, LineListener &listener)
    : m_devicePath(std::move(device))
    , m_linkPath(std::move(linkPath))
    , m_unheard(unheard)
    , m_listener(listener)
{
}

bool Tap::open()
{
    const QString device = QFileInfo(m_devicePath).canonicalFilePath();
    if (!device.isEmpty() && device == QFileInfo(m_linkPath).canonicalFilePath()) {
        m_errorText = QStringLiteral("%1 is the device itself").arg(m_linkPath);
        return false;
    }
    if (m_device.open(m_devicePath))
        return openTerminal();
    m_errorText = m_device.errorText();
    return false;
}

bool Tap::run(int endDescriptor)
{
    for (;;) {
        // Without a device only the end and the next try are waited for: a negative descriptor is
        // no descriptor to poll().
        const auto deviceEvents =
            static_cast<short>(m_toDevice.isEmpty() ? POLLIN : POLLIN | POLLOUT);
        const bool isFull = m_toDevice.size() >= kMaxWaiting;
        const auto programEvents =
            static_cast<short>((isFull ? 0 : POLLIN) | (m_toProgram.isEmpty() ? 0 : POLLOUT));
        const int master = m_isOpen ? m_terminal.masterDescriptor() : -1; // else it is hung up
        std::array<pollfd, 4> polled{{{endDescriptor, POLLIN, 0},
                                      {m_device.descriptor(), deviceEvents, 0},
                                      {master, programEvents, 0},
                                      {m_terminal.programsDescriptor(), POLLIN, 0}}};
        if (poll(polled.data(), polled.size(), timeoutMs()) < 0 && errno != EINTR) {
            m_errorText = QStringLiteral("poll failed");
            return false;
        }
        if (polled[0].revents != 0)
            return true;
        if (m_device.descriptor() < 0) {
            const TimePoint now = Clock::now();
            if (now >= m_nextTry && m_device.open(m_devicePath)) {
                if (!openTerminal())
                    return false;
                m_listener.deviceReturned(now);
            }
            m_nextTry =
                std::max(m_nextTry, now + (now >= m_nextTry ? kTryInterval : Milliseconds(0)));
        } else {
            lookForPrograms();
            if (polled[2].revents != 0)
                static_cast<void>(carryToBoard(Limit::Waiting));
            const bool isThere = (polled[1].revents == 0 || carryFromBoard()) && writeOut();
            if (!isThere)
                lose(Clock::now());
        }
    }
}

void Tap::close()
{
    m_terminal.close();
    m_device.close();
}

bool Tap::openTerminal()
{
    if (m_terminal.open(m_linkPath)) {
        if (m_unheard == Unheard::Dropped)
            m_terminal.watchPrograms();
        m_isOpen = m_terminal.isOpen();
        return true;
    }
    m_errorText = m_terminal.errorText();
    return false;
}

int Tap::timeoutMs() const
{
    if (m_device.descriptor() >= 0)
        return -1;
    const auto left = std::chrono::ceil<Milliseconds>(m_nextTry - Clock::now()).count();
    return static_cast<int>(std::max<qint64>(left, 0));
}

/// A program that closes the line leaves nothing for the next one.
void Tap::lookForPrograms()
{
    const bool wasOpen = std::exchange(m_isOpen, m_terminal.isOpen());
    if (!wasOpen || m_isOpen)
        return;
    while (carryToBoard(Limit::None)) { }
    const int count = m_toProgram.size() + m_terminal.dropUnread();
    m_toProgram.clear();
    if (count > 0)
        noteUnread(Clock::now(), count);
}

/// A real line would carry garbage at another speed than the board's; this one carries the bytes.
void Tap::lookAtSpeed()
{
    const bool hadLineSpeed = std::exchange(m_hasLineSpeed, m_terminal.hasLineSpeed());
    if (hadLineSpeed && !m_hasLineSpeed)
        m_listener.noted(Clock::now(),
                         QStringLiteral("the program has set another speed than %1 baud; "
                                        "the board would not understand it without the tap")
                             .arg(kLineSpeed));
}

/// These bytes went over the line, but not on.
void Tap::noteUnread(TimePoint now, qint64 count)
{
    m_listener.noted(now, QStringLiteral("no program reads: %1 bytes are lost").arg(count));
}

/// False when there was nothing to carry.
bool Tap::carryToBoard(Limit limit)
{
    QByteArray bytes;
    if ((limit == Limit::Waiting && m_toDevice.size() >= kMaxWaiting)
        || readSome(m_terminal.masterDescriptor(), bytes) != Input::Bytes)
        return false;
    lookAtSpeed();
    m_toDevice += bytes;
    // Before the listener, which takes its time.
    const bool isWritten = writeSome(m_device.descriptor(), m_toDevice);
    m_listener.bytesPassed(Clock::now(), true, bytes);
    static_cast<void>(isWritten); // a device that has gone is found by reading
    return true;
}

bool Tap::carryFromBoard()
{
    QByteArray bytes;
    const Input input = readSome(m_device.descriptor(), bytes);
    if (input != Input::Bytes)
        return input == Input::Nothing;
    if (!m_isOpen) {
        m_listener.bytesUnheard(Clock::now(), bytes);
        return true;
    }
    m_toProgram += bytes;
    static_cast<void>(writeSome(m_terminal.masterDescriptor(), m_toProgram));
    const TimePoint now = Clock::now();
    m_listener.bytesPassed(now, false, bytes);
    // As on a line where nobody reads: the oldest bytes stay.
    if (m_toProgram.size() > kMaxWaiting) {
        noteUnread(now, m_toProgram.size() - kMaxWaiting);
        m_toProgram.truncate(kMaxWaiting);
    }
    return true;
}

bool Tap::writeOut()
{
    static_cast<void>(writeSome(m_terminal.masterDescriptor(), m_toProgram));
    return writeSome(m_device.descriptor(), m_toDevice);
}

void Tap::lose(TimePoint now)
{
    m_device.close();
    m_terminal.close();
    m_toDevice.clear();
    m_toProgram.clear();
    m_nextTry = now + kTryInterval;
    m_listener.deviceGone(now);
}

} // namespace boardsim
