#ifndef BOARDSIM_SERIALLINE_H
#define BOARDSIM_SERIALLINE_H

#include "clock.h"

#include <QByteArray>
#include <QString>
#include <QVector>

#include <deque>

namespace boardsim {

/// Bytes that leave the board in one piece.
struct Chunk {
    QByteArray bytes;
    Milliseconds delay{0}; ///< after the chunk before it, or after now when nothing waits
    QString meaning;
    bool hangUpAfter = false;
};

/// The two directions of the serial line, each as slow as the real one: a byte takes ten bit times.
/// It does not own the descriptor and never blocks; its owner calls it when there is something to
/// read and when deadline() has come.
class SerialLine {
public:
    /// `baud` 0: as fast as the machine.
    explicit SerialLine(int baud);

    /// The descriptor to read and write, non-blocking; -1: the line is closed.
    void setDescriptor(int descriptor) { m_descriptor = descriptor; }

    /// Reads what the other side has sent. False when the line is closed or has failed.
    [[nodiscard]] bool read(TimePoint now);

    /// Of the bytes read, those that have arrived by `now`.
    QByteArray takeArrived(TimePoint now);

    /// Queues a chunk; chunks keep their order. Returns when its last byte will be out.
    TimePoint queue(const Chunk &chunk, TimePoint now);

    /// Sends what is due. Returns the chunks that went out whole. What finds the line full is lost,
    /// as on a line where nobody reads.
    QVector<Chunk> sendDue(TimePoint now);

    /// When there will next be something to take or to send.
    std::optional<TimePoint> deadline() const;

private:
    struct Outgoing {
        Chunk chunk;
        TimePoint start; // of its first bit
        int sent = 0;
    };
    struct Incoming {
        QByteArray bytes;
        TimePoint start;
        int taken = 0;
    };

    std::chrono::nanoseconds durationOf(int bytes) const { return m_byteTime * bytes; }
    int bytesBy(TimePoint now, TimePoint start, int size) const;

    std::chrono::nanoseconds m_byteTime{0};
    int m_descriptor = -1;
    std::deque<Incoming> m_incoming;
    std::deque<Outgoing> m_outgoing;
    TimePoint m_incomingFree{}; // when the line from the assistant has carried all read so far
    TimePoint m_outgoingFree{};
};

} // namespace boardsim

#endif // BOARDSIM_SERIALLINE_H
