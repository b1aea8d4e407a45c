#ifndef SCREEN_H
#define SCREEN_H

#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QObject>
#include <QPointer>

class QQuickItem;
class QQuickWindow;

/// Records what the first window of the program shows, and operates it.
///
/// Each painted state that differs from the one before is one JSON line in the log: `ms` since the
/// start; `items`, the properties of the visible items with an id (`text`, `color`, `enabled`,
/// `value`, `to`, `mode`); `rows`, the texts of the list's rows with their colours, from top to
/// bottom. A line "click ID" written to the FIFO clicks the middle of that item; "close" closes the
/// window. A line "probe: CLASS is gone" on standard error reports the end of each object that
/// `main` has made.
///
/// Lives on the GUI thread.
class Screen : public QObject {
    Q_OBJECT

public:
    /// Appends to the file `log` and reads the FIFO `control`. Ends the process, with a message on
    /// standard error, when one of them cannot be opened.
    Screen(const QString &log, const QString &control);

    bool eventFilter(QObject *object, QEvent *event) override;

private:
    void watch(QQuickWindow *window);
    void record();
    void obey();
    void click(const QString &id);

    QPointer<QQuickWindow> m_window;
    QElapsedTimer m_clock;
    QFile m_log;
    int m_control; // never closed
    QJsonObject m_last;
};

#endif // SCREEN_H
