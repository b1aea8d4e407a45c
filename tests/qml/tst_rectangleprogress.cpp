#include "viewtest.h"

#include <QColor>
#include <QQmlProperty>

/// The progress bar alone.
class TestRectangleProgress : public ViewTest {
    Q_OBJECT

private slots:
    void init();

    void implicitSizes();
    void colors();
    void valueIsAThousandthOfProgressUntilAssigned();
    void barWidthFollowsTheVisualPosition();

private:
    QQuickItem *bar() const { return root(); }
    QQuickItem *part(const char *property) const
    {
        return bar()->property(property).value<QQuickItem *>();
    }
    double value() const { return bar()->property("value").toDouble(); }
};

void TestRectangleProgress::init()
{
    load("qrc:/RectangleProgress.qml");
    show();
}

void TestRectangleProgress::implicitSizes()
{
    QCOMPARE(bar()->property("padding").toDouble(), 2.0);
    QCOMPARE(part("background")->implicitWidth(), 440.0);
    QCOMPARE(part("background")->implicitHeight(), 20.0);
    QCOMPARE(part("contentItem")->implicitWidth(), 440.0);
    QCOMPARE(part("contentItem")->implicitHeight(), 12.0);
    QCOMPARE(bar()->size(), QSizeF(444, 20));
    QCOMPARE(part("contentItem")->position(), QPointF(2, 2));
    QCOMPARE(part("contentItem")->size(), QSizeF(440, 16));
}

void TestRectangleProgress::colors()
{
    QCOMPARE(part("background")->property("color").value<QColor>(),
             QColor(QStringLiteral("#222222")));
    QCOMPARE(part("contentItem")->childItems().first()->property("color").value<QColor>(),
             QColor(QStringLiteral("#FFFFFF")));
}

void TestRectangleProgress::valueIsAThousandthOfProgressUntilAssigned()
{
    QCOMPARE(bar()->property("progress"), QVariant(0));
    QCOMPARE(value(), 0.0);
    bar()->setProperty("progress", 250);
    QCOMPARE(value(), 0.25);
    bar()->setProperty("progress", 999);
    QCOMPARE(value(), 0.999);

    QQmlProperty::write(bar(), QStringLiteral("value"), 0.5);
    bar()->setProperty("progress", 100);
    QCOMPARE(value(), 0.5);
}

void TestRectangleProgress::barWidthFollowsTheVisualPosition()
{
    const QQuickItem *filled = part("contentItem")->childItems().first();
    QCOMPARE(filled->width(), 0.0);
    bar()->setProperty("to", 4);
    bar()->setProperty("value", 1);
    QCOMPARE(filled->width(), 110.0);
    QCOMPARE(filled->height(), part("contentItem")->height());
    bar()->setWidth(84);
    QCOMPARE(filled->width(), 20.0);
    bar()->setProperty("value", 4);
    QCOMPARE(filled->width(), 80.0);
}

QTEST_MAIN(TestRectangleProgress)
#include "tst_rectangleprogress.moc"
