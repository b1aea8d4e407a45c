#include "apptransform.h"
#include "windowshot.h"

#include <QPainter>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QtTest>

#include <memory>

namespace {

constexpr QSize kLandscape(1280, 800);
constexpr QSize kPortrait(800, 1280);

// Four corners that differ, and an edge that is not symmetric in any direction.
constexpr char kScene[] = R"(
import QtQuick 2.12
Rectangle {
    width: 1280; height: 800; color: "black"
    Rectangle { x: 0; y: 0; width: 200; height: 100; color: "red" }
    Rectangle { x: 1180; y: 0; width: 100; height: 300; color: "lime" }
    Rectangle { x: 0; y: 760; width: 400; height: 40; color: "blue" }
    Rectangle { x: 1230; y: 650; width: 50; height: 150; color: "yellow" }
    Rectangle { x: 300; y: 350; width: 700; height: 20; color: "white" }
}
)";

/// A window of the given size that shows the scene, turned by `transform` if there is one.
QImage shotOfScene(QSize size, QQuickTransform *transform)
{
    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData(kScene, QUrl());
    const std::unique_ptr<QObject> object(component.create());
    auto *const scene = qobject_cast<QQuickItem *>(object.get());
    QQuickWindow window;
    window.resize(size);
    scene->setParentItem(window.contentItem());
    if (transform)
        transform->appendToItem(scene);
    window.show();
    return windowShot(&window);
}

/// The scene turned by hand: its top edge runs up the left edge of the portrait display.
QImage turnedByHand(const QImage &scene)
{
    QImage turned(kPortrait, QImage::Format_RGB32);
    for (int y = 0; y < scene.height(); ++y) {
        for (int x = 0; x < scene.width(); ++x)
            turned.setPixel(y, scene.width() - 1 - x, scene.pixel(x, y));
    }
    return turned;
}

} // namespace

class TestAppTransformPixels : public QObject {
    Q_OBJECT

private slots:
    void sceneIsTurnedPixelForPixel();
};

void TestAppTransformPixels::sceneIsTurnedPixelForPixel()
{
    const QImage scene = shotOfScene(kLandscape, nullptr).convertToFormat(QImage::Format_RGB32);
    QCOMPARE(scene.size(), kLandscape);
    QCOMPARE(scene.pixelColor(10, 10), QColor(Qt::red));

    AppTransform transform(kLandscape);
    const QImage turned = shotOfScene(kPortrait, &transform).convertToFormat(QImage::Format_RGB32);
    QCOMPARE(turned.pixelColor(10, 1270), QColor(Qt::red));
    const QImage expected = turnedByHand(scene);
    QVERIFY(turned == expected);
}

QTEST_MAIN(TestAppTransformPixels)
#include "tst_apptransformpixels.moc"
