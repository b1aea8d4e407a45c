#include "handmadeframes.h"
#include "linewatch.h"
#include "recording.h"

#include <QtTest>

using namespace boardsim;

namespace {

const QByteArray kHead = "serial line recording 1\nspeed: 115200\nboardtap: 2.3.3\n";

QVector<Record> recordsOf(const QByteArray &text)
{
    QString error;
    const auto recording = parseRecording(text, error);
    if (!recording)
        qWarning("%s", qPrintable(error));
    return recording ? recording->records : QVector<Record>();
}

QByteArray all(const QVector<Record> &records, Record::Kind kind)
{
    QByteArray bytes;
    for (const Record &record : records) {
        if (record.kind == kind)
            bytes += record.bytes;
    }
    return bytes;
}

} // namespace

class TestRecording : public QObject {
    Q_OBJECT

private slots:
    void recordsAreRead();
    void linesMayEndAsOnOtherSystems();
    void watchedLineIsRecorded();
    void pauseInAFrameBeginsARecord();
    void recordsAreInTheOrderOfTheirTimes();
    void hangUpAndReturnAreRecorded();
    void brokenRecordingIsRefused_data();
    void brokenRecordingIsRefused();
    void missingFileIsRefused();
    void anyPiecesGiveTheSame_data();
    void anyPiecesGiveTheSame();
    void recordsThatWereTakenStillCount_data();
    void recordsThatWereTakenStillCount();
};

void TestRecording::recordsAreRead()
{
    const QVector<Record> records =
        recordsOf(kHead
                  + "program: 2.3.3\nboard: V4 # of the left machine\n\n"
                    "# query\n"
                    " 0.002 -> E7 1e   # two bytes\n"
                    "\n"
                    "   ff\n"
                    "12.345 <- 06 43\n"
                    "999999999.999 -- hang-up\n"); // of a line that was watched for years
    QCOMPARE(records.size(), 3);
    QCOMPARE(records.at(0).ms, 2);
    QCOMPARE(records.at(0).line, 8);
    QCOMPARE(records.at(0).bytes, QByteArray("\xe7\x1e\xff"));
    QCOMPARE(records.at(1).ms, 12345);
    QCOMPARE(records.at(1).kind, Record::Kind::FromBoard);
    QCOMPARE(records.at(2).ms, 999999999999);
    QCOMPARE(records.at(2).kind, Record::Kind::HangUp);

    QString error;
    const auto head = parseRecording(kHead + "board: V4 # of mine\n", error);
    QVERIFY2(head, qPrintable(error));
    QCOMPARE(head->board, QStringLiteral("V4"));
}

void TestRecording::linesMayEndAsOnOtherSystems()
{
    QByteArray text = kHead + "0.001 -> 41\n";
    text.replace("\n", "\r\n");
    QCOMPARE(recordsOf(text).size(), 1);
    text.chop(2);
    QCOMPARE(recordsOf(text).size(), 1);
}

/// Feeds a watch with a recorder; the text of the recording.
class TestLine {
public:
    TestLine()
        : start(Clock::now())
        , watch(report, {}, HexStyle::Full, start)
    {
        watch.record([this](const QByteArray &lines) { text += lines; });
    }

    void pass(int ms, bool toBoard, const QByteArray &bytes)
    {
        watch.bytesPassed(start + Milliseconds(ms), toBoard, bytes);
    }

    QVector<Record> end(int ms)
    {
        watch.end(start + Milliseconds(ms), QString());
        return recordsOf(kHead + text);
    }

    QByteArray text;
    Report report;
    TimePoint start;
    LineWatch watch;
};

void TestRecording::watchedLineIsRecorded()
{
    const QByteArray block = dataBlock(1, firmwareOfSize(1024));
    TestLine line;
    line.pass(5, false, "C");
    line.pass(1000, true, startFrame("a", "400"));
    line.pass(1002, false, "\x06");
    line.pass(1003, true, block.left(500));
    line.pass(1004, true, block.mid(500));
    const QVector<Record> records = line.end(3000);
    QCOMPARE(records.size(), 4);
    QCOMPARE(records.at(3).bytes, block);
    QCOMPARE(records.at(3).ms, 1004);
    QVERIFY(line.text.contains("# block 1 of 2, 1024 bytes of data\n    1.004 -> 02 01 fe "));
    QVERIFY(line.text.contains("# 'C', asks for the start frame\n    0.005 <- 43\n"));
}

void TestRecording::pauseInAFrameBeginsARecord()
{
    TestLine line;
    line.pass(0, true, goodVersionQuery().left(10));
    line.pass(100, true, goodVersionQuery().mid(10));
    const QVector<Record> records = line.end(3000);
    QCOMPARE(records.size(), 2);
    QCOMPARE(records.at(0).bytes.size(), 10);
    QCOMPARE(records.at(1).ms, 100);
}

void TestRecording::recordsAreInTheOrderOfTheirTimes()
{
    TestLine line;
    line.pass(0, true, goodVersionQuery().left(10));
    line.pass(100, false, "text\n");
    line.pass(200, true, goodVersionQuery().mid(10));
    const QVector<Record> records = line.end(3000);
    QCOMPARE(records.size(), 3);
    QCOMPARE(records.at(1).kind, Record::Kind::FromBoard);
    QCOMPARE(all(records, Record::Kind::ToBoard), goodVersionQuery());
}

void TestRecording::hangUpAndReturnAreRecorded()
{
    TestLine line;
    line.pass(0, true, goodVersionQuery().left(10));
    line.watch.deviceGone(line.start + Milliseconds(10));
    line.watch.deviceReturned(line.start + Milliseconds(500));
    line.pass(600, false, "\x06");
    const QVector<Record> records = line.end(3000);
    QCOMPARE(records.size(), 4);
    QCOMPARE(records.at(0).bytes, goodVersionQuery().left(10));
    QCOMPARE(records.at(1).kind, Record::Kind::HangUp);
    QCOMPARE(records.at(2).kind, Record::Kind::Return);
}

void TestRecording::brokenRecordingIsRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("error");
    const auto row = [](const char *name, const QByteArray &text, const char *error) {
        QTest::newRow(name) << text << QString::fromLatin1(error);
    };
    row("empty", "",
        "line 1: no recording: it begins with \"\", not with \"serial line recording 1\"");
    row("other file", "\x7f\x45LF\n",
        "line 1: no recording: it begins with \"?ELF\", not with \"serial line recording 1\"");
    row("later version", "serial line recording 2\n",
        "line 1: version \"2\" of the format is not known, only 1");
    row("no speed", "serial line recording 1\nboardtap: 1\n0.001 -> 41\n",
        "line 3: the head does not say \"speed:\"");
    row("no version", "serial line recording 1\nspeed: 9600\n",
        "line 2: the head does not say \"boardtap:\"");
    row("unknown name", kHead + "colour: red\n", "line 4: the head has no \"colour\"");
    row("name twice", kHead + "speed: 9600\n", "line 4: \"speed\" stands twice");
    row("no value", kHead + "board: # nothing\n", "line 4: \"board\" has no value");
    row("bad speed", "serial line recording 1\nspeed: fast\n",
        "line 2: the speed is a number from 1 to 10000000, not \"fast\"");
    row("huge speed", "serial line recording 1\nspeed: 99999999999999999999\n",
        "line 2: the speed is a number from 1 to 10000000, not \"99999999999999999999\"");
    row("head late", kHead + "0.001 -> 41\nboard: V4\n",
        "line 5: \"board\" stands after the first record");
    row("bad time", kHead + "1 -> 41\n", "line 4: \"1\" is no time like 1.234");
    row("negative time", kHead + "-1.000 -> 41\n", "line 4: \"-1.000\" is no time like 1.234");
    row("late time", kHead + "1000000000.000 -> 41\n",
        "line 4: \"1000000000.000\" is no time like 1.234");
    row("time goes back", kHead + "1.000 -> 41\n0.999 <- 41\n",
        "line 5: \"0.999\" is earlier than the record before it");
    row("no bytes", kHead + "1.000 ->\n",
        "line 4: a direction and bytes are missing after the time");
    row("bad direction", kHead + "1.000 => 41\n", "line 4: \"=>\" is neither ->, <- nor --");
    row("bad byte", kHead + "1.000 -> 41 4g\n",
        "line 4: \"4g\" is no byte in two hexadecimal digits");
    row("bytes run together", kHead + "1.000 -> 4142\n",
        "line 4: \"4142\" is no byte in two hexadecimal digits");
    row("bytes first", kHead + " 41 42\n", "line 4: bytes without a time and a direction");
    row("unknown event", kHead + "1.000 -- explosion\n",
        "line 4: \"explosion\" is neither hang-up nor return");
    row("return first", kHead + "1.000 -- return\n", "line 4: return of a device that is there");
    row("hung up twice", kHead + "1.000 -- hang-up\n2.000 -- hang-up\n",
        "line 5: hang-up of a device that is away");
    row("bytes while away", kHead + "1.000 -- hang-up\n2.000 <- 41\n",
        "line 5: bytes while the device is away");
    row("bytes after an event", kHead + "1.000 -- hang-up\n41\n",
        "line 5: bytes without a direction");
    row("long line", kHead + "1.000 -> " + QByteArray(3000, '4') + '\n',
        "line 4: more than 1000 characters");
    row("long record",
        kHead + "1.000 -> 41\n" + QByteArray("41 41 41 41 41 41 41 41\n").repeated(8192),
        "line 8196: a record of more than 65536 bytes");
    row("zero byte", kHead + QByteArray("1.000 -> 4\0\n", 12),
        "line 4: \"4?\" is no byte in two hexadecimal digits");
}

void TestRecording::brokenRecordingIsRefused()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, error);
    QString found;
    QVERIFY(!parseRecording(text, found));
    QCOMPARE(found, error);
}

void TestRecording::missingFileIsRefused()
{
    QString error;
    QVERIFY(!readRecording(QStringLiteral("/missing/file"), error));
    QCOMPARE(error, QStringLiteral("cannot read /missing/file: No such file or directory"));
}

void TestRecording::anyPiecesGiveTheSame_data()
{
    QTest::addColumn<int>("size");
    for (const int size : {1, 2, 7, 40, 1000})
        QTest::addRow("%d", size) << size;
}

void TestRecording::anyPiecesGiveTheSame()
{
    QFETCH(int, size);
    const QByteArray text = kHead + "board: mine\n0.002 -> e7 1e # two\n  ff\n  fe\n0.003 <- 06\n"
        + "4.000 -- hang-up\n5.000 -- return\n6.000 -> 01\n 02";
    RecordingReader reader;
    QVector<Record> records;
    for (int start = 0; start < text.size(); start += size) {
        QVERIFY2(reader.add(text.mid(start, size)), qPrintable(reader.errorText()));
        records += reader.take().records;
    }
    QVERIFY2(reader.finish(), qPrintable(reader.errorText()));
    const Recording last = reader.take();
    QCOMPARE(last.board, QStringLiteral("mine"));
    records += last.records;

    QMap<int, QByteArray> bytes; // by the line of the record
    for (const Record &record : records)
        bytes[record.line] += record.bytes;
    const QVector<Record> expected = recordsOf(text);
    QCOMPARE(bytes.size(), expected.size());
    for (const Record &record : expected)
        QCOMPARE(bytes.value(record.line), record.bytes);
}

void TestRecording::recordsThatWereTakenStillCount_data()
{
    QTest::addColumn<QByteArray>("more");
    QTest::addColumn<QString>("error");
    const int line = kHead.count('\n') + 2;
    const auto row = [line](const char *name, const QByteArray &more, const char *why) {
        QTest::newRow(name) << more
                            << QStringLiteral("line %1: %2").arg(line).arg(QLatin1String(why));
    };
    row("time", "0.999 <- 06\n", "\"0.999\" is earlier than the record before it");
    row("head", "board: late\n", "\"board\" stands after the first record");
    row("size", (QByteArray(" 00").repeated(300) + '\n').repeated(219), "");
    row("endless line", QByteArray(1001, ' '), "more than 1000 characters");
}

void TestRecording::recordsThatWereTakenStillCount()
{
    QFETCH(QByteArray, more);
    QFETCH(QString, error);
    RecordingReader reader;
    QVERIFY(reader.add(kHead + "1.000 -> e7\n"));
    QCOMPARE(reader.take().records.size(), 1);
    bool isGood = true;
    for (int start = 0; isGood && start < more.size(); start += 500) {
        isGood = reader.add(more.mid(start, 500));
        static_cast<void>(reader.take());
    }
    QVERIFY(!isGood);
    if (error.endsWith(QLatin1String(": ")))
        QVERIFY(reader.errorText().endsWith(QStringLiteral("a record of more than 65536 bytes")));
    else
        QCOMPARE(reader.errorText(), error);
}

QTEST_GUILESS_MAIN(TestRecording)
#include "tst_recording.moc"
