#include "capture.h"
#include "fileio.h"

#include <QtTest>

#include <cstring>
#include <sys/utsname.h>

namespace {

const char *gKernelVersion = nullptr;

} // namespace

// Stands before the C library's: the test decides what the kernel says. Null makes it fail.
extern "C" int uname(utsname *name) noexcept
{
    if (!gKernelVersion)
        return -1;
    *name = {};
    std::strncpy(name->version, gKernelVersion, sizeof name->version - 1);
    return 0;
}

class TestKernel : public QObject {
    Q_OBJECT

private slots:
    void buildStampBecomesADate_data();
    void buildStampBecomesADate();
    void failedUnameIsInvalid();
    void everyReadAsksAfresh();
    void monthIsAlwaysNine();
    void timeOfDayIsCutTo39CharactersInAll();
    void stampIsConvertedDirectly_data();
    void stampIsConvertedDirectly();
    void onlyTheReferenceBuildIsNew_data();
    void onlyTheReferenceBuildIsNew();
    void isNewLooksAtTheLastReadOnly();
    void answerHasNoLineFeed();
    void nothingIsEmitted();
};

void TestKernel::buildStampBecomesADate_data()
{
    QTest::addColumn<QByteArray>("version");
    QTest::addColumn<QString>("expected");

    const auto row = [](const char *name, const char *version, const char *expected) {
        QTest::newRow(name) << QByteArray(version) << QString::fromLatin1(expected);
    };
    row("reference", "#1 SMP PREEMPT Thu Sep 16 19:25:17 CST 2021", "2021-09-16 19:25:17");
    row("October", "#1 SMP Thu Oct 14 08:05:09 CST 2021", "2021-09-14 08:05:09");
    row("one-digit day", "#1 SMP Sun Sep  5 01:02:03 CST 2021", "2021-09-05 01:02:03");
    row("year before 1000", "#1 Sun Sep 5 01:02:03 CST 921", "0921-09-05 01:02:03");
    row("stamp first", "Mon Sep 6 01:02:03 CST 2021", "2021-09-06 01:02:03");
    row("Sun before Mon", "#1 Mon Sun Sep 5 01:02:03 CST 2021", "2021-09-05 01:02:03");
    row("Sun behind Mon's stamp", "Mon Sep 6 01:02:03 CST 2021 Sun Oct 7 04:05:06 UTC 2022",
        "2022-09-07 04:05:06");
    row("first Sun", "Sun Sep 5 1:2:3 CST 2021 Sun Sep 6 4:5:6 CST 2022", "2021-09-05 1:2:3");
    row("inside a word", "#1 SMP xFri Sep 10 01:02:03 CST 2021", "2021-09-10 01:02:03");
    row("long weekday", "#1 Wednesday September 15 01:02:03 CEST 2021", "2021-09-15 01:02:03");
    row("no year", "#1 Thu Sep 16 19:25:17 CST", "0000-09-16 19:25:17");
    row("no number for the year", "#1 Thu Sep 16 19:25:17 CST x2021", "0000-09-16 19:25:17");
    row("no number for the day", "#1 Thu Sep x16 19:25:17 CST 2021", "0000-09-00 ");
    row("day with a word on", "#1 Thu Sep 16th 19:25:17 CST 2021", "0000-09-16 th");
    row("weekday only", "#1 Thu", "0000-09-00 ");
    row("no weekday", "#1 SMP PREEMPT_DYNAMIC Debian 6.1.0-1 (2023-01-07)", "Invalid");
    row("wrong case", "#1 THU Sep 16 19:25:17 CST 2021", "Invalid");
    row("empty", "", "Invalid");
    for (const char *weekday : {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"})
        row(weekday,
            QByteArray("#9 SMP " + QByteArray(weekday) + " Sep 16 19:25:17 CST 2021").constData(),
            "2021-09-16 19:25:17");
}

void TestKernel::buildStampBecomesADate()
{
    QFETCH(QByteArray, version);
    QFETCH(QString, expected);

    gKernelVersion = version.constData();
    FileIO fileIO;
    QCOMPARE(fileIO.readKernelData(), expected);
    QCOMPARE(fileIO.property("kernelData").toString(), expected);
}

void TestKernel::failedUnameIsInvalid()
{
    FileIO fileIO;
    gKernelVersion = "#1 Thu Sep 16 19:25:17 CST 2021";
    fileIO.readKernelData();
    gKernelVersion = nullptr;
    QCOMPARE(fileIO.readKernelData(), QStringLiteral("Invalid"));
}

void TestKernel::everyReadAsksAfresh()
{
    FileIO fileIO;
    gKernelVersion = "#1 Thu Sep 16 19:25:17 CST 2021";
    QCOMPARE(fileIO.property("kernelData").toString(), QStringLiteral("2021-09-16 19:25:17"));
    gKernelVersion = "#1 Fri Sep 17 20:26:18 CST 2021";
    QCOMPARE(fileIO.property("kernelData").toString(), QStringLiteral("2021-09-17 20:26:18"));
    gKernelVersion = "#1";
    QCOMPARE(fileIO.property("kernelData").toString(), QStringLiteral("Invalid"));
}

void TestKernel::monthIsAlwaysNine()
{
    FileIO fileIO;
    for (const char *month : {"Jan", "Feb", "Dec", "09", "?"}) {
        const QByteArray version = "#1 Thu " + QByteArray(month) + " 14 08:05:09 CST 2021";
        gKernelVersion = version.constData();
        QCOMPARE(fileIO.readKernelData(), QStringLiteral("2021-09-14 08:05:09"));
    }
}

void TestKernel::timeOfDayIsCutTo39CharactersInAll()
{
    const QString expected = QStringLiteral("2021-09-16 ") + QString(28, QLatin1Char('7'));
    QCOMPARE(expected.size(), 39);
    const QByteArray version = "#1 Thu Sep 16 " + QByteArray(40, '7') + " C 2021";
    QVERIFY(version.size() <= 64);
    gKernelVersion = version.constData();
    FileIO fileIO;
    QCOMPARE(fileIO.readKernelData(), expected);
}

void TestKernel::stampIsConvertedDirectly_data()
{
    QTest::addColumn<QByteArray>("stamp");
    QTest::addColumn<bool>("isReference");

    const auto row = [](const char *name, const QByteArray &stamp, bool isReference) {
        QTest::newRow(name) << stamp << isReference;
    };
    row("reference", "Thu Sep 16 19:25:17 CST 2021", true);
    row("line feeds and tabs", "Thu\tSep\n16 \t19:25:17\r\nCST 2021", true);
    row("more behind it", "Thu Sep 16 19:25:17 CST 2021 and more", true);
    row("four-letter time zone", "Thu Sep 16 19:25:17 CEST 2021", true);
    row("long tokens",
        QByteArray(500, 'T') + ' ' + QByteArray(500, 'S') + " 16 19:25:17 " + QByteArray(500, 'C')
            + " 2021",
        true);
    row("time too long", "Thu Sep 16 19:25:17" + QByteArray(500, '7') + " CST 2021", false);
    row("day out of range", "Thu Sep 99999999999999999999 19:25:17 CST 2021", false);
    row("weekday only", "Thu", false);
    row("empty", "", false);
}

void TestKernel::stampIsConvertedDirectly()
{
    QFETCH(QByteArray, stamp);
    QFETCH(bool, isReference);

    FileIO fileIO;
    fileIO.ConvKernelCompileDate(stamp.data());
    DescriptorCapture out(1);
    const bool isNew = fileIO.isNewKernel();
    out.take();
    QCOMPARE(isNew, isReference);
}

void TestKernel::onlyTheReferenceBuildIsNew_data()
{
    QTest::addColumn<QByteArray>("version");
    QTest::addColumn<bool>("isNew");

    QTest::newRow("reference") << QByteArray("#1 Thu Sep 16 19:25:17 CST 2021") << true;
    QTest::newRow("any month") << QByteArray("#1 Thu Oct 16 19:25:17 CST 2021") << true;
    QTest::newRow("a second later") << QByteArray("#1 Thu Sep 16 19:25:18 CST 2021") << false;
    QTest::newRow("a second earlier") << QByteArray("#1 Thu Sep 16 19:25:16 CST 2021") << false;
    QTest::newRow("a year later") << QByteArray("#1 Thu Sep 16 19:25:17 CST 2022") << false;
    QTest::newRow("no stamp") << QByteArray("#1") << false;
}

void TestKernel::onlyTheReferenceBuildIsNew()
{
    QFETCH(QByteArray, version);
    QFETCH(bool, isNew);

    gKernelVersion = version.constData();
    FileIO fileIO;
    fileIO.readKernelData();
    DescriptorCapture out(1);
    const bool answer = fileIO.isNewKernel();
    const QByteArray printed = out.take();
    QCOMPARE(answer, isNew);
    QCOMPARE(printed, QByteArray("[info]: isNewKernel -> ") + (isNew ? "Yes" : "No"));
}

void TestKernel::isNewLooksAtTheLastReadOnly()
{
    gKernelVersion = "#1 Thu Sep 16 19:25:17 CST 2021";
    FileIO fileIO;
    DescriptorCapture out(1);
    const bool before = fileIO.property("isNewKernel").toBool();
    fileIO.readKernelData();
    const bool after = fileIO.property("isNewKernel").toBool();
    gKernelVersion = "#1";
    const bool later = fileIO.property("isNewKernel").toBool();
    out.take();
    QCOMPARE(before, false);
    QCOMPARE(after, true);
    QCOMPARE(later, true);
}

void TestKernel::answerHasNoLineFeed()
{
    FileIO fileIO;
    DescriptorCapture out(1);
    fileIO.isNewKernel();
    fileIO.isNewKernel();
    QCOMPARE(out.take(), QByteArray("[info]: isNewKernel -> No[info]: isNewKernel -> No"));
}

void TestKernel::nothingIsEmitted()
{
    gKernelVersion = "#1 Thu Sep 16 19:25:17 CST 2021";
    FileIO fileIO;
    QSignalSpy dataChanged(&fileIO, &FileIO::kernelDataChanged);
    QSignalSpy isNewChanged(&fileIO, &FileIO::isNewKernelChanged);
    DescriptorCapture out(1);
    fileIO.readKernelData();
    fileIO.isNewKernel();
    out.take();
    QVERIFY(dataChanged.isEmpty());
    QVERIFY(isNewChanged.isEmpty());
}

QTEST_APPLESS_MAIN(TestKernel)
#include "tst_kernel.moc"
