#include "capture.h"
#include "log.h"

#include <QtTest>

#include <cstring>
#include <sys/stat.h>

namespace {

unsigned gLastLevel;
const char *gLastFormat;
QByteArray gLastMessage;
int gHookCalls;

LOG_PRINTF(2, 0) void recordingHook(unsigned level, const char *format, va_list args)
{
    ++gHookCalls;
    gLastLevel = level;
    gLastFormat = format;
    char text[200];
    std::vsnprintf(text, sizeof text, format, args);
    gLastMessage = text;
}

// The va_list fronts need a variadic caller.
enum class Front { Default, Plain, Level, Error };

LOG_PRINTF(3, 4) void callFront(Front front, unsigned level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    switch (front) {
    case Front::Default:
        DefaultLogFunc(level, format, args);
        break;
    case Front::Plain:
        vLog(format, args);
        break;
    case Front::Level:
        vLogFunc(level, format, args);
        break;
    case Front::Error:
        vLogError(format, args);
        break;
    }
    va_end(args);
}

void logThroughEveryFront()
{
    Log("plain %d\n", 1);
    LogError("error %s\n", "two");
    LogFunc(7, "level %c\n", '3');
    LogAssertFailed("n > 0", "port", 12, "Open");
    callFront(Front::Plain, 0, "plain %d\n", 4);
    callFront(Front::Error, 0, "error %d\n", 5);
    callFront(Front::Level, 2, "level %d\n", 6);
}

} // namespace

class TestLog : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void startsWithTheDefaultHookOnStandardError();
    void prefixFollowsTheLevel_data();
    void prefixFollowsTheLevel();
    void everyFrontGoesThroughTheHook();
    void formatIsPassedUnchanged();
    void nullHookDiscardsEverything();
    void quietDropsPlainMessagesOnly();
    void quietIsTheDefaultHooksAlone();
    void streamCanBeReplacedAndRestored();
    void everyMessageIsFlushed();
    void assertionIsReportedWithItsPlace();
    void noLineFeedIsAdded();
};

void TestLog::init()
{
    gHookCalls = 0;
}

void TestLog::cleanup()
{
    gQuiet = 0;
    LogInit(nullptr);
    SetLogFunc(DefaultLogFunc);
}

void TestLog::startsWithTheDefaultHookOnStandardError()
{
    QVERIFY(gLogFunc == DefaultLogFunc);
    QVERIFY(!gLogFs);
    QCOMPARE(gQuiet, 0);

    DescriptorCapture out(1);
    DescriptorCapture err(2);
    Log("%s %d\n", "text", 42);
    const QByteArray written = err.take();
    QCOMPARE(out.take(), QByteArray());
    QCOMPARE(written, QByteArray("text 42\n"));
}

void TestLog::prefixFollowsTheLevel_data()
{
    QTest::addColumn<unsigned>("level");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("plain") << 0U << QByteArray("message 5\n");
    QTest::newRow("error") << 1U << QByteArray("ERROR: message 5\n");
    QTest::newRow("assertion") << 2U << QByteArray("ASSERT: message 5\n");
    QTest::newRow("unknown") << 3U << QByteArray("message 5\n");
    QTest::newRow("largest") << ~0U << QByteArray("message 5\n");
}

void TestLog::prefixFollowsTheLevel()
{
    QFETCH(unsigned, level);
    QFETCH(QByteArray, expected);

    DescriptorCapture err(2);
    callFront(Front::Default, level, "message %d\n", 5);
    QCOMPARE(err.take(), expected);
}

void TestLog::everyFrontGoesThroughTheHook()
{
    SetLogFunc(recordingHook);
    QVERIFY(gLogFunc == recordingHook);
    DescriptorCapture err(2);

    const auto expect = [](unsigned level, const char *message) {
        return gLastLevel == level && gLastMessage == message;
    };
    Log("a %d\n", 1);
    QVERIFY(expect(0, "a 1\n"));
    LogError("b %d\n", 2);
    QVERIFY(expect(1, "b 2\n"));
    LogFunc(9, "c %d\n", 3);
    QVERIFY(expect(9, "c 3\n"));
    callFront(Front::Plain, 5, "d %d\n", 4);
    QVERIFY(expect(0, "d 4\n"));
    callFront(Front::Error, 5, "e %d\n", 5);
    QVERIFY(expect(1, "e 5\n"));
    callFront(Front::Level, 2, "f %d\n", 6);
    QVERIFY(expect(2, "f 6\n"));
    LogAssertFailed("x", "y", 1, "z");
    QVERIFY(expect(2, "y: 1: z Assertion 'x' failed.\n"));

    QCOMPARE(gHookCalls, 7);
    QCOMPARE(err.take(), QByteArray());
}

void TestLog::formatIsPassedUnchanged()
{
    SetLogFunc(recordingHook);
    static const char format[] = "%s%%";
    Log(format, "x");
    QVERIFY(gLastFormat == format);
}

void TestLog::nullHookDiscardsEverything()
{
    SetLogFunc(nullptr);
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    logThroughEveryFront();
    const QByteArray written = err.take();
    QCOMPARE(out.take(), QByteArray());
    QCOMPARE(written, QByteArray());
    QVERIFY(!gLogFunc);
}

void TestLog::quietDropsPlainMessagesOnly()
{
    gQuiet = 1;
    DescriptorCapture err(2);
    logThroughEveryFront();
    QCOMPARE(err.take(),
             QByteArray("ERROR: error two\n"
                        "level 3\n"
                        "ASSERT: port: 12: Open Assertion 'n > 0' failed.\n"
                        "ERROR: error 5\n"
                        "ASSERT: level 6\n"));
}

void TestLog::quietIsTheDefaultHooksAlone()
{
    gQuiet = 1;
    SetLogFunc(recordingHook);
    Log("still passed on\n");
    QCOMPARE(gHookCalls, 1);
}

void TestLog::streamCanBeReplacedAndRestored()
{
    FILE *const stream = std::tmpfile();
    QVERIFY(stream);
    LogInit(stream);
    QVERIFY(gLogFs == stream);
    DescriptorCapture err(2);
    LogError("into the stream\n");
    LogInit(nullptr);
    QVERIFY(!gLogFs);
    LogError("on standard error\n");
    QCOMPARE(err.take(), QByteArray("ERROR: on standard error\n"));

    char text[100] = {};
    std::rewind(stream);
    std::fread(text, 1, sizeof text - 1, stream);
    std::fclose(stream);
    QCOMPARE(QByteArray(text), QByteArray("ERROR: into the stream\n"));
}

void TestLog::everyMessageIsFlushed()
{
    FILE *const stream = std::tmpfile();
    QVERIFY(stream);
    // Standard error is unbuffered; a file keeps what is not flushed in the buffer.
    QCOMPARE(std::setvbuf(stream, nullptr, _IOFBF, 4096), 0);
    LogInit(stream);
    struct stat state = {};
    for (off_t expected = 3; expected <= 9; expected += 3) {
        Log("abc");
        QCOMPARE(fstat(fileno(stream), &state), 0);
        QCOMPARE(state.st_size, expected);
    }
    LogInit(nullptr);
    std::fclose(stream);
}

void TestLog::assertionIsReportedWithItsPlace()
{
    DescriptorCapture err(2);
    LogAssertFailed("n > 0", "port", 12, "Open");
    QCOMPARE(err.take(), QByteArray("ASSERT: port: 12: Open Assertion 'n > 0' failed.\n"));
}

void TestLog::noLineFeedIsAdded()
{
    DescriptorCapture err(2);
    LogError("one, ");
    Log("two");
    QCOMPARE(err.take(), QByteArray("ERROR: one, two"));
}

QTEST_APPLESS_MAIN(TestLog)
#include "tst_log.moc"
