#include "updatescreen.h"

#include <QFont>
#include <QQmlContext>
#include <QtTest>

UpdateScreen::UpdateScreen(RecordingBridge &bridge)
{
    m_engine.rootContext()->setContextProperty(QStringLiteral("fileIO"), &bridge);
    m_engine.load(QUrl(QStringLiteral("qrc:/main.qml")));
    if (!window() || !QTest::qWaitForWindowExposed(window()))
        qFatal("the update screen did not come up");
}

QQuickWindow *UpdateScreen::window() const
{
    return qobject_cast<QQuickWindow *>(m_engine.rootObjects().value(0));
}

QObject *UpdateScreen::element(const char *id) const
{
    const QVariant element = qmlContext(window())->contextProperty(QString::fromLatin1(id));
    return element.value<QObject *>();
}

QQuickItem *UpdateScreen::item(const char *id) const
{
    return qobject_cast<QQuickItem *>(element(id));
}

QVariant UpdateScreen::value(const char *id, const char *property) const
{
    return element(id)->property(property);
}

QString UpdateScreen::text(const char *id) const
{
    return value(id, "text").toString();
}

QColor UpdateScreen::color(const char *id) const
{
    return value(id, "color").value<QColor>();
}

int UpdateScreen::pixelSize(const char *id) const
{
    return value(id, "font").value<QFont>().pixelSize();
}

QVariant UpdateScreen::rootValue(const char *property) const
{
    return window()->property(property);
}

QList<QQuickItem *> UpdateScreen::rowItems() const
{
    QList<QQuickItem *> rows;
    const auto children = item("packageList")->childItems();
    for (QQuickItem *child : children) {
        if (child->childItems().size() == 2) // the repeater is a child too
            rows.append(child);
    }
    return rows;
}

QList<PackageRow> UpdateScreen::rows() const
{
    QList<PackageRow> rows;
    const auto items = rowItems();
    for (const QQuickItem *row : items) {
        const QQuickItem *name = row->childItems().at(0);
        const QQuickItem *state = row->childItems().at(1);
        rows.append({name->property("text").toString(), name->property("color").value<QColor>(),
                     state->property("text").toString(), state->property("color").value<QColor>()});
    }
    return rows;
}

QStringList UpdateScreen::rowTexts() const
{
    QStringList texts;
    const auto all = rows();
    for (const PackageRow &row : all)
        texts.append(row.name + QLatin1Char(' ') + row.state);
    return texts;
}

QPoint UpdateScreen::buttonCenter() const
{
    return item("udisk")->mapRectToScene(item("udisk")->boundingRect()).center().toPoint();
}

void UpdateScreen::clickButton() const
{
    QTest::mouseClick(window(), Qt::LeftButton, Qt::NoModifier, buttonCenter());
}

void UpdateScreen::resize(const QSize &size) const
{
    window()->resize(size);
    QTRY_COMPARE(window()->contentItem()->size(), QSizeF(size));
}
