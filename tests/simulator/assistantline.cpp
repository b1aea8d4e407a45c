#include "assistantline.h"

#include <QFile>

#include <array>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr int kPatienceMs = 10000;

} // namespace

AssistantLine::AssistantLine(const QString &device)
    : m_descriptor(open(QFile::encodeName(device).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK))
{
}

AssistantLine::~AssistantLine()
{
    close();
}

void AssistantLine::close()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
}

bool AssistantLine::send(const QByteArray &bytes)
{
    return write(m_descriptor, bytes.constData(), static_cast<size_t>(bytes.size()))
        == bytes.size();
}

int AssistantLine::fill(const QByteArray &bytes)
{
    constexpr int kQuietMs = 300;
    int sent = 0;
    for (pollfd polled{m_descriptor, POLLOUT, 0}; poll(&polled, 1, kQuietMs) == 1;) {
        const ssize_t size = write(m_descriptor, bytes.constData(), size_t(bytes.size()));
        sent += size > 0 ? static_cast<int>(size) : 0;
    }
    return sent;
}

QByteArray AssistantLine::receive(int count)
{
    QByteArray received;
    while (received.size() < count && waitForInput()) {
        std::array<char, 2048> buffer{};
        const auto wanted = std::min(buffer.size(), static_cast<size_t>(count - received.size()));
        const ssize_t size = read(m_descriptor, buffer.data(), wanted);
        if (size <= 0)
            break;
        received.append(buffer.data(), static_cast<int>(size));
    }
    return received;
}

QByteArray AssistantLine::exchange(const QByteArray &bytes, int count)
{
    return send(bytes) ? receive(count) : QByteArray();
}

bool AssistantLine::waitForHangUp()
{
    while (waitForInput()) {
        char byte = 0;
        if (read(m_descriptor, &byte, 1) <= 0)
            return true;
    }
    return false;
}

bool AssistantLine::waitForInput()
{
    pollfd polled{m_descriptor, POLLIN, 0};
    return poll(&polled, 1, kPatienceMs) == 1;
}
