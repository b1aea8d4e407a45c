#include "child.h"
#include "compiledscreens.h"
#include "launch.h"

#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickView>
#include <QTimer>
#include <QtTest>

#include <cstdint>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Makes the compiled form of a screen one of another Qt, so that the engine reads the source.
void refuse(const unsigned char *compiled)
{
    constexpr int kVersionOffset = 8;
    unsigned char *const version = const_cast<unsigned char *>(compiled) + kVersionOffset;
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    unsigned char *const start = version - reinterpret_cast<std::uintptr_t>(version) % page;
    if (mprotect(start, page, PROT_READ | PROT_WRITE) < 0)
        qFatal("the compiled screen stays as it is");
    *version ^= 0xFFU;
}

} // namespace

/// Takes the screens of the program away. The broken ones of this test then show.
static void removeScreens()
{
    Q_CLEANUP_RESOURCE(qml);
    refuse(QmlCacheGeneratedCode::_0x5f__main_qml::qmlData);
    refuse(QmlCacheGeneratedCode::_0x5f__show_qml::qmlData);
}

// Each run is a child, since it changes what is compiled in.
class TestBrokenScreen : public QObject {
    Q_OBJECT

private slots:
    void screenThatDoesNotLoadIsMinusOne_data();
    void screenThatDoesNotLoadIsMinusOne();
    void statusScreenThatDoesNotLoadIsNoFailure();
    void statusScreenWithoutInfoTipStaysAsItIs();
};

void TestBrokenScreen::screenThatDoesNotLoadIsMinusOne_data()
{
    QTest::addColumn<bool>("exists");
    QTest::newRow("missing") << false;
    QTest::newRow("cut short") << true;
}

void TestBrokenScreen::screenThatDoesNotLoadIsMinusOne()
{
    QFETCH(bool, exists);

    // The event loop would never return.
    const ChildResult child = runInChild([&] {
        removeScreens();
        if (!exists)
            Q_CLEANUP_RESOURCE(brokenscreens);
        qInstallMessageHandler(nullptr); // the program's, not the test library's
        char name[] = "update-assistant";
        char *arguments[] = {name, nullptr};
        int count = 1;
        return runUpdateAssistant(count, arguments);
    });
    QVERIFY2(WIFEXITED(child.status), child.err.constData());
    QCOMPARE(WEXITSTATUS(child.status), 255);
    QVERIFY2(child.err.contains(exists ? "qrc:/main.qml:6" : "qrc:/main.qml: No such file"),
             child.err.constData());
}

void TestBrokenScreen::statusScreenThatDoesNotLoadIsNoFailure()
{
    const ChildResult child = runInChild([] {
        removeScreens();
        Q_CLEANUP_RESOURCE(brokenscreens);
        qInstallMessageHandler(nullptr);
        char name[] = "update-assistant";
        char *arguments[] = {name, nullptr};
        int count = 1;
        const QGuiApplication app(count, arguments);
        return showTip(arguments);
    });
    VERIFY_CHILD_PASSED(child);
    QVERIFY2(child.err.contains("qrc:/show.qml"), child.err.constData());
}

void TestBrokenScreen::statusScreenWithoutInfoTipStaysAsItIs()
{
    const ChildResult child = runInChild([] {
        removeScreens();
        qInstallMessageHandler(nullptr);
        qAddPreRoutine([] {
            QTimer::singleShot(0, [] { // in the event loop, with the screen shown
                auto *const view =
                    qobject_cast<QQuickView *>(QGuiApplication::topLevelWindows().value(0));
                std::puts(qPrintable(view->rootObject()->property("text").toString()));
                view->close();
            });
        });
        char name[] = "update-assistant";
        char mode[] = "2";
        char *arguments[] = {name, mode, nullptr};
        int count = 2;
        return runStatusScreen(count, arguments);
    });
    VERIFY_CHILD_PASSED(child);
    QCOMPARE(child.out, QByteArray("waiting, no mode\n"));
}

QTEST_APPLESS_MAIN(TestBrokenScreen)
#include "tst_brokenscreen.moc"
