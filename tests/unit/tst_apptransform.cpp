#include "apptransform.h"

#include <QMatrix4x4>
#include <QVector3D>
#include <QtTest>

#include <type_traits>

static_assert(std::is_base_of_v<QQuickTransform, AppTransform>);

class TestAppTransform : public QObject {
    Q_OBJECT

private slots:
    void scenePointsLandOnTheDisplay_data();
    void scenePointsLandOnTheDisplay();
    void onlyTheWidthMatters();
    void isMultipliedFromTheRight();
    void hasNoParentAndNoMetaObjectOfItsOwn();
};

namespace {

constexpr QSizeF kScene(1280.0, 800.0);

QMatrix4x4 applied(const AppTransform &transform, QMatrix4x4 matrix = {})
{
    transform.applyTo(&matrix);
    return matrix;
}

} // namespace

void TestAppTransform::scenePointsLandOnTheDisplay_data()
{
    QTest::addColumn<QPointF>("scene");
    QTest::addColumn<QPointF>("display");

    QTest::newRow("top left") << QPointF(0, 0) << QPointF(0, 1280);
    QTest::newRow("top right") << QPointF(1280, 0) << QPointF(0, 0);
    QTest::newRow("bottom right") << QPointF(1280, 800) << QPointF(800, 0);
    QTest::newRow("bottom left") << QPointF(0, 800) << QPointF(800, 1280);
    QTest::newRow("inside") << QPointF(100, 30) << QPointF(30, 1180);
}

void TestAppTransform::scenePointsLandOnTheDisplay()
{
    QFETCH(QPointF, scene);
    QFETCH(QPointF, display);

    QCOMPARE(applied(AppTransform(kScene)).map(scene), display);
}

void TestAppTransform::onlyTheWidthMatters()
{
    QCOMPARE(applied(AppTransform(QSizeF(1280, 1))), applied(AppTransform(kScene)));
    QCOMPARE(applied(AppTransform(QSizeF(100, 800))).map(QPointF(0, 0)), QPointF(0, 100));
}

void TestAppTransform::isMultipliedFromTheRight()
{
    QMatrix4x4 before;
    before.translate(10, 20);
    before.scale(2, 3);
    // The scene point is turned first, to (30, 1180), then scaled and moved.
    QCOMPARE(applied(AppTransform(kScene), before).map(QPointF(100, 30)),
             QPointF(10 + 2 * 30, 20 + 3 * 1180));
}

void TestAppTransform::hasNoParentAndNoMetaObjectOfItsOwn()
{
    const AppTransform transform(kScene);
    QCOMPARE(transform.parent(), nullptr);
    QCOMPARE(transform.metaObject(), &QQuickTransform::staticMetaObject);
}

QTEST_APPLESS_MAIN(TestAppTransform)
#include "tst_apptransform.moc"
