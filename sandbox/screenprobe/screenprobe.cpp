#include "screenprobe.h"

#include <QCoreApplication>
#include <QEvent>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMouseEvent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSocketNotifier>

#include <climits>
#include <cstdio>
#include <fcntl.h>

namespace {

const char *const kRecordedProperties[] = {"text", "color", "enabled", "value", "to", "mode"};

QString idOf(QQuickItem *item)
{
    const QQmlContext *const context = qmlContext(item);
    return context ? context->nameForObject(item) : QString();
}

/// Whether the screen's own file made the item, not the file of one of its components.
bool isOfTheScreen(QQuickItem *item, QQuickWindow *window)
{
    const QList<QQuickItem *> screen = window->contentItem()->childItems();
    return !screen.isEmpty() && qmlContext(item) == qmlContext(screen.first());
}

QJsonValue plain(const QVariant &value)
{
    return value.type() == QVariant::Color ? QJsonValue(value.toString())
                                           : QJsonValue::fromVariant(value);
}

QJsonObject propertiesOf(QQuickItem *item)
{
    QJsonObject properties;
    for (const char *name : kRecordedProperties) {
        if (item->metaObject()->indexOfProperty(name) >= 0)
            properties.insert(QString::fromLatin1(name), plain(item->property(name)));
    }
    return properties;
}

/// The texts of a row of the list, each followed by its colour.
QJsonArray textsOf(QQuickItem *row)
{
    QJsonArray texts;
    const QList<QQuickItem *> children = row->childItems();
    for (QQuickItem *child : children) {
        texts.append(plain(child->property("text")));
        texts.append(plain(child->property("color")));
    }
    return texts;
}

/// Adds what an item and those in it show.
void addItem(QQuickItem *item, QQuickWindow *window, QJsonObject &items, QJsonArray &rows)
{
    if (!item->isVisible())
        return;
    const QList<QQuickItem *> children = item->childItems();
    const QString id = isOfTheScreen(item, window) ? idOf(item) : QString();
    if (!id.isEmpty())
        items.insert(id, propertiesOf(item));
    if (item->inherits("QQuickColumn")) {
        for (QQuickItem *row : children) {
            if (!row->childItems().isEmpty()) // the repeater is an item, too
                rows.append(textsOf(row));
        }
        return;
    }
    for (QQuickItem *child : children)
        addItem(child, window, items, rows);
}

QQuickItem *findItem(QQuickItem *parent, const QString &id)
{
    const QList<QQuickItem *> children = parent->childItems();
    for (QQuickItem *child : children) {
        if (idOf(child) == id)
            return child;
        if (QQuickItem *const item = findItem(child, id))
            return item;
    }
    return nullptr;
}

void sendMouse(QQuickWindow *window, QEvent::Type type, const QPointF &place,
               Qt::MouseButton button, Qt::MouseButtons pressed)
{
    QCoreApplication::postEvent(window,
                                new QMouseEvent(type, place, place,
                                                window->mapToGlobal(place.toPoint()), button,
                                                pressed, Qt::NoModifier));
}

/// Says on standard error when the object has gone.
void tellEndOf(const QObject *object)
{
    const QByteArray name = object->metaObject()->className();
    QObject::connect(object, &QObject::destroyed, [name] {
        std::fprintf(stderr, "screenprobe: %s is gone\n", name.constData());
    });
}

/// The same for what `main` has made: the application, and the view or the engine and the bridge.
void tellEndsOf(QQuickWindow *window)
{
    tellEndOf(QCoreApplication::instance());
    const QQmlEngine *const engine = qmlEngine(window);
    if (!engine) {
        tellEndOf(window); // a view, which has an engine of its own
        return;
    }
    tellEndOf(engine);
    const QVariant bridge = engine->rootContext()->contextProperty(QStringLiteral("fileIO"));
    tellEndOf(bridge.value<QObject *>());
}

bool openNamed(QFile &file, const char *variable, int flags)
{
    const QByteArray path = qgetenv(variable);
    if (path.isEmpty())
        return true;
    const int descriptor = ::open(path.constData(), flags | O_CLOEXEC, 0644);
    if (descriptor >= 0
        && file.open(descriptor,
                     (flags & O_WRONLY) != 0 ? QIODevice::WriteOnly | QIODevice::Unbuffered
                                             : QIODevice::ReadWrite | QIODevice::Unbuffered,
                     QFileDevice::AutoCloseHandle))
        return true;
    std::fprintf(stderr, "screenprobe: %s: %s cannot be opened\n", variable, path.constData());
    return false;
}

} // namespace

bool ScreenProbe::start()
{
    m_clock.start();
    // A FIFO that is open for writing, too, never comes to its end.
    if (!openNamed(m_log, "SCREEN_PROBE_LOG", O_WRONLY | O_CREAT | O_APPEND)
        || !openNamed(m_control, "SCREEN_PROBE_CONTROL", O_RDWR | O_NONBLOCK))
        return false;
    if (m_control.isOpen()) {
        auto *const notifier = new QSocketNotifier(m_control.handle(), QSocketNotifier::Read, this);
        connect(notifier, &QSocketNotifier::activated, this, &ScreenProbe::obey);
    }
    QCoreApplication::instance()->installEventFilter(this);
    return true;
}

bool ScreenProbe::eventFilter(QObject *object, QEvent *event)
{
    if (event->type() == QEvent::Show && !m_window) {
        if (auto *const window = qobject_cast<QQuickWindow *>(object))
            watch(window);
    }
    return QObject::eventFilter(object, event);
}

void ScreenProbe::watch(QQuickWindow *window)
{
    m_window = window;
    tellEndsOf(window);
    if (m_log.isOpen())
        connect(window, &QQuickWindow::frameSwapped, this, &ScreenProbe::record);
}

void ScreenProbe::record()
{
    QJsonObject items;
    QJsonArray rows;
    addItem(m_window->contentItem(), m_window, items, rows);
    QJsonObject state{{QStringLiteral("items"), items}, {QStringLiteral("rows"), rows}};
    if (state == m_last)
        return;
    m_last = state;
    state.insert(QStringLiteral("ms"), m_clock.elapsed());
    m_log.write(QJsonDocument(state).toJson(QJsonDocument::Compact) + '\n');
}

void ScreenProbe::obey()
{
    const QList<QByteArray> lines = m_control.read(PIPE_BUF).split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith("click "))
            click(QString::fromUtf8(line.mid(6)));
        else if (line == "close" && m_window)
            m_window->close();
    }
}

void ScreenProbe::click(const QString &id)
{
    QQuickItem *const item = m_window ? findItem(m_window->contentItem(), id) : nullptr;
    if (!item) {
        std::fprintf(stderr, "screenprobe: there is no %s to click\n", qPrintable(id));
        return;
    }
    const QPointF middle = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
    sendMouse(m_window, QEvent::MouseMove, middle, Qt::NoButton, Qt::NoButton);
    sendMouse(m_window, QEvent::MouseButtonPress, middle, Qt::LeftButton, Qt::LeftButton);
    sendMouse(m_window, QEvent::MouseButtonRelease, middle, Qt::LeftButton, Qt::NoButton);
}
