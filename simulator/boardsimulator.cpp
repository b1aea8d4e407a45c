#include "boardsimulator.h"

#include "board.h"
#include "pseudoterminal.h"
#include "replayedboard.h"
#include "serialline.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <thread>
#include <unistd.h>

using namespace boardsim;

namespace {

/// For poll(): rounded up, so that the moment has come when poll() returns.
int millisecondsUntil(std::optional<TimePoint> moment)
{
    if (!moment)
        return -1;
    const qint64 left = std::chrono::ceil<Milliseconds>(*moment - Clock::now()).count();
    return static_cast<int>(std::clamp<qint64>(left, 0, 60000));
}

std::unique_ptr<BoardModel> makeBoard(const Options &options, SerialLine &line, Report &report)
{
    if (options.replay)
        return std::make_unique<ReplayedBoard>(options, line, report);
    return std::make_unique<Board>(options, line, report);
}

} // namespace

class BoardSimulator::Private {
public:
    explicit Private(const Options &options)
        : linkPath(options.linkPath)
        , line(options.baud)
        , board(makeBoard(options, line, report))
    {
    }

    bool openPipe();
    void closePipe();
    void wake();
    void run();
    void step(bool readable);

    const QString linkPath;
    QString errorText;
    PseudoTerminal terminal;
    std::array<int, 2> wakePipe{-1, -1};
    std::thread thread;

    mutable std::mutex mutex; // guards all below
    mutable std::condition_variable happened;
    Report report;
    TimePoint lastTraffic = Clock::now();
    bool stopping = false;
    SerialLine line;
    std::unique_ptr<BoardModel> board;
};

bool BoardSimulator::Private::openPipe()
{
    if (pipe(wakePipe.data()) != 0)
        return false;
    for (const int descriptor : wakePipe)
        static_cast<void>(fcntl(descriptor, F_SETFD, FD_CLOEXEC));
    return true;
}

void BoardSimulator::Private::closePipe()
{
    for (const int descriptor : wakePipe)
        close(descriptor);
}

void BoardSimulator::Private::wake()
{
    const char anything = 0;
    static_cast<void>(!write(wakePipe[1], &anything, 1));
}

void BoardSimulator::Private::run()
{
    std::unique_lock<std::mutex> lock(mutex);
    board->begin(Clock::now());
    while (!stopping && !report.hungUp && report.errors.isEmpty() && report.difference.isEmpty()) {
        const int timeout = millisecondsUntil(board->deadline());
        std::array<pollfd, 2> polled{
            {{wakePipe[0], POLLIN, 0}, {terminal.masterDescriptor(), POLLIN, 0}}};
        lock.unlock();
        const int count = poll(polled.data(), polled.size(), timeout);
        const int error = errno;
        lock.lock();
        if (count < 0 && error != EINTR) {
            report.errors << QStringLiteral("poll failed");
            break;
        }
        step(count > 0 && polled[1].revents != 0);
    }
    board->end(Clock::now());
    terminal.hangUp();
    happened.notify_all();
}

void BoardSimulator::Private::step(bool readable)
{
    const TimePoint now = Clock::now();
    const int framesBefore = report.frames.size();
    if (readable && !line.read(now))
        report.errors << QStringLiteral("the line is dead");
    board->step(now);
    if (readable || report.frames.size() != framesBefore)
        lastTraffic = now;
    happened.notify_all();
}

BoardSimulator::BoardSimulator(const Options &options)
    : d(std::make_unique<Private>(options))
{
}

BoardSimulator::~BoardSimulator()
{
    stop();
}

bool BoardSimulator::open()
{
    if (d->terminal.open(d->linkPath))
        return true;
    d->errorText = d->terminal.errorText();
    return false;
}

bool BoardSimulator::start()
{
    if (d->terminal.masterDescriptor() < 0 && !open())
        return false;
    if (!d->openPipe()) {
        d->errorText = QStringLiteral("cannot open a pipe");
        d->terminal.close();
        return false;
    }
    d->line.setDescriptor(d->terminal.masterDescriptor());
    d->thread = std::thread([this] { d->run(); });
    return true;
}

void BoardSimulator::stop()
{
    if (!d->thread.joinable())
        return;
    {
        const std::lock_guard<std::mutex> lock(d->mutex);
        d->stopping = true;
    }
    d->wake();
    d->thread.join();
    d->closePipe();
    d->terminal.close();
}

QString BoardSimulator::slaveName() const
{
    return d->terminal.slaveName();
}

QString BoardSimulator::errorText() const
{
    return d->errorText;
}

Report BoardSimulator::report() const
{
    const std::lock_guard<std::mutex> lock(d->mutex);
    return d->report;
}

bool BoardSimulator::hasFailed() const
{
    const std::lock_guard<std::mutex> lock(d->mutex);
    return !d->report.errors.isEmpty() || !d->report.difference.isEmpty();
}

bool BoardSimulator::waitFor(const Condition &condition, Milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(d->mutex);
    return d->happened.wait_for(lock, timeout, [&] { return condition(d->report); });
}

bool BoardSimulator::waitForQuiet(Milliseconds quiet, Milliseconds timeout) const
{
    const TimePoint end = Clock::now() + timeout;
    std::unique_lock<std::mutex> lock(d->mutex);
    for (;;) {
        const TimePoint quietSince = d->lastTraffic + quiet;
        const TimePoint now = Clock::now();
        if (now >= quietSince)
            return true;
        if (now >= end)
            return false;
        d->happened.wait_until(lock, std::min(quietSince, end));
    }
}
