#ifndef PTY_H
#define PTY_H

#include <QByteArray>

#include <termios.h>

/// How long a test waits for what must happen: a bound for hangs, never a measure.
constexpr int kHangMs = 20000;

/// A pseudo-terminal pair. The test holds the master and acts as the other end of the serial line;
/// the product opens the slave by its path. One thread at a time.
class Pty {
public:
    /// Holds the slave open too, raw, so that nothing is echoed or lost before the product opens
    /// it.
    Pty();
    virtual ~Pty();
    Pty(const Pty &) = delete;
    Pty &operator=(const Pty &) = delete;

    /// Path of the slave, "/dev/pts/N".
    QByteArray path() const;
    /// The held slave, -1 once it is given up.
    int slave() const;

    /// Sends `bytes` to the product, all in one write.
    void send(const QByteArray &bytes);
    /// Sends `bytes` to the product, which is not reading meanwhile, and waits until it can read
    /// them: sent bytes take a moment to arrive. Needs the held slave.
    void deliver(const QByteArray &bytes);
    /// How many bytes the product can read now. Needs the held slave.
    int pending() const;
    /// What the product sent: exactly `count` bytes, fewer when they do not come in time.
    QByteArray receive(int count, int timeoutMs = kHangMs);
    /// What the product has sent by now and the test has not received yet. Needs the held slave.
    QByteArray received();

    /// Waits until the product has read all that the last send() sent. Needs the held slave.
    bool waitUntilTaken();
    /// Waits until the product has set the inter-character time-out. This discards its pending
    /// input, so bytes sent after the call are not lost.
    bool waitForTimeout(int tenths);
    /// Waits until the product has discarded its output `count` times in all: every Read that times
    /// out does so once.
    bool waitForDiscards(int count, int timeoutMs = kHangMs);
    /// How often the product has discarded its unsent output by now.
    int discards();
    /// How often the product has discarded its unread input by now.
    int inputDiscards();

    /// The slave's settings.
    termios settings() const;
    void setSettings(const termios &settings);

    /// Closes the held slave.
    void giveUpSlave();
    /// Whether the product has the slave open. Gives up the held one.
    bool isOpenedByProduct();
    /// Closes the master: for the product the serial line hangs up.
    void hangUp();

private:
    bool collect(int timeoutMs);
    void forgetReads();

    int m_master;
    int m_slave;
    int m_reads; // reports every read from the slave
    QByteArray m_path;
    QByteArray m_received;
    int m_discards = 0;
    int m_inputDiscards = 0;
};

#endif // PTY_H
