#include "screen.h"

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
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

const char *const kRecordedProperties[] = {"text", "color", "enabled", "value", "to", "mode"};

QString idOf(QQuickItem *item)
{
    const QQmlContext *const context = qmlContext(item);
    return context ? context->nameForObject(item) : QString();
}

/// Whether the item is declared in the file of the screen, not in that of a component.
bool isOfTheScreen(QQuickItem *item, QQuickWindow *window)
{
    const QList<QQuickItem *> screen = window->contentItem()->childItems();
    return !screen.isEmpty() && qmlContext(item) == qmlContext(screen.first());
}

QJsonValue plain(const QVariant &value)
{
    return value.userType() == QMetaType::QColor ? QJsonValue(value.toString())
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

/// Adds the visible item and its visible descendants to `items` and `rows`.
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
            if (!row->childItems().isEmpty()) // the repeater is also an item
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
    // Sent at once: Qt 6 counts an event as happened when it is made.
    QMouseEvent event(type, place, place, window->mapToGlobal(place.toPoint()), button, pressed,
                      Qt::NoModifier);
    QCoreApplication::sendEvent(window, &event);
}

/// Reports on standard error when the object is destroyed.
void reportEnd(const QObject *object)
{
    const QByteArray name = object->metaObject()->className();
    QObject::connect(object, &QObject::destroyed,
                     [name] { std::fprintf(stderr, "probe: %s is gone\n", name.constData()); });
}

/// The same for the objects that `main` has made: the application, and the view or the engine and
/// the bridge.
void reportEnds(QQuickWindow *window)
{
    reportEnd(QCoreApplication::instance());
    const QQmlEngine *const engine = qmlEngine(window);
    if (!engine) {
        reportEnd(window); // a view, which owns its engine
        return;
    }
    reportEnd(engine);
    const QVariant bridge = engine->rootContext()->contextProperty(QStringLiteral("fileIO"));
    reportEnd(bridge.value<QObject *>());
}

} // namespace

Screen::Screen(const QString &log, const QString &control)
    : m_log(log)
    // A FIFO that is also open for writing never reports end of file.
    , m_control(::open(QFile::encodeName(control).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC))
{
    if (m_control < 0 || !m_log.open(QIODevice::Append | QIODevice::Unbuffered)) {
        std::fprintf(stderr, "probe: %s or %s cannot be opened\n", qPrintable(log),
                     qPrintable(control));
        std::_Exit(1);
    }
    m_clock.start();
    auto *const notifier = new QSocketNotifier(m_control, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &Screen::obey);
    QCoreApplication::instance()->installEventFilter(this);
}

bool Screen::eventFilter(QObject *object, QEvent *event)
{
    if (event->type() == QEvent::Show && !m_window) {
        if (auto *const window = qobject_cast<QQuickWindow *>(object))
            watch(window);
    }
    return QObject::eventFilter(object, event);
}

void Screen::watch(QQuickWindow *window)
{
    m_window = window;
    reportEnds(window);
    connect(window, &QQuickWindow::frameSwapped, this, &Screen::record);
}

void Screen::record()
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

void Screen::obey()
{
    char buffer[PIPE_BUF];
    const ssize_t count = ::read(m_control, buffer, sizeof buffer);
    const QList<QByteArray> lines = QByteArray(buffer, count > 0 ? int(count) : 0).split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith("click "))
            click(QString::fromUtf8(line.mid(6)));
        else if (line == "close" && m_window)
            m_window->close();
    }
}

void Screen::click(const QString &id)
{
    QQuickItem *const item = m_window ? findItem(m_window->contentItem(), id) : nullptr;
    if (!item) {
        std::fprintf(stderr, "probe: there is no %s to click\n", qPrintable(id));
        return;
    }
    const QPointF middle = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
    sendMouse(m_window, QEvent::MouseMove, middle, Qt::NoButton, Qt::NoButton);
    sendMouse(m_window, QEvent::MouseButtonPress, middle, Qt::LeftButton, Qt::LeftButton);
    sendMouse(m_window, QEvent::MouseButtonRelease, middle, Qt::LeftButton, Qt::NoButton);
}
