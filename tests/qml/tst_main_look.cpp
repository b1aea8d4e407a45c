#include "brackettranslator.h"
#include "updatescreentest.h"
#include "windowshot.h"

#include <QFont>
#include <QGuiApplication>
#include <QQmlComponent>
#include <QQmlContext>
#include <QtTest>

namespace {

constexpr char kSuccessTip[] = "Update success please restart machine By Switch Power"
                               "(升级成功,请切关背后翘班开关重启咖啡机)";

QString bracketed(const char *text)
{
    return QLatin1Char('<') + QString::fromUtf8(text) + QLatin1Char('>');
}

} // namespace

/// Where the parts of the update screen are and how they look.
class TestMainLook : public UpdateScreenTest {
    Q_OBJECT

private slots:
    void windowIsBlackAndNamed();
    void texts_data();
    void texts();
    void kernelDateFollowsItsLabelWithoutBlank();
    void placesOnTheScreen_data();
    void placesOnTheScreen();
    void successTextIsDrawnAsAPlainText();
    void rowPlaces();
    void listStaysCenteredWithoutRows();
    void buttonLook();
    void progressLook();
    void stateOtherThanWaitAndOkIsRed();
    void everyTextCanBeTranslated();
};

void TestMainLook::windowIsBlackAndNamed()
{
    load();
    QVERIFY(m_screen->window()->isVisible());
    QCOMPARE(m_screen->window()->size(), QSize(600, 600));
    QCOMPARE(m_screen->window()->color(), QColor(Qt::black));
    QCOMPARE(m_screen->window()->title(), QStringLiteral("Update Assistant"));
}

void TestMainLook::texts_data()
{
    QTest::addColumn<QByteArray>("id");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("color");
    QTest::addColumn<int>("pixelSize");
    const auto row = [](const char *id, const char *text, const char *color, int pixelSize) {
        QTest::newRow(id) << QByteArray(id) << QString::fromUtf8(text) << QString::fromLatin1(color)
                          << pixelSize;
    };
    row("successTip", kSuccessTip, "green", 24);
    row("title", "Update Assistant(升级助手V2.3.3)", "white", 24);
    row("kernelInfo", "Kernel Data:2021-09-16 19:25:17", "white", 20);
    row("tip", "Upgrade information(升级信息):", "white", 20);
    row("tip_en", "", "white", 14);
    row("tip_cn", "", "white", 14);
    row("label", "Progress(进度):", "white", 14);
}

void TestMainLook::texts()
{
    QFETCH(QByteArray, id);
    QFETCH(QString, text);
    QFETCH(QString, color);
    QFETCH(int, pixelSize);
    load();
    QCOMPARE(m_screen->text(id.constData()), text);
    QCOMPARE(m_screen->color(id.constData()), QColor(color));
    QCOMPARE(m_screen->pixelSize(id.constData()), pixelSize);
    QCOMPARE(m_screen->item(id.constData())->isVisible(), id != "successTip");
}

void TestMainLook::kernelDateFollowsItsLabelWithoutBlank()
{
    m_bridge->kernelData = QStringLiteral("Invalid");
    load();
    QCOMPARE(m_screen->text("kernelInfo"), QStringLiteral("Kernel Data:Invalid"));
}

void TestMainLook::placesOnTheScreen_data()
{
    QTest::addColumn<QSize>("size");
    QTest::newRow("as it comes up") << QSize(600, 600);
    QTest::newRow("on the machine's display") << QSize(1280, 800);
}

void TestMainLook::placesOnTheScreen()
{
    QFETCH(QSize, size);
    m_bridge->setLists(kStick, {stickPackages(3)});
    load();
    m_screen->resize(size);
    const qreal width = size.width();
    const qreal height = size.height();
    const auto place = [this](const char *id) {
        const QQuickItem *item = m_screen->item(id);
        return item->mapRectToScene(QRectF(QPointF(), item->size()));
    };
    // Centred items stand on whole pixels.
    const auto isCentered = [&](const QRectF &rect) {
        return qAbs(rect.center().x() - width / 2) <= 0.5;
    };

    QVERIFY(isCentered(place("successTip")));
    QCOMPARE(place("successTip").top(), 240.0);
    QCOMPARE(place("successTip").height(), 2 * (height / 2 - 240.0));

    QCOMPARE(place("udisk"), QRectF((width - 280) / 2, (height - 50) / 2, 280, 50));

    QVERIFY(isCentered(place("title")));
    QCOMPARE(place("title").top(), 20.0);

    QCOMPARE(place("kernelInfo").topLeft(), QPointF(20, place("title").bottom() + 10));
    QCOMPARE(place("kernelInfo").height(), 20.0);
    QCOMPARE(place("kernelInfo").width(), m_screen->value("kernelInfo", "contentWidth").toDouble());
    QVERIFY(place("kernelInfo").width() > 0);

    QCOMPARE(place("tip").topLeft(), QPointF(20, place("title").bottom() + 40));
    QCOMPARE(place("tip").height(), 20.0);
    QCOMPARE(place("tip_en").topLeft(), QPointF(44, place("tip").bottom() + 11));
    QCOMPARE(place("tip_en").height(), 20.0);
    QCOMPARE(place("tip_cn").topLeft(), QPointF(44, place("tip_en").bottom() - 2));

    QCOMPARE(place("packageList"),
             QRectF((width - 350) / 2, place("udisk").bottom() + 20, 350, 180));
    QCOMPARE(m_screen->value("packageList", "spacing").toDouble(), 5.0);

    QCOMPARE(place("label").left(), 10.0);
    QCOMPARE(place("label").bottom(), height - 40);

    QCOMPARE(place("progress").height(), 14.0);
    QCOMPARE(place("progress").left(), place("label").right());
    QCOMPARE(place("progress").right(), width - 10);
    QVERIFY(qAbs(place("progress").center().y() - place("label").center().y()) <= 0.5);
}

void TestMainLook::successTextIsDrawnAsAPlainText()
{
    load();
    m_screen->resize(QSize(1280, 800)); // wider than the text
    QQuickItem *tip = m_screen->item("successTip");
    tip->setVisible(true);
    const QImage shown = windowShot(m_screen->window());
    tip->setVisible(false);

    QQmlComponent component(qmlContext(tip)->engine());
    component.setData(R"(
import QtQuick 2.12
Text {
    height: 320
    anchors.horizontalCenter: parent ? parent.horizontalCenter : undefined
    y: 240
    color: "green"
    font.pixelSize: 24
})",
                      QUrl());
    const std::unique_ptr<QObject> object(component.create());
    auto *plain = qobject_cast<QQuickItem *>(object.get());
    QVERIFY2(plain, qPrintable(component.errorString()));
    plain->setParentItem(tip->parentItem());
    plain->setProperty("text", QString::fromUtf8(kSuccessTip));
    // Where the screen puts it: below the other texts and the button.
    plain->stackBefore(tip);
    QVERIFY(hasInk(shown, Qt::darkGreen));
    QCOMPARE(shown, windowShot(m_screen->window()));
}

void TestMainLook::rowPlaces()
{
    m_bridge->setLists(kStick, {stickPackages(4)});
    load();
    const QList<QQuickItem *> rows = m_screen->rowItems();
    QCOMPARE(rows.size(), 4);
    for (int i = 0; i < rows.size(); ++i) {
        const QQuickItem *row = rows.at(i);
        QCOMPARE(QRectF(row->position(), row->size()), QRectF(0, i * 19, 350, 14));
        QCOMPARE(row->property("color").value<QColor>().alpha(), 0);
        const QQuickItem *name = row->childItems().at(0);
        const QQuickItem *state = row->childItems().at(1);
        QCOMPARE(name->position(), QPointF(0, 0));
        QCOMPARE(state->x() + state->width(), 340.0);
        QCOMPARE(state->y(), 0.0);
        QCOMPARE(name->property("font").value<QFont>().pixelSize(), 14);
        QCOMPARE(state->property("font").value<QFont>().pixelSize(), 14);
    }
}

void TestMainLook::listStaysCenteredWithoutRows()
{
    load();
    const QQuickItem *list = m_screen->item("packageList");
    QCOMPARE(list->mapToScene(QPointF(list->width() / 2, 0)), QPointF(300, 345));
    QCOMPARE(list->height(), 180.0);
}

void TestMainLook::buttonLook()
{
    m_bridge->setLists(kStick, {stickPackages(1)});
    load();
    QCOMPARE(m_screen->text("udisk"), QStringLiteral("U Disk Update(U盘升级)"));
    QCOMPARE(m_screen->color("udisk"), QColor(QStringLiteral("#333333")));
    QCOMPARE(m_screen->item("udisk")->opacity(), 1.0);

    m_screen->clickButton();
    QCOMPARE(m_screen->item("udisk")->opacity(), 0.5);
    QCOMPARE(m_screen->color("udisk"), QColor(QStringLiteral("#333333")));
}

void TestMainLook::progressLook()
{
    m_bridge->setLists(kStaged, {stagedPackages(3)});
    load();
    QVERIFY(awaitInstall(stagedPackages(1).first(), 0));
    installPackages(0, 0);
    QCOMPARE(m_screen->value("progress", "progress"), QVariant(0));
    const auto *content = m_screen->value("progress", "contentItem").value<QQuickItem *>();
    const QQuickItem *bar = content->childItems().first();
    QCOMPARE(content->size(), m_screen->item("progress")->size() - QSizeF(4, 4));
    QCOMPARE(bar->width(), content->width() / 4);
    QCOMPARE(bar->height(), 10.0);
}

void TestMainLook::stateOtherThanWaitAndOkIsRed()
{
    m_bridge->setLists(kStick, {stickPackages(1)});
    load();
    QQuickItem *state = m_screen->rowItems().first()->childItems().at(1);
    state->setProperty("text", QStringLiteral("fail"));
    QCOMPARE(m_screen->rows().first().stateColor, QColor(Qt::red));
}

void TestMainLook::everyTextCanBeTranslated()
{
    BracketTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    m_bridge->version = QStringLiteral("V4.1.3");
    m_bridge->updateResult = -1;
    m_bridge->setLists(kBoardImages, {{QStringLiteral("/mnt/update_ipk/app.bin")}});
    const auto compareTipsBracketed = [this](const Tips &tips) {
        QCOMPARE(m_screen->text("tip_en"), bracketed(tips.english));
        QCOMPARE(m_screen->text("tip_cn"), bracketed(tips.chinese));
    };
    m_bridge->onCall = [&](const QString &call) {
        if (call == exeCall("mkdir -p /root/ota"))
            compareTipsBracketed(kNoPackage);
    };
    load();
    QCOMPARE(m_screen->window()->title(), bracketed("Update Assistant"));
    QCOMPARE(m_screen->text("title"), bracketed("Update Assistant(升级助手V2.3.3)"));
    QCOMPARE(m_screen->text("kernelInfo"), bracketed("Kernel Data:") + m_bridge->kernelData);
    QCOMPARE(m_screen->text("tip"), bracketed("Upgrade information(升级信息):"));
    QCOMPARE(m_screen->text("label"), bracketed("Progress(进度):"));
    QCOMPARE(m_screen->text("udisk"), bracketed("U Disk Update(U盘升级)"));
    QCOMPARE(m_screen->text("successTip"), bracketed(kSuccessTip));

    m_screen->clickButton();
    compareTipsBracketed(kBoardFailed);

    m_bridge->updateResult = 0;
    m_bridge->setLists(kBoardImages, {{}});
    m_bridge->setLists(kStaged, {stagedPackages(2)});
    m_screen->clickButton();
    compareTipsBracketed(kStarted);
    QVERIFY(awaitInstall(stagedPackages(1).first(), 0));
    emit m_bridge->threadExeFinish(1, 0);
    compareTipsBracketed(kPackageFailed);
    installPackages(0, 1);
    compareTipsBracketed(kSuccess);
}

QTEST_MAIN(TestMainLook)
#include "tst_main_look.moc"
