#include "brackettranslator.h"
#include "viewtest.h"

#include <QColor>
#include <QFont>
#include <QImage>
#include <QScreen>

namespace {

constexpr char kWaitingChinese[] = "升级中，请稍后";
constexpr char kWaitingEnglish[] = "updating please waiting....";
constexpr char kSuccessChinese[] = "升级成功，请关闭电源开关重启机器";
constexpr char kSuccessEnglish[] = "update successed. please restart machine by power off.";

} // namespace

/// The status screen, in a view as the program opens it.
class TestShow : public ViewTest {
    Q_OBJECT

private slots:
    void init();

    void waitsByDefault();
    void geometry();
    void onlyTwoIsSuccess_data();
    void onlyTwoIsSuccess();
    void successStays();
    void successIsGreenFromTheFirstFrame();
    void bothTextsCanBeTranslated();

private:
    QObject *infoTip() const { return root()->findChild<QObject *>(QStringLiteral("infoTip")); }
    QQuickItem *chinese() const { return qobject_cast<QQuickItem *>(infoTip()); }
    QQuickItem *english() const { return root()->childItems().at(2); }
    void compareTexts(const char *chineseText, const char *englishText, const QColor &color) const;
};

void TestShow::init()
{
    load("qrc:/show.qml");
    QVERIFY(root() && infoTip());
}

void TestShow::compareTexts(const char *chineseText, const char *englishText,
                            const QColor &color) const
{
    QCOMPARE(chinese()->property("text").toString(), QString::fromUtf8(chineseText));
    QCOMPARE(english()->property("text").toString(), QString::fromUtf8(englishText));
    QCOMPARE(chinese()->property("color").value<QColor>(), color);
    QCOMPARE(english()->property("color").value<QColor>(), color);
}

void TestShow::waitsByDefault()
{
    QCOMPARE(infoTip()->property("mode"), QVariant(QStringLiteral("0")));
    compareTexts(kWaitingChinese, kWaitingEnglish, Qt::white);
    QCOMPARE(chinese()->property("font").value<QFont>().pixelSize(), 24);
    QCOMPARE(english()->property("font").value<QFont>().pixelSize(), 24);
}

void TestShow::geometry()
{
    show();
    QCOMPARE(m_view->size(), QSize(1280, 800));
    QCOMPARE(root()->size(), QSizeF(1280, 800));
    QVERIFY(root()->isVisible());

    const QQuickItem *background = root()->childItems().at(0);
    QCOMPARE(QRectF(background->position(), background->size()), QRectF(0, 0, 1280, 800));
    QCOMPARE(background->property("color").value<QColor>(), QColor(Qt::black));

    const QRectF chinesePlace(chinese()->position(), chinese()->size());
    const QRectF englishPlace(english()->position(), english()->size());
    QVERIFY(qAbs(chinesePlace.center().x() - 640) <= 0.5);
    QVERIFY(qAbs(chinesePlace.center().y() - 400) <= 0.5);
    QVERIFY(qAbs(englishPlace.center().x() - 640) <= 0.5);
    QCOMPARE(englishPlace.top(), chinesePlace.bottom() + 24);
}

void TestShow::onlyTwoIsSuccess_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<bool>("success");
    const auto row = [](const char *mode, bool success) {
        QTest::newRow(qPrintable(QStringLiteral("'%1'").arg(QString::fromLatin1(mode))))
            << QString::fromLatin1(mode) << success;
    };
    row("2", true);
    row("", false);
    row(" 2", false);
    row("2 ", false);
    row("02", false);
    row("2.0", false);
    row("0000", false);
    row("3", false);
}

void TestShow::onlyTwoIsSuccess()
{
    QFETCH(QString, mode);
    QFETCH(bool, success);
    infoTip()->setProperty("mode", QVariant(mode));
    QCOMPARE(infoTip()->property("mode").toString(), mode);
    if (success)
        compareTexts(kSuccessChinese, kSuccessEnglish, QColor(QStringLiteral("green")));
    else
        compareTexts(kWaitingChinese, kWaitingEnglish, Qt::white);
}

void TestShow::successStays()
{
    infoTip()->setProperty("mode", QStringLiteral("0000"));
    infoTip()->setProperty("mode", QStringLiteral("2"));
    infoTip()->setProperty("mode", QStringLiteral("0"));
    compareTexts(kSuccessChinese, kSuccessEnglish, QColor(QStringLiteral("green")));
}

void TestShow::successIsGreenFromTheFirstFrame()
{
    infoTip()->setProperty("mode", QStringLiteral("2"));
    QImage frame;
    connect(m_view.get(), &QQuickWindow::frameSwapped, this, [&] {
        if (frame.isNull())
            frame = m_view->screen()->grabWindow(m_view->winId()).toImage();
    });
    show();
    QTRY_VERIFY(!frame.isNull());
    QCOMPARE(frame.size(), QSize(1280, 800));
    // Green on black, smoothed: no other colour takes part.
    bool green = false;
    bool otherColor = false;
    for (int y = 0; y < frame.height(); ++y) {
        for (int x = 0; x < frame.width(); ++x) {
            const QRgb pixel = frame.pixel(x, y);
            green = green || qGreen(pixel) > 100;
            otherColor = otherColor || qRed(pixel) > 0 || qBlue(pixel) > 0;
        }
    }
    QVERIFY(!otherColor);
    QVERIFY(green);
}

void TestShow::bothTextsCanBeTranslated()
{
    const auto bracketed = [](const char *text) { return QByteArray("<") + text + ">"; };
    BracketTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    m_view->setSource(QUrl());
    m_view->setSource(QUrl(QStringLiteral("qrc:/show.qml")));
    compareTexts(bracketed(kWaitingChinese), bracketed(kWaitingEnglish), Qt::white);
    infoTip()->setProperty("mode", QStringLiteral("2"));
    compareTexts(bracketed(kSuccessChinese), bracketed(kSuccessEnglish),
                 QColor(QStringLiteral("green")));
}

QTEST_MAIN(TestShow)
#include "tst_show.moc"
