#ifndef UPDATESCREEN_H
#define UPDATESCREEN_H

#include "recordingbridge.h"

#include <QColor>
#include <QList>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QString>
#include <QVariant>

/// What one row of the package list shows.
struct PackageRow {
    QString name;
    QColor nameColor;
    QString state;
    QColor stateColor;
};

/// The compiled-in update screen in a real window, driven by a recording bridge.
class UpdateScreen {
public:
    /// Loads and shows the screen. `bridge` must outlive this object.
    explicit UpdateScreen(RecordingBridge &bridge);

    /// Null when the screen did not load.
    QQuickWindow *window() const;

    /// The element with this QML id, null without one.
    QObject *element(const char *id) const;
    /// The same, for what is drawn.
    QQuickItem *item(const char *id) const;
    QVariant value(const char *id, const char *property) const;
    QString text(const char *id) const;
    QColor color(const char *id) const;
    int pixelSize(const char *id) const;
    /// A property of the window.
    QVariant rootValue(const char *property) const;

    QList<QQuickItem *> rowItems() const;
    QList<PackageRow> rows() const;
    /// The names and the states of all rows, such as "a.ipk ok".
    QStringList rowTexts() const;

    /// Where the storage-stick button is, in window coordinates.
    QPoint buttonCenter() const;
    /// Clicks the button with the mouse.
    void clickButton() const;
    void resize(const QSize &size) const;

private:
    QQmlApplicationEngine m_engine;
};

#endif // UPDATESCREEN_H
