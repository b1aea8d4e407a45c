#ifndef PEER_H
#define PEER_H

#include "pty.h"

#include <functional>
#include <thread>

/// Runs a script at the other end of a serial line, in a thread of its own, while the test's thread
/// is blocked in the product. Only the script may use the line until finish().
class Peer {
public:
    using Script = std::function<void(Pty &)>;

    Peer(Pty &line, Script script)
        : m_thread([&line, script = std::move(script)] { script(line); })
    {
    }
    ~Peer() { finish(); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    /// Waits for the script's end.
    void finish()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    std::thread m_thread;
};

/// A script that sends `reply` once it has received `count` bytes, and ends.
inline Peer::Script replyAfter(int count, const QByteArray &reply)
{
    return [count, reply](Pty &line) {
        line.receive(count);
        line.send(reply);
    };
}

#endif // PEER_H
