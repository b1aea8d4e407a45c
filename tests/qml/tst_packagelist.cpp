#include "updatescreentest.h"
#include "windowshot.h"

#include <QTouchDevice>
#include <QtTest>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

/// The list with more packages than there is room for.
class TestPackageList : public UpdateScreenTest {
    Q_OBJECT

private slots:
    void rowsThatFitStandStill_data();
    void rowsThatFitStandStill();
    void nothingIsPaintedOutsideTheList_data();
    void nothingIsPaintedOutsideTheList();
    void firstRowsAreShownFirst();
    void installedRowIsInView_data();
    void installedRowIsInView();
    void fingerMovesTheRows();
    void lastRowIsReachedWithTheFinger();
    void mouseMovesTheRows();
    void listEndsAtItsFirstAndLastRow();
    void nextPackageBringsItsRowBack();
    void listStaysInTheHand();
    void fewerPackagesNextTimeStandAtTheTop();

private:
    void loadWaiting(int count);
    QRectF list() const;
    QRectF row(int index) const;
    bool isInView(int index) const { return list().contains(row(index)); }
    QPoint onTheList(int offset) const { return list().center().toPoint() + QPoint(0, offset); }
    void press(int offset);
    void moveTo(int from, int to);
    void release(int offset);
    void drag(int from, int to);
    bool isStill() const;

    QTouchDevice *m_touch = QTest::createTouchDevice();
};

void TestPackageList::loadWaiting(int count)
{
    m_bridge->setLists(QString::fromLatin1(kStick), {stickPackages(count)});
    load();
    QVERIFY(!windowShot(m_screen->window()).isNull()); // the rows have their places
}

QRectF TestPackageList::list() const
{
    const QQuickItem *list = m_screen->item("packageList");
    return list->mapRectToScene(QRectF(QPointF(), list->size()));
}

QRectF TestPackageList::row(int index) const
{
    const QQuickItem *row = m_screen->rowItems().at(index);
    return row->mapRectToScene(QRectF(QPointF(), row->size()));
}

void TestPackageList::press(int offset)
{
#ifdef __SANITIZE_ADDRESS__
    // Qt never releases what it makes of a touch panel at its first touch.
    const __lsan::ScopedDisabler notOurs;
#endif
    QTest::touchEvent(m_screen->window(), m_touch).press(0, onTheList(offset));
}

void TestPackageList::moveTo(int from, int to)
{
    constexpr int steps = 8;
    for (int i = 1; i <= steps; ++i)
        QTest::touchEvent(m_screen->window(), m_touch)
            .move(0, onTheList(from + (to - from) * i / steps));
}

void TestPackageList::release(int offset)
{
    QTest::touchEvent(m_screen->window(), m_touch).release(0, onTheList(offset));
}

/// Drags with a finger, from and to so much below the list's middle, until nothing moves any more.
void TestPackageList::drag(int from, int to)
{
    press(from);
    moveTo(from, to);
    release(to);
    QTRY_VERIFY(isStill());
}

bool TestPackageList::isStill() const
{
    const auto *mover = m_screen->value("listMover", "item").value<QObject *>();
    return !mover || !mover->property("moving").toBool();
}

void TestPackageList::rowsThatFitStandStill_data()
{
    QTest::addColumn<int>("height"); // of the window
    QTest::addColumn<int>("count");
    QTest::newRow("nine in the list") << 600 << 9;
    QTest::newRow("ten above the progress") << 600 << 10;
    QTest::newRow("fifteen on a higher screen") << 800 << 15;
}

void TestPackageList::rowsThatFitStandStill()
{
    QFETCH(int, height);
    QFETCH(int, count);
    loadWaiting(count);
    m_screen->window()->setHeight(height);
    QTRY_COMPARE(m_screen->window()->contentItem()->height(), qreal(height));
    QVERIFY(!m_screen->value("packageList", "clip").toBool());
    QVERIFY(m_screen->value("listMover", "item").isNull());
    drag(60, -60);
    for (int i = 0; i < count; ++i)
        QCOMPARE(row(i).topLeft(), list().topLeft() + QPointF(0, i * 19));
    const QQuickItem *progress = m_screen->item("label");
    QVERIFY(row(count - 1).bottom() <= progress->mapToScene(QPointF()).y());
}

void TestPackageList::nothingIsPaintedOutsideTheList_data()
{
    QTest::addColumn<int>("count");
    QTest::newRow("the first row too much") << 11;
    QTest::newRow("many") << 40;
    QTest::newRow("very many") << 1000;
}

void TestPackageList::nothingIsPaintedOutsideTheList()
{
    QFETCH(int, count);
    loadWaiting(1);
    const QImage few = windowShot(m_screen->window());
    const QRect inside = list().toRect();
    loadWaiting(count);
    drag(60, 20); // rows are cut at both ends
    QImage many = windowShot(m_screen->window());
    QVERIFY(many.copy(inside) != few.copy(inside));
    for (int y = 0; y < many.height(); ++y) {
        for (int x = 0; x < many.width(); ++x) {
            if (!inside.contains(x, y) && many.pixel(x, y) != few.pixel(x, y))
                QFAIL(qPrintable(QStringLiteral("painted at %1, %2").arg(x).arg(y)));
        }
    }
}

void TestPackageList::firstRowsAreShownFirst()
{
    loadWaiting(1000);
    QCOMPARE(m_screen->rowItems().size(), 1000);
    QCOMPARE(row(0).topLeft(), list().topLeft());
    QVERIFY(isInView(8));
    QVERIFY(!isInView(9));
}

void TestPackageList::installedRowIsInView_data()
{
    QTest::addColumn<int>("count");
    QTest::newRow("11") << 11;
    QTest::newRow("31") << 31;
    QTest::newRow("1000") << 1000;
}

void TestPackageList::installedRowIsInView()
{
    QFETCH(int, count);
    loadInstalling(count);
    for (int i = 0; i < count; ++i) {
        if (!isInView(i))
            QFAIL(qPrintable(QStringLiteral("row %1 is not in view").arg(i)));
        installPackages(i, i);
    }
    QVERIFY(isInView(count - 1));
    QCOMPARE(m_screen->rows().last().state, QStringLiteral("ok"));
    QCOMPARE(row(count - 1).bottom(), list().bottom()); // no room is left below
}

void TestPackageList::fingerMovesTheRows()
{
    loadWaiting(1000);
    drag(60, -40);
    const qreal moved = list().top() - row(0).top();
    QVERIFY2(moved > 50, qPrintable(QString::number(moved)));
    QCOMPARE(moved, std::round(moved)); // texts stay on whole pixels
    QCOMPARE(row(500).top() - row(0).top(), 500 * 19.0);
    QCOMPARE(m_bridge->calls().filter(QStringLiteral("exe")).size(), 0);
}

void TestPackageList::lastRowIsReachedWithTheFinger()
{
    loadWaiting(40);
    for (int i = 0; i < 40 && !isInView(39); ++i)
        drag(70, -70);
    QVERIFY(isInView(39));
    for (int i = 0; i < 40 && !isInView(0); ++i)
        drag(-70, 70);
    QVERIFY(isInView(0));
}

void TestPackageList::mouseMovesTheRows()
{
    loadWaiting(40);
    QTest::mousePress(m_screen->window(), Qt::LeftButton, Qt::NoModifier, onTheList(60));
    for (int offset = 50; offset >= -40; offset -= 10)
        QTest::mouseMove(m_screen->window(), onTheList(offset));
    QVERIFY(row(0).top() < list().top());
    QTest::mouseRelease(m_screen->window(), Qt::LeftButton, Qt::NoModifier, onTheList(-40));
}

void TestPackageList::listEndsAtItsFirstAndLastRow()
{
    loadWaiting(12);
    drag(-70, 70);
    QCOMPARE(row(0).top(), list().top());
    drag(80, -80);
    QCOMPARE(row(11).bottom(), list().bottom());
}

void TestPackageList::nextPackageBringsItsRowBack()
{
    loadInstalling(100);
    installPackages(0, 49);
    for (int i = 0; i < 10 && isInView(50); ++i)
        drag(-70, 70);
    QVERIFY(!isInView(50));
    installPackages(50, 50);
    QVERIFY(isInView(51));
}

void TestPackageList::listStaysInTheHand()
{
    loadInstalling(100);
    installPackages(0, 49);
    press(-80);
    moveTo(-80, 80);
    QVERIFY(!windowShot(m_screen->window()).isNull()); // moves are taken with the next frame
    QVERIFY(!isStill());
    const qreal held = row(0).top();
    QVERIFY(!isInView(60));
    installPackages(50, 59);
    QCOMPARE(row(0).top(), held);
    release(80);
    QTRY_VERIFY(isStill());
    QVERIFY(isInView(60));
}

void TestPackageList::fewerPackagesNextTimeStandAtTheTop()
{
    m_bridge->setLists(QString::fromLatin1(kStick), {stickPackages(40), stickPackages(3)});
    load();
    drag(70, -70);
    QVERIFY(row(0).top() < list().top());
    m_screen->clickButton();
    QTRY_COMPARE(m_screen->rowItems().size(), 3);
    QVERIFY(!windowShot(m_screen->window()).isNull());
    QCOMPARE(row(0).topLeft(), list().topLeft());
    QVERIFY(m_screen->value("listMover", "item").isNull());
}

QTEST_MAIN(TestPackageList)
#include "tst_packagelist.moc"
