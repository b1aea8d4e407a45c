#include "updatescreentest.h"
#include "windowshot.h"

#include <QPainter>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QtTest>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

enum Names { Short, Long };
Q_DECLARE_METATYPE(Names)

enum Stage { Waiting, Installing, PackageFailed, Finished };
Q_DECLARE_METATYPE(Stage)

namespace {

constexpr int kPitch = 19; // of the rows, in pixels

const QSize kSmall(600, 600);
const QSize kLow(800, 480);
const QSize kMachine(1280, 800);
const QSize kPortrait(800, 1280);

/// The rows in a plain column, with nothing around them.
constexpr char kPlainColumn[] = R"(
import QtQuick 2.12
Item {
    id: root
    property var names
    property int step
    Column {
        anchors.horizontalCenter: root.horizontalCenter
        height: 180
        spacing: 5
        Repeater {
            model: root.names
            Rectangle {
                width: 350
                height: 14
                color: "transparent"
                Text {
                    anchors.left: parent.left
                    color: "white"
                    font.pixelSize: 14
                    text: root.names[index]
                }
                Text {
                    anchors.right: parent.right
                    anchors.rightMargin: 10
                    color: text === "wait" ? "yellow" : "green"
                    font.pixelSize: 14
                    text: root.step < index ? "wait" : "ok"
                }
            }
        }
    }
}
)";

QStringList packageNames(Names names, int count)
{
    // With ink above and below the line, so that a row that is cut looks different.
    const auto pattern = names == Short
        ? QStringLiteral("pkg_gypq_\u00c5%1.ipk")
        : QStringLiteral("user-interface-graphics-resources-%1_3.1.0-r12_cortexa7t2hf-neon.ipk");
    QStringList all;
    for (int i = 0; i < count; ++i)
        all.append(pattern.arg(i));
    return all;
}

QStringList inFolder(const char *folder, const QStringList &names)
{
    QStringList paths;
    for (const QString &name : names)
        paths.append(QString::fromLatin1(folder) + name);
    return paths;
}

/// A picture of all rows, the first at its top, as a plain column shows them in a window so wide.
QImage plainRows(const QStringList &names, int step, int width)
{
    QQuickWindow window;
    window.setColor(Qt::black);
    window.resize(width, (names.size() + 1) * kPitch);
    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData(kPlainColumn, {});
    const std::unique_ptr<QObject> rows(component.create());
    rows->setProperty("step", step);
    rows->setProperty("names", names);
    auto *const item = qobject_cast<QQuickItem *>(rows.get());
    item->setWidth(width);
    item->setParentItem(window.contentItem());
    window.show();
    if (!QTest::qWaitForWindowExposed(&window))
        return {};
    return windowShot(&window);
}

/// The picture with `part` painted over.
QImage without(QImage picture, const QRect &part)
{
    QPainter(&picture).fillRect(part, Qt::magenta);
    return picture;
}

} // namespace

/// The list of packages, held by what is seen of it.
class TestPackageList : public UpdateScreenTest {
    Q_OBJECT

private slots:
    void isAPlainColumn();
    void rowsThatFitLookLikeAPlainColumn_data();
    void rowsThatFitLookLikeAPlainColumn();
    void rowsThatFitStandStill();
    void moreRowsFillTheRoomAndNoMore_data();
    void moreRowsFillTheRoomAndNoMore();
    void everyRowIsSeenWholeWhileItIsInstalled_data();
    void everyRowIsSeenWholeWhileItIsInstalled();
    void failedRowIsSeenWhole();
    void fingerBringsFirstAndLastRowIntoView_data();
    void fingerBringsFirstAndLastRowIntoView();
    void markShowsWhereThereIsMore_data();
    void markShowsWhereThereIsMore();
    void fingerMovesTheRows();
    void mouseMovesTheRows();
    void nextPackageBringsItsRowBack();
    void listStaysInTheHand();
    void fewerPackagesNextTimeStandAtTheTop();

private:
    void loadNamed(Names names, int count, const QSize &size, Stage stage = Waiting);
    void reach(Stage stage);
    void loadWaiting(int count) { loadNamed(Short, count, kSmall); }
    QImage shot() const { return windowShot(m_screen->window()); }
    QRect sceneRect(const char *id) const;
    int overhang() const;
    QRect list() const;
    QRect marks() const;
    QRect row(int index) const;
    bool isInView(int index) const { return list().contains(row(index)); }
    QImage background() const;
    void compareList(int step);
    QPoint onTheList(int offset) const { return list().center() + QPoint(0, offset); }
    void press(int offset);
    void moveTo(int from, int to);
    void release(int offset);
    void drag(int from, int to);
    void dragInto(int index, int from, int to);
    bool isStill() const { return !m_screen->value("packageView", "moving").toBool(); }

    decltype(QTest::createTouchDevice()) m_touch = QTest::createTouchDevice();
    QStringList m_names;
    QStringList m_plainNames; // of the pictures below, plain columns of all rows
    QImage m_waitingRows;
    QImage m_installedRows;
};

/// Loads the screen with so many packages, in a window of that size, and brings it to the stage.
void TestPackageList::loadNamed(Names names, int count, const QSize &size, Stage stage)
{
    m_names = packageNames(names, count);
    m_bridge->version = QStringLiteral("V4.1.3");
    if (stage == Waiting)
        m_bridge->setLists(kStick, {inFolder("/mnt/nand_disk/update_ipk/", m_names)});
    else
        m_bridge->setLists(kStaged, {inFolder("/tmp/ota/", m_names)});
    load();
    m_screen->resize(size);
    reach(stage);
    QVERIFY(!shot().isNull()); // the rows have their places
}

void TestPackageList::reach(Stage stage)
{
    if (stage == Waiting)
        return;
    QVERIFY(awaitInstall(QStringLiteral("/tmp/ota/") + m_names.first(), 0));
    const int count = m_names.size();
    installPackages(0, stage == Finished ? count - 1 : count / 2 - 1);
    if (stage == PackageFailed)
        emit m_bridge->threadExeFinish(256, count / 2);
}

QRect TestPackageList::sceneRect(const char *id) const
{
    const QQuickItem *item = m_screen->item(id);
    return item->mapRectToScene(QRectF(QPointF(), item->size())).toRect();
}

/// How much higher than its row a text is.
int TestPackageList::overhang() const
{
    return sceneRect("label").height() - 14;
}

/// The place of the list: from below the button down to the progress, as wide as names may be.
QRect TestPackageList::list() const
{
    QRect place(QPoint(sceneRect("packageList").left(), sceneRect("udisk").bottom() + 21),
                QPoint(m_screen->window()->width() - 1, sceneRect("label").top() - 1));
    return place.adjusted(0, -overhang(), 0, 0);
}

/// What is left of the list.
QRect TestPackageList::marks() const
{
    QRect place = list();
    place.setLeft(0);
    place.setRight(list().left() - 1);
    return place;
}

QRect TestPackageList::row(int index) const
{
    const QQuickItem *row = m_screen->rowItems().at(index);
    return row->mapRectToScene(QRectF(QPointF(), row->size()))
        .toRect()
        .adjusted(0, 0, 0, overhang());
}

/// The screen without its list.
QImage TestPackageList::background() const
{
    for (const char *id : {"packageView", "scrollTrack"})
        m_screen->item(id)->setOpacity(0);
    QImage picture = shot();
    for (const char *id : {"packageView", "scrollTrack"})
        m_screen->item(id)->setOpacity(1);
    return picture;
}

/// Compares what is seen in list() with a plain column that stands where the rows say they are.
void TestPackageList::compareList(int step)
{
    if (m_plainNames != m_names) {
        m_plainNames = m_names;
        m_waitingRows = plainRows(m_names, -1, m_screen->window()->width());
        m_installedRows = plainRows(m_names, m_names.size(), m_screen->window()->width());
        QVERIFY(m_waitingRows != m_installedRows);
    }
    const QRect place = list();
    const int top = row(0).top() - place.top();
    const int installed = (step + 1) * kPitch; // pixels
    QImage expected(place.size(), m_waitingRows.format());
    expected.fill(Qt::black);
    {
        QPainter painter(&expected);
        painter.drawImage(-place.left(), top, m_installedRows, 0, 0, -1, installed);
        painter.drawImage(-place.left(), top + installed, m_waitingRows, 0, installed);
    }
    const QImage seen = shot().copy(place);
    QVERIFY(hasInk(seen));
    QCOMPARE(seen, expected);
}

void TestPackageList::press(int offset)
{
#ifdef __SANITIZE_ADDRESS__
    // Qt never releases what it makes of a touch panel at its first touch.
    const __lsan::ScopedDisabler notOurs;
#endif
    QTest::touchEvent(m_screen->window(), m_touch).press(0, onTheList(offset));
}

/// Moves the finger, first by what begins a drag, which moves nothing yet. Moves are taken with the
/// next frame, all of them as one.
void TestPackageList::moveTo(int from, int to)
{
    const int begun = from + (to < from ? -16 : 16);
    for (const int offset : {begun, to}) {
        QTest::touchEvent(m_screen->window(), m_touch).move(0, onTheList(offset));
        QVERIFY(!shot().isNull());
    }
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

/// Drags until the row is in view.
void TestPackageList::dragInto(int index, int from, int to)
{
    constexpr int kHang = 1000; // drags
    for (int i = 0; i < kHang && !isInView(index); ++i)
        drag(from, to);
    QVERIFY(isInView(index));
}

void TestPackageList::isAPlainColumn()
{
    loadWaiting(3);
    QCOMPARE(m_screen->item("packageList")->metaObject()->className(), "QQuickColumn");
}

void TestPackageList::rowsThatFitLookLikeAPlainColumn_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<int>("count");
    QTest::addColumn<Names>("names");
    QTest::addColumn<Stage>("stage");
    const struct {
        QSize size;
        int most; // rows that fit
    } windows[] = {{kSmall, 10}, {kLow, 7}, {kMachine, 15}, {kPortrait, 28}};
    for (const auto &window : windows) {
        const auto row = [&window](int count, Names names, Stage stage) {
            QTest::addRow("%d %s rows, %dx%d, stage %d", count, names == Short ? "short" : "long",
                          window.size.width(), window.size.height(), stage)
                << window.size << count << names << stage;
        };
        row(0, Short, Waiting);
        row(3, Long, Installing);
        for (const Stage stage : {Waiting, Installing, PackageFailed, Finished}) {
            row(window.most, Short, stage);
            row(window.most, Long, stage);
        }
    }
}

void TestPackageList::rowsThatFitLookLikeAPlainColumn()
{
    QFETCH(QSize, size);
    QFETCH(int, count);
    QFETCH(Names, names);
    QFETCH(Stage, stage);
    loadNamed(names, count, size, stage);
    const int step = stage == Waiting ? -1 : stage == Finished ? count - 1 : count / 2 - 1;
    const QImage rows = plainRows(m_names, step, size.width());
    const QRect place(0, sceneRect("udisk").bottom() + 21, size.width(), rows.height());
    QVERIFY(count == 0 || hasInk(rows));
    QVERIFY(place.top() + count * kPitch <= sceneRect("label").top());

    QImage expected = background();
    QPainter(&expected).drawImage(0, place.top(), rows, 0, 0, -1, count * kPitch);
    QCOMPARE(shot(), expected);
}

void TestPackageList::rowsThatFitStandStill()
{
    loadNamed(Short, 15, kMachine);
    const QImage before = shot();
    drag(60, -60);
    drag(-60, 60);
    QCOMPARE(shot(), before);
}

void TestPackageList::moreRowsFillTheRoomAndNoMore_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<int>("count");
    QTest::addColumn<Names>("names");
    const struct {
        QSize size;
        int least; // rows that do not fit
    } windows[] = {{kSmall, 11}, {kLow, 8}, {kMachine, 16}, {kPortrait, 29}};
    for (const auto &window : windows) {
        for (const int count : {window.least, 40, 200}) {
            for (const Names names : {Short, Long})
                QTest::addRow("%d %s rows, %dx%d", count, names == Short ? "short" : "long",
                              window.size.width(), window.size.height())
                    << window.size << count << names;
        }
    }
}

void TestPackageList::moreRowsFillTheRoomAndNoMore()
{
    QFETCH(QSize, size);
    QFETCH(int, count);
    QFETCH(Names, names);
    loadNamed(names, count, size);
    QCOMPARE(row(0).top(), sceneRect("udisk").bottom() + 21);
    compareList(-1);
    drag(30, 0); // rows are cut at both ends
    QVERIFY(row(0).top() < list().top());
    compareList(-1);
    const QRect whole = list() | marks();
    QCOMPARE(without(shot(), whole), without(background(), whole));
}

void TestPackageList::everyRowIsSeenWholeWhileItIsInstalled_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<int>("count");
    QTest::addColumn<Names>("names");
    QTest::newRow("one too much, 600x600") << kSmall << 11 << Short;
    QTest::newRow("one too much, 800x480") << kLow << 8 << Long;
    QTest::newRow("one too much, 1280x800") << kMachine << 16 << Long;
    QTest::newRow("one too much, 800x1280") << kPortrait << 29 << Short;
    QTest::newRow("200, 800x480") << kLow << 200 << Short;
    QTest::newRow("200, 1280x800") << kMachine << 200 << Long;
}

void TestPackageList::everyRowIsSeenWholeWhileItIsInstalled()
{
    QFETCH(QSize, size);
    QFETCH(int, count);
    QFETCH(Names, names);
    loadNamed(names, count, size, Installing);
    for (int i = count / 2; i < count; ++i) {
        QVERIFY2(isInView(i), qPrintable(QString::number(i)));
        compareList(i - 1);
        installPackages(i, i);
    }
    QVERIFY(isInView(count - 1));
    compareList(count - 1);
}

void TestPackageList::failedRowIsSeenWhole()
{
    loadNamed(Long, 40, kMachine, PackageFailed);
    QVERIFY(isInView(20));
    compareList(19);
    drag(-30, 30);
    compareList(19);
}

void TestPackageList::fingerBringsFirstAndLastRowIntoView_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<int>("count");
    QTest::addColumn<Names>("names");
    QTest::newRow("one too much, 600x600") << kSmall << 11 << Long;
    QTest::newRow("one too much, 800x480") << kLow << 8 << Short;
    QTest::newRow("one too much, 1280x800") << kMachine << 16 << Short;
    QTest::newRow("one too much, 800x1280") << kPortrait << 29 << Long;
    QTest::newRow("40, 600x600") << kSmall << 40 << Short;
    QTest::newRow("40, 1280x800") << kMachine << 40 << Long;
    QTest::newRow("200, 800x480") << kLow << 200 << Long;
}

void TestPackageList::fingerBringsFirstAndLastRowIntoView()
{
    QFETCH(QSize, size);
    QFETCH(int, count);
    QFETCH(Names, names);
    loadNamed(names, count, size);
    dragInto(count - 1, 60, -60);
    QVERIFY(!isInView(0));
    compareList(-1);
    dragInto(0, -60, 60);
    QCOMPARE(row(0).top(), sceneRect("udisk").bottom() + 21);
    compareList(-1);
}

void TestPackageList::markShowsWhereThereIsMore_data()
{
    QTest::addColumn<int>("count");
    QTest::newRow("some") << 16;
    QTest::newRow("many") << 40;
    QTest::newRow("very many") << 1000;
}

void TestPackageList::markShowsWhereThereIsMore()
{
    QFETCH(int, count);
    // Lines of the track above and below its brighter part.
    const auto rest = [this] {
        const QImage strip = shot().copy(marks());
        QPair<int, int> lines(0, 0);
        bool isSeen = false;
        for (int y = 0; y < strip.height(); ++y) {
            const QImage line = strip.copy(0, y, strip.width(), 1);
            if (hasInk(line, QColor(QStringLiteral("#db8420"))))
                isSeen = true;
            else if (hasInk(line))
                ++(isSeen ? lines.second : lines.first);
        }
        return isSeen ? lines : qMakePair(-1, -1);
    };
    loadWaiting(count);
    QCOMPARE(rest().first, 0);
    QVERIFY(rest().second > 0);
    dragInto(count - 1, 60, -60);
    QVERIFY(rest().first > 0);
    QCOMPARE(rest().second, 0);
    loadNamed(Short, count, kSmall, Installing);
    QVERIFY(rest().first > 0);
    QVERIFY(rest().second > 0);
}

void TestPackageList::fingerMovesTheRows()
{
    loadWaiting(1000);
    drag(60, -40);
    const int moved = list().top() - row(0).top();
    QVERIFY2(moved > 50, qPrintable(QString::number(moved)));
    QCOMPARE(row(500).top() - row(0).top(), 500 * kPitch);
    QCOMPARE(m_bridge->calls().filter(QStringLiteral("exe")).size(), 0);
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
    m_bridge->setLists(kStick, {stickPackages(40), stickPackages(3)});
    load();
    drag(70, -70);
    QVERIFY(row(0).top() < list().top());
    m_screen->clickButton();
    QTRY_COMPARE(m_screen->rowItems().size(), 3);
    QVERIFY(!windowShot(m_screen->window()).isNull());
    QCOMPARE(row(0).top(), list().top() + overhang());
    QVERIFY(!hasInk(shot().copy(marks())));
}

QTEST_MAIN(TestPackageList)
#include "tst_packagelist.moc"
