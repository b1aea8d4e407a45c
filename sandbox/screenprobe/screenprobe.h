#ifndef SCREENPROBE_H
#define SCREENPROBE_H

#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QObject>
#include <QPointer>

class QQuickItem;
class QQuickWindow;

/// Looks at the screen of an unchanged program from inside, as a technician does from outside.
///
/// Each state that a window has painted is one JSON line in the file SCREEN_PROBE_LOG: `ms` since
/// the start; `items`, what the visible items with an id hold (`text` and `color`, `enabled`,
/// `value` and `to`, `mode`); `rows`, the texts of the list's rows with their colours, from top to
/// bottom. A line "click ID" written to the FIFO SCREEN_PROBE_CONTROL clicks the middle of that
/// item, and "close" closes the window. When the program ends by itself, a line on standard error
/// tells of each object that `main` has made, "screenprobe: CLASS is gone".
///
/// Lives on the GUI thread.
class ScreenProbe : public QObject {
    Q_OBJECT

public:
    /// Opens the files that the environment names. Returns false, with a message on standard error,
    /// when one of them does not open; a variable that is not set leaves its half out.
    bool start();

    bool eventFilter(QObject *object, QEvent *event) override;

private:
    void watch(QQuickWindow *window);
    void record();
    void obey();
    void click(const QString &id);

    QPointer<QQuickWindow> m_window;
    QElapsedTimer m_clock;
    QFile m_log;
    QFile m_control;
    QJsonObject m_last;
};

#endif // SCREENPROBE_H
