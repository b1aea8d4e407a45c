#include "child.h"
#include "launch.h"

#include <QGuiApplication>
#include <QtTest>

#include <sys/wait.h>

class TestBrokenScreen : public QObject {
    Q_OBJECT

private slots:
    void screenThatDoesNotLoadIsMinusOne();
    void statusScreenThatDoesNotLoadIsNoFailure();
};

void TestBrokenScreen::screenThatDoesNotLoadIsMinusOne()
{
    // A child, since it takes the compiled-in screens away; the event loop would never return.
    const ChildResult child = runInChild([] {
        Q_CLEANUP_RESOURCE(qml);
        qInstallMessageHandler(nullptr); // the program's, not the test library's
        char name[] = "update-assistant";
        char *arguments[] = {name, nullptr};
        int count = 1;
        return runUpdateAssistant(count, arguments);
    });
    QVERIFY2(WIFEXITED(child.status), child.err.constData());
    QCOMPARE(WEXITSTATUS(child.status), 255);
    QVERIFY2(child.err.contains("qrc:/main.qml"), child.err.constData());
}

void TestBrokenScreen::statusScreenThatDoesNotLoadIsNoFailure()
{
    const ChildResult child = runInChild([] {
        Q_CLEANUP_RESOURCE(qml);
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

QTEST_APPLESS_MAIN(TestBrokenScreen)
#include "tst_brokenscreen.moc"
