#include "updatescreentest.h"
#include "windowshot.h"

#include <QDir>
#include <QFont>
#include <QGlyphRun>
#include <QGuiApplication>
#include <QPixmap>
#include <QQuickView>
#include <QTextLayout>
#include <QtTest>

namespace {

enum Stage {
    Idle,
    Installing,
    PackageFailed,
    BoardFailed,
    Success,
};

/// Whether a font has a real glyph for each character; glyph 0 is the box for a missing one.
bool hasAllGlyphs(const QString &text, const QFont &font)
{
    QTextLayout layout(text, font);
    layout.beginLayout();
    layout.createLine();
    layout.endLayout();
    const QList<QGlyphRun> runs = layout.glyphRuns();
    return std::none_of(runs.begin(), runs.end(),
                        [](const QGlyphRun &run) { return run.glyphIndexes().contains(0); });
}

QList<QQuickItem *> textItems(const QQuickItem *parent)
{
    QList<QQuickItem *> items;
    const auto children = parent->childItems();
    for (QQuickItem *child : children) {
        if (child->property("font").isValid() && child->property("contentWidth").isValid())
            items.append(child);
        items += textItems(child);
    }
    return items;
}

/// Saves a picture in the folder `screenshots` beside the test program.
bool save(const QImage &image, const QString &name)
{
    const QDir folder(QCoreApplication::applicationDirPath());
    return folder.mkpath(QStringLiteral("screenshots"))
        && image.save(folder.filePath(QStringLiteral("screenshots/%1.png").arg(name)));
}

} // namespace

Q_DECLARE_METATYPE(Stage)

/// Pictures of the screens in each stage, for people to look at, and proof that what is on them can
/// be read.
class TestScreenshots : public UpdateScreenTest {
    Q_OBJECT

private slots:
    void initTestCase();

    void updateScreen_data();
    void updateScreen();
    void statusScreen_data();
    void statusScreen();
    void chineseCharactersAreNotBoxes();

private:
    void bringTo(Stage stage);
    QImage shotOf(const char *id) const;
};

void TestScreenshots::initTestCase()
{
    if (!hasAllGlyphs(QStringLiteral("升级"), QFont()))
        QSKIP("needs a font with Chinese characters, such as Debian's fonts-wqy-microhei");
}

void TestScreenshots::bringTo(Stage stage)
{
    const QStringList staged{QStringLiteral("/tmp/ota/base-files_1.4.0.ipk"),
                             QStringLiteral("/tmp/ota/machine-hmi_2.3.3.ipk"),
                             QStringLiteral("/tmp/ota/machine-media_1.0.7.ipk"),
                             QStringLiteral("/tmp/ota/mcu-firmware_4.1.3.ipk")};
    if (stage == Idle) {
        m_bridge->setLists(kStick, {staged});
        load();
        return;
    }
    m_bridge->version = QStringLiteral("V4.1.3");
    m_bridge->updateResult = stage == BoardFailed ? -1 : 0;
    m_bridge->setLists(kStaged, {staged});
    load();
    QVERIFY(awaitInstall(staged.first(), 0));
    installPackages(0, stage == BoardFailed || stage == Success ? 3 : 1);
    if (stage == PackageFailed)
        emit m_bridge->threadExeFinish(256, 2);
}

QImage TestScreenshots::shotOf(const char *id) const
{
    const QQuickItem *item = m_screen->item(id);
    return windowShot(m_screen->window()).copy(item->mapRectToScene(item->boundingRect()).toRect());
}

void TestScreenshots::updateScreen_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<Stage>("stage");
    QTest::addColumn<QSize>("size");
    QTest::addColumn<QString>("tipColor");
    const auto row = [](const char *name, Stage stage, const char *tipColor) {
        for (const QSize &size : {QSize(600, 600), QSize(1280, 800)}) {
            const QString file = QStringLiteral("%1-%2x%3")
                                     .arg(QString::fromLatin1(name))
                                     .arg(size.width())
                                     .arg(size.height());
            QTest::newRow(qPrintable(file))
                << file << stage << size << QString::fromLatin1(tipColor);
        }
    };
    row("idle", Idle, "");
    row("installing", Installing, "white");
    row("failed", PackageFailed, "red");
    row("board-failed", BoardFailed, "red");
    row("success", Success, "green");
}

void TestScreenshots::updateScreen()
{
    QFETCH(QString, name);
    QFETCH(Stage, stage);
    QFETCH(QSize, size);
    QFETCH(QString, tipColor);
    bringTo(stage);
    m_screen->resize(size);
    const QImage shot = windowShot(m_screen->window());
    QVERIFY(save(shot, name));
    QCOMPARE(shot.size(), size);
    QCOMPARE(shot.pixelColor(0, 0), QColor(Qt::black));

    const auto texts = textItems(m_screen->window()->contentItem());
    QVERIFY(texts.size() >= 16);
    for (const QQuickItem *item : texts) {
        const QString text = item->property("text").toString();
        QVERIFY2(hasAllGlyphs(text, item->property("font").value<QFont>()), qPrintable(text));
        if (!item->isVisible() || text.isEmpty())
            continue;
        const QRect place = item->mapRectToScene(item->boundingRect()).toRect() & shot.rect();
        QVERIFY2(!place.isEmpty(), qPrintable(text));
        // A disabled button's label shines through at half strength.
        const bool isLabel = item->parentItem() == m_screen->item("udisk");
        if (!isLabel)
            QVERIFY2(hasInk(shot.copy(place), item->property("color").value<QColor>()),
                     qPrintable(text));
    }
    if (!tipColor.isEmpty()) {
        QVERIFY(hasInk(shotOf("tip_en"), QColor(tipColor)));
        QVERIFY(hasInk(shotOf("tip_cn"), QColor(tipColor)));
    }
}

void TestScreenshots::statusScreen_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QString>("color");
    QTest::newRow("status-waiting") << QStringLiteral("0000") << QStringLiteral("white");
    QTest::newRow("status-success") << QStringLiteral("2") << QStringLiteral("green");
}

void TestScreenshots::statusScreen()
{
    QFETCH(QString, mode);
    QFETCH(QString, color);
    QQuickView view;
    view.setSource(QUrl(QStringLiteral("qrc:/show.qml")));
    view.rootObject()->findChild<QObject *>(QStringLiteral("infoTip"))->setProperty("mode", mode);
    view.show();
    QVERIFY(QTest::qWaitForWindowExposed(&view));
    const QImage shot = windowShot(&view);
    QVERIFY(save(shot, QString::fromLatin1(QTest::currentDataTag())));
    QCOMPARE(shot.size(), QSize(1280, 800));

    const auto texts = textItems(view.rootObject());
    QCOMPARE(texts.size(), 2);
    for (const QQuickItem *item : texts) {
        const QString text = item->property("text").toString();
        QVERIFY2(hasAllGlyphs(text, item->property("font").value<QFont>()), qPrintable(text));
        const QRect place = item->mapRectToScene(item->boundingRect()).toRect();
        QVERIFY2(hasInk(shot.copy(place), QColor(color)), qPrintable(text));
    }
}

void TestScreenshots::chineseCharactersAreNotBoxes()
{
    load();
    const auto drawn = [this](const char *text) {
        m_screen->item("tip_cn")->setProperty("text", QString::fromUtf8(text));
        return shotOf("tip_cn");
    };
    // Characters that no font has are boxes that look all alike.
    const QImage box = drawn("\u0378");
    QCOMPARE(drawn("\u0379"), box);
    QVERIFY(hasInk(box, Qt::white));
    const QImage first = drawn("升");
    const QImage second = drawn("级");
    QVERIFY(hasInk(first, Qt::white));
    QVERIFY(hasInk(second, Qt::white));
    QVERIFY(first != second);
    QVERIFY(first != box);
    QVERIFY(second != box);
}

QTEST_MAIN(TestScreenshots)
#include "tst_screenshots.moc"
