#include "viewtest.h"

#include <QColor>
#include <QFont>
#include <QSignalSpy>

namespace {

const QPoint kInside(30, 15);
const QPoint kOutside(150, 150);

} // namespace

/// The button alone, in the corner of a window that is larger than it.
class TestTqButton : public ViewTest {
    Q_OBJECT

public slots:
    void disableButton() { button()->setProperty("enabled", false); }

private slots:
    void init();

    void defaults();
    void labelIsWhiteAndCentered();
    void textIsTheLabels();
    void disabledButtonStaysAnEnabledItem();
    void disabledButtonIsHalfTransparent();
    void clickEmitsOnce();
    void disabledButtonIgnoresTheMouse();
    void releaseOutsideIsNoClick();
    void pressedButtonIsOrange();
    void hoverDoesNothing();
    void stateTogglesAtEachChange();
    void buttonDisabledByItsClickLooksReleased();

private:
    QQuickItem *button() const { return root(); }
    QQuickItem *label() const { return button()->childItems().at(0); }
    QColor color() const { return button()->property("color").value<QColor>(); }
    void press(const QPoint &place) const
    {
        QTest::mousePress(m_view.get(), Qt::LeftButton, Qt::NoModifier, place);
    }
    void move(const QPoint &place) const { QTest::mouseMove(m_view.get(), place); }
    void release(const QPoint &place) const
    {
        QTest::mouseRelease(m_view.get(), Qt::LeftButton, Qt::NoModifier, place);
    }
};

void TestTqButton::init()
{
    load("qrc:/TqButton.qml");
    m_view->resize(200, 200);
    show();
}

void TestTqButton::defaults()
{
    QCOMPARE(button()->size(), QSizeF(60, 30));
    QCOMPARE(button()->property("radius").toDouble(), 5.0);
    QCOMPARE(color(), QColor(QStringLiteral("#333333")));
    QCOMPARE(button()->opacity(), 1.0);
    QCOMPARE(button()->property("enabled"), QVariant(true));
    QCOMPARE(button()->property("text"), QVariant(QStringLiteral("Button")));
    QCOMPARE(button()->state(), QString());
}

void TestTqButton::labelIsWhiteAndCentered()
{
    QCOMPARE(label()->property("color").value<QColor>(), QColor(Qt::white));
    QCOMPARE(label()->property("font").value<QFont>().pixelSize(), 20);
    button()->setSize(QSizeF(280, 50));
    const QPointF offset =
        label()->position() + QPointF(label()->width(), label()->height()) / 2 - QPointF(140, 25);
    QVERIFY(qAbs(offset.x()) <= 0.5 && qAbs(offset.y()) <= 0.5);
}

void TestTqButton::textIsTheLabels()
{
    button()->setProperty("text", QStringLiteral("U盘"));
    QCOMPARE(label()->property("text"), QVariant(QStringLiteral("U盘")));
    label()->setProperty("text", QStringLiteral("back"));
    QCOMPARE(button()->property("text"), QVariant(QStringLiteral("back")));
}

void TestTqButton::disabledButtonStaysAnEnabledItem()
{
    button()->setProperty("enabled", false);
    QCOMPARE(button()->property("enabled"), QVariant(false));
    QVERIFY(button()->isEnabled());
    QVERIFY(label()->isEnabled());
}

void TestTqButton::disabledButtonIsHalfTransparent()
{
    button()->setProperty("enabled", false);
    QCOMPARE(button()->opacity(), 0.5);
    button()->setProperty("enabled", true);
    QCOMPARE(button()->opacity(), 1.0);
}

void TestTqButton::clickEmitsOnce()
{
    QSignalSpy clicks(button(), SIGNAL(clicked()));
    press(kInside);
    QCOMPARE(clicks.count(), 0);
    release(kInside);
    QCOMPARE(clicks.count(), 1);
}

void TestTqButton::disabledButtonIgnoresTheMouse()
{
    QSignalSpy clicks(button(), SIGNAL(clicked()));
    button()->setProperty("enabled", false);
    press(kInside);
    QCOMPARE(button()->state(), QString());
    release(kInside);
    QCOMPARE(clicks.count(), 0);

    button()->setProperty("enabled", true);
    QTest::mouseClick(m_view.get(), Qt::LeftButton, Qt::NoModifier, kInside);
    QCOMPARE(clicks.count(), 1);
}

void TestTqButton::releaseOutsideIsNoClick()
{
    QSignalSpy clicks(button(), SIGNAL(clicked()));
    press(kInside);
    QCOMPARE(button()->state(), QStringLiteral("clicked"));
    move(kOutside);
    QCOMPARE(button()->state(), QString());
    release(kOutside);
    QCOMPARE(clicks.count(), 0);
    QCOMPARE(button()->state(), QString());
}

void TestTqButton::pressedButtonIsOrange()
{
    press(kInside);
    QCOMPARE(button()->state(), QStringLiteral("clicked"));
    QCOMPARE(color(), QColor(QStringLiteral("#db8420")));
    release(kInside);
    QCOMPARE(button()->state(), QString());
    QCOMPARE(color(), QColor(QStringLiteral("#333333")));
}

void TestTqButton::hoverDoesNothing()
{
    move(kOutside);
    move(kInside);
    QCOMPARE(button()->state(), QString());
    QCOMPARE(color(), QColor(QStringLiteral("#333333")));
}

void TestTqButton::stateTogglesAtEachChange()
{
    // Once out of step, it stays so: pressed looks released and the other way round.
    button()->setState(QStringLiteral("clicked"));
    press(kInside);
    QCOMPARE(button()->state(), QString());
    release(kInside);
    QCOMPARE(button()->state(), QStringLiteral("clicked"));
    QCOMPARE(color(), QColor(QStringLiteral("#db8420")));
}

void TestTqButton::buttonDisabledByItsClickLooksReleased()
{
    connect(button(), SIGNAL(clicked()), this, SLOT(disableButton()));
    press(kInside);
    release(kInside);
    QCOMPARE(button()->property("enabled"), QVariant(false));
    QCOMPARE(button()->state(), QString());
    QCOMPARE(color(), QColor(QStringLiteral("#333333")));
}

QTEST_MAIN(TestTqButton)
#include "tst_tqbutton.moc"
