#include "peakmemory.h"
#include "screen.h"

#include <QCoreApplication>
#include <QEvent>
#include <QGenericPlugin>
#include <QQuickWindow>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <unistd.h>
#include <utility>

// A plugin that observes the unmodified program. QT_QPA_GENERIC_PLUGINS selects what it does:
//
//   firstframe:FILE   writes the time of the first frame and the peak memory, then ends the program
//   screen:LOG:FIFO   records what the screen shows and operates it, see Screen
//   stalls:FILE       writes each stall of the GUI thread
//
// Nothing runs for what is not selected.

namespace {

/// Nanoseconds since the epoch of the clock.
template <typename Clock>
long long nanoseconds(std::chrono::time_point<Clock> time)
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

FILE *openReport(const QString &path)
{
    FILE *const report = std::fopen(path.toLocal8Bit().constData(), "w");
    if (!report) {
        std::perror("probe");
        std::_Exit(1);
    }
    return report;
}

/// Writes one line: the time of the first frame in nanoseconds (monotonic clock) and the peak
/// memory in kilobytes 50 ms later. Then ends the program.
class FirstFrame : public QObject {
    using Clock = std::chrono::steady_clock;

public:
    explicit FirstFrame(QString path)
        : m_path(std::move(path))
    {
        QCoreApplication::instance()->installEventFilter(this);
    }

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() != QEvent::Expose)
            return false;
        if (auto *window = qobject_cast<QQuickWindow *>(watched)) {
            QCoreApplication::instance()->removeEventFilter(this);
            connect(
                window, &QQuickWindow::frameSwapped, this, [this] { shown(Clock::now()); },
                Qt::DirectConnection);
        }
        return false;
    }

private:
    void shown(Clock::time_point time)
    {
        constexpr int settledMs = 50;
        if (m_shown)
            return;
        m_shown = true;
        QTimer::singleShot(settledMs, this, [this, time] {
            FILE *const report = openReport(m_path);
            std::fprintf(report, "%lld %d\n", nanoseconds(time), peakMemoryKb());
            std::fclose(report);
            std::_Exit(0);
        });
    }

    QString m_path;
    bool m_shown = false;
};

/// Posts an event to the GUI thread every millisecond. Writes one line for each stall of more than
/// two milliseconds: its start and its end in nanoseconds (clock of `date`).
class Stalls : public QObject {
    using Clock = std::chrono::system_clock;

public:
    explicit Stalls(const QString &path)
        : m_report(openReport(path))
    {
        std::thread(&Stalls::watch, this).detach();
    }

    bool event(QEvent *event) override
    {
        if (event->type() != QEvent::User)
            return QObject::event(event);
        const Clock::time_point now = Clock::now();
        if (now - m_asked > kUnnoticed) {
            std::fprintf(m_report, "%lld %lld\n", nanoseconds(m_asked), nanoseconds(now));
            std::fflush(m_report);
        }
        m_answered.store(true, std::memory_order_release);
        return true;
    }

private:
    static constexpr std::chrono::milliseconds kPulse{1};
    static constexpr std::chrono::milliseconds kUnnoticed{2};

    void watch()
    {
        for (;;) {
            std::this_thread::sleep_for(kPulse);
            if (!m_answered.load(std::memory_order_acquire))
                continue;
            m_answered.store(false, std::memory_order_relaxed);
            m_asked = Clock::now(); // the posted event hands it over
            QCoreApplication::postEvent(this, new QEvent(QEvent::User), Qt::HighEventPriority);
        }
    }

    FILE *m_report;
    Clock::time_point m_asked;
    std::atomic<bool> m_answered{true};
};

} // namespace

class ProbePlugin : public QGenericPlugin {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QGenericPluginFactoryInterface_iid FILE "probe.json")

public:
    /// The application owns the result.
    QObject *create(const QString &key, const QString &files) override
    {
        if (key == QLatin1String("firstframe"))
            return new FirstFrame(files);
        if (key == QLatin1String("stalls"))
            return new Stalls(files);
        return new Screen(files.section(QLatin1Char(':'), 0, 0),
                          files.section(QLatin1Char(':'), 1));
    }
};

#include "plugin.moc"
