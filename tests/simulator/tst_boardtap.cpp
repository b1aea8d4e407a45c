#include "boardprogram.h"
#include "handmadeframes.h"
#include "recording.h"
#include "testboard.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <memory>
#include <sys/resource.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

using namespace boardsim;

namespace {

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// The output lines without their times.
QList<QByteArray> events(const QByteArray &transcript)
{
    QList<QByteArray> lines;
    for (const QByteArray &line : transcript.split('\n')) {
        if (line.contains(" -> ") || line.contains(" <- ") || line.contains(" !! "))
            lines << line.mid(line.indexOf('.') + 5);
    }
    return lines;
}

/// Of the line, as a program that has it open does.
bool setSpeed(const QString &device, speed_t speed)
{
    const int line = open(QFile::encodeName(device).constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    const bool isSet = tcgetattr(line, &settings) == 0 && cfsetispeed(&settings, speed) == 0
        && cfsetospeed(&settings, speed) == 0 && tcsetattr(line, TCSANOW, &settings) == 0;
    close(line);
    return isSet;
}

} // namespace

class TestBoardTap : public QObject {
    Q_OBJECT

private slots:
    void init();
    void updateIsWatched();
    void everyByteGoesThrough();
    void malformedFramesGiveStatus1();
    void goneDeviceComesBack();
    void endSignalEndsIt_data();
    void endSignalEndsIt();
    void endSignalEndsTheWaitForAFifo_data();
    void endSignalEndsTheWaitForAFifo();
    void failedStartLeavesTheOldRecording();
    void wrongUsageGivesStatus2_data();
    void wrongUsageGivesStatus2();
    void deviceThatCannotBeOpenedIsSaid_data();
    void deviceThatCannotBeOpenedIsSaid();
    void deviceWithoutRightsIsSaid();
    void existingFileIsNoLink();
    void fileThatCannotBeWrittenIsSaid_data();
    void fileThatCannotBeWrittenIsSaid();
    void otherSpeedOfTheProgramIsSaid();
    void fullDiskDoesNotStopTheLine();
    void fullDiskOfTheTranscriptIsSaid();
    void fullDiskOfAReadRecordingIsSaid();
    void fullDiskLeavesWholeRecords();
    void readerWhoDoesNotReadHoldsUpNothing();
    void recordingIsRead();
    void eventsAreLinesOfJson();
    void brokenRecordingIsRefused();

private:
    QString path(const char *name) const
    {
        return m_directory->filePath(QString::fromLatin1(name));
    }
    QStringList watch(const QString &device, const QStringList &more = {}) const
    {
        return QStringList{QStringLiteral("--device"), device, QStringLiteral("--link"),
                           path("line")}
        + more;
    }

    std::unique_ptr<QTemporaryDir> m_directory;
};

void TestBoardTap::init()
{
    m_directory = std::make_unique<QTemporaryDir>();
    QVERIFY(m_directory->isValid());
}

void TestBoardTap::updateIsWatched()
{
    Options options;
    options.bootDelay = Milliseconds(100);
    QByteArray ownTranscript;
    options.transcript = [&ownTranscript](const QByteArray &line) { ownTranscript += line + '\n'; };
    TestBoard board(options);
    BoardProgram program(
        watch(board.slaveName(),
              {QStringLiteral("--transcript"), path("transcript"), QStringLiteral("--summary"),
               path("summary"), QStringLiteral("--record"), path("recording")}));
    const QString device = program.waitUntilReady();
    QCOMPARE(QFile::symLinkTarget(path("line")), device);

    const QByteArray image = firmwareOfSize(2048);
    AssistantLine line(path("line"));
    QCOMPARE(line.exchange(goodVersionQuery(), 36).mid(16, 7), QByteArray("V4.1.3\0", 7));
    QCOMPARE(line.exchange(goodStartCommand(), 19).right(1), QByteArray("C"));
    bool asksForMore = true; // only the start frame and EOT get two bytes
    for (const QByteArray &frame : wholeTransfer(image)) {
        asksForMore = asksForMore || frame == eot();
        QCOMPARE(line.exchange(frame, asksForMore ? 2 : 1).left(1), QByteArray("\x06"));
        asksForMore = false;
    }
    QCOMPARE(program.end(), 0);
    QVERIFY(!QFileInfo(path("line")).isSymLink());
    board.stop();

    QCOMPARE(events(contentOf(path("transcript"))), events(ownTranscript));
    const QJsonObject summary = QJsonDocument::fromJson(contentOf(path("summary"))).object();
    QCOMPARE(summary.value(QStringLiteral("outcome")).toString(), QStringLiteral("ok"));
    QCOMPARE(summary.value(QStringLiteral("frames")).toArray().size(),
             board.report().frames.size());
    QString error;
    const auto recording = readRecording(path("recording"), error);
    QVERIFY2(recording, qPrintable(error));
    QByteArray sent;
    QByteArray received;
    for (const Record &record : recording->records)
        (record.kind == Record::Kind::ToBoard ? received : sent) += record.bytes;
    QCOMPARE(sent, board.sent().join());
    QVERIFY(received.endsWith(endFrame()));
}

void TestBoardTap::everyByteGoesThrough()
{
    QByteArray bytes;
    for (int i = 0; i < 16 * 256; ++i)
        bytes += static_cast<char>(i);
    Options options;
    options.replay = Recording{};
    for (int i = 0; i < 20; ++i)
        options.replay->records << Record{Record::Kind::ToBoard, i, bytes.left(3000), 1}
                                << Record{Record::Kind::FromBoard, i, bytes, 1};
    options.replayFast = true;
    TestBoard board(options);
    BoardProgram program(watch(board.slaveName(), {QStringLiteral("--transcript"), path("t")}));
    QVERIFY(!program.waitUntilReady().isEmpty());
    AssistantLine line(path("line"));
    for (int i = 0; i < 20; ++i)
        QCOMPARE(line.exchange(bytes.left(3000), bytes.size()), bytes);
    QVERIFY(program.end() >= 0);
    board.stop();
    QCOMPARE(board.report().difference, QString());
}

void TestBoardTap::malformedFramesGiveStatus1()
{
    TestBoard board;
    BoardProgram program(
        watch(board.slaveName(), {QStringLiteral("--hex"), QStringLiteral("short")}));
    QVERIFY(!program.waitUntilReady().isEmpty());
    AssistantLine line(path("line"));
    QVERIFY(line.send(changed(goodVersionQuery(), 28)));
    QVERIFY(program.waitForOutput("!! violation: checksum is 0xdc, not 0xdd"));
    QCOMPARE(program.end(), 1);
}

void TestBoardTap::goneDeviceComesBack()
{
    QVERIFY(QFile::link(QStringLiteral("/dev/pts/99999"), path("device")));
    Options options = quickToNotice({"hang-up@version"});
    options.linkPath = path("device");
    std::unique_ptr<TestBoard> board = std::make_unique<TestBoard>(options);
    BoardProgram program(watch(path("device"), {QStringLiteral("--record"), path("recording")}));
    QVERIFY(!program.waitUntilReady().isEmpty());
    {
        AssistantLine line(path("line"));
        QVERIFY(line.send(goodVersionQuery()));
        QVERIFY(line.waitForHangUp());
    }
    QVERIFY(program.waitForOutput("-- device has gone"));
    QVERIFY(!QFileInfo(path("line")).isSymLink());
    board.reset();

    options.faults.clear();
    board = std::make_unique<TestBoard>(options);
    QVERIFY(program.waitForOutput("-- device is back"));
    AssistantLine line(path("line"));
    QCOMPARE(line.exchange(goodVersionQuery(), 36).size(), 36);
    QVERIFY(program.end() >= 0);
    QCOMPARE(program.errorOutput(),
             QStringLiteral("boardtap: %1 has gone; waiting for it to come back\n"
                            "boardtap: %1 is back\n")
                 .arg(path("device"))
                 .toLatin1());
    const QByteArray recording = contentOf(path("recording"));
    QVERIFY(recording.contains(" -- hang-up\n"));
    QVERIFY(recording.contains(" -- return\n"));
    QVERIFY(recording.contains("# version answer \"V4.1.3\"\n"));
}

void TestBoardTap::endSignalEndsIt_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("TERM") << SIGTERM;
    QTest::newRow("INT") << SIGINT;
    QTest::newRow("HUP") << SIGHUP;
}

void TestBoardTap::endSignalEndsIt()
{
    QFETCH(int, signal);
    TestBoard board;
    BoardProgram program(watch(board.slaveName(), {QStringLiteral("--record"), path("recording")}));
    QVERIFY(!program.waitUntilReady().isEmpty());
    AssistantLine line(path("line"));
    QVERIFY(line.send("\xe7\x1e")); // of a frame that never ends
    QTRY_VERIFY(board.report().violations.size() == 1);
    program.sendSignal(signal);
    QCOMPARE(program.waitForEnd(), 1);
    QVERIFY(!QFileInfo(path("line")).isSymLink());
    QVERIFY(contentOf(path("recording")).contains("-> e7 1e\n"));
}

void TestBoardTap::endSignalEndsTheWaitForAFifo_data()
{
    QTest::addColumn<QString>("option");
    for (const char *option : {"--transcript", "--record", "--read"})
        QTest::newRow(option) << QString::fromLatin1(option);
}

/// Nobody has the other end of the FIFO open.
void TestBoardTap::endSignalEndsTheWaitForAFifo()
{
    QFETCH(QString, option);
    QCOMPARE(mkfifo(QFile::encodeName(path("fifo")).constData(), 0600), 0);
    TestBoard board;
    const QStringList more{option, path("fifo")};
    BoardProgram program(option == QLatin1String("--read") ? more : watch(board.slaveName(), more));
    QVERIFY(program.waitUntilAsleep());
    QVERIFY(program.diesOf(SIGTERM));
    QVERIFY(!QFileInfo(path("line")).isSymLink());
}

void TestBoardTap::failedStartLeavesTheOldRecording()
{
    QFile file(path("recording"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("of yesterday");
    file.close();
    BoardProgram failing(watch(path("missing"), {QStringLiteral("--record"), path("recording")}));
    QCOMPARE(failing.waitForEnd(), 3);
    QCOMPARE(contentOf(path("recording")), QByteArray("of yesterday"));
    TestBoard board;
    BoardProgram program(watch(board.slaveName(), {QStringLiteral("--record"), path("recording")}));
    QVERIFY(!program.waitUntilReady().isEmpty());
    QCOMPARE(program.end(), 0);
    QVERIFY(contentOf(path("recording")).startsWith("serial line recording 1\n"));
}

void TestBoardTap::wrongUsageGivesStatus2_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("message");
    const auto row = [](const char *arguments, const QByteArray &message) {
        QTest::newRow(arguments) << QString::fromLatin1(arguments).split(QLatin1Char(' '))
                                 << message;
    };
    row("--nonsense", "boardtap: Unknown option 'nonsense'.\n");
    row("line", "boardtap: no arguments but options, please: \"line\"\n");
    row("--device x", "boardtap: --device and --link are needed, or --read (try --help)\n");
    row("--read x --link y", "boardtap: --link and --read do not go together\n");
    row("--device x --link y --image z", "boardtap: --image needs --read\n");
    row("--device x --link y --hex long", "boardtap: --hex takes full or short, not \"long\"\n");
    row("--view x --link y", "boardtap: --device and --link are needed, or --read (try --help)\n");
    row("--view x --read y", "boardtap: --view and --read do not go together\n");
    row("--view x --record y", "boardtap: --record and --view do not go together\n");
    row("--view x --transcript -", "boardtap: standard output cannot have the transcript, too\n");
    row("--read x --events - --transcript -",
        "boardtap: standard output cannot have the transcript, too\n");
    row("--device x --link y --view z", "boardtap: with a device, --view takes - only: its line\n");
    row("--device x --link y --events z", "boardtap: --events needs --read\n");
    row("--device= --link y", "boardtap: --device takes a path\n");
}

void TestBoardTap::wrongUsageGivesStatus2()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, message);
    BoardProgram program(arguments);
    QCOMPARE(program.waitForEnd(), 2);
    QCOMPARE(program.errorOutput(), message);
}

void TestBoardTap::deviceThatCannotBeOpenedIsSaid_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("missing") << QStringLiteral("/missing/device")
                             << QByteArray("boardtap: cannot open /missing/device: No such file or "
                                           "directory\n");
    QTest::newRow("no terminal") << QStringLiteral("/dev/null")
                                 << QByteArray("boardtap: /dev/null is no serial device\n");
}

void TestBoardTap::deviceThatCannotBeOpenedIsSaid()
{
    QFETCH(QString, device);
    QFETCH(QByteArray, message);
    BoardProgram program(watch(device));
    QCOMPARE(program.waitForEnd(), 3);
    QCOMPARE(program.errorOutput(), message);
    QVERIFY(!QFileInfo(path("line")).isSymLink());
}

void TestBoardTap::deviceWithoutRightsIsSaid()
{
    if (geteuid() == 0)
        QSKIP("root may open every device: run this as another user");
    QFile file(path("device"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(file.setPermissions(QFileDevice::Permissions()));
    BoardProgram program(watch(path("device")));
    QCOMPARE(program.waitForEnd(), 3);
    QVERIFY(program.errorOutput().startsWith("boardtap: no right to open "));
}

void TestBoardTap::existingFileIsNoLink()
{
    TestBoard board;
    {
        QFile file(path("line"));
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    BoardProgram program(watch(board.slaveName()));
    QCOMPARE(program.waitForEnd(), 3);
    QCOMPARE(program.errorOutput(),
             "boardtap: " + path("line").toLatin1() + " exists and is not a left-over link\n");

    QVERIFY(QFile::remove(path("line")) && QFile::link(board.slaveName(), path("line")));
    BoardProgram itself(watch(board.slaveName()));
    QCOMPARE(itself.waitForEnd(), 3);
    QCOMPARE(itself.errorOutput(),
             "boardtap: " + path("line").toLatin1() + " is the device itself\n");
    QCOMPARE(QFile::symLinkTarget(path("line")), board.slaveName());
}

void TestBoardTap::fileThatCannotBeWrittenIsSaid_data()
{
    QTest::addColumn<QString>("option");
    for (const char *option : {"--record", "--transcript", "--summary"})
        QTest::newRow(option) << QString::fromLatin1(option);
}

void TestBoardTap::fileThatCannotBeWrittenIsSaid()
{
    QFETCH(QString, option);
    TestBoard board;
    BoardProgram program(watch(board.slaveName(), {option, path("missing/file")}));
    QCOMPARE(program.waitForEnd(), 3);
    QCOMPARE(program.errorOutput(),
             "boardtap: cannot write " + path("missing/file").toLatin1()
                 + ": No such file or directory\n");
}

void TestBoardTap::otherSpeedOfTheProgramIsSaid()
{
    TestBoard board;
    BoardProgram program(watch(board.slaveName(), {QStringLiteral("--transcript"), path("t")}));
    QVERIFY(!program.waitUntilReady().isEmpty());
    AssistantLine line(path("line"));
    QVERIFY(setSpeed(path("line"), B9600));
    for (int i = 0; i < 2; ++i)
        QCOMPARE(line.exchange(goodVersionQuery(), 36).size(), 36);
    QVERIFY(setSpeed(path("line"), B115200));
    QCOMPARE(line.exchange(goodVersionQuery(), 36).size(), 36);
    QCOMPARE(program.end(), 0);
    QCOMPARE(contentOf(path("t")).count(" -- the program has set another speed than 115200 baud"),
             1);
}

void TestBoardTap::fullDiskDoesNotStopTheLine()
{
    TestBoard board;
    BoardProgram program(
        watch(board.slaveName(), {QStringLiteral("--record"), QStringLiteral("/dev/full")}));
    QVERIFY(!program.waitUntilReady().isEmpty());
    AssistantLine line(path("line"));
    QCOMPARE(line.exchange(goodVersionQuery(), 36).size(), 36);
    QCOMPARE(program.end(), 3);
    QCOMPARE(program.errorOutput(),
             QByteArray("boardtap: cannot write /dev/full: No space left on device; the line goes "
                        "on\n"));
}

void TestBoardTap::fullDiskOfTheTranscriptIsSaid()
{
    TestBoard board;
    BoardProgram program(
        watch(board.slaveName(), {QStringLiteral("--transcript"), QStringLiteral("/dev/full")}));
    QVERIFY(!program.waitUntilReady().isEmpty());
    QCOMPARE(program.end(), 3);
    QCOMPARE(program.errorOutput(),
             QByteArray("boardtap: cannot write /dev/full: No space left on device; the line goes "
                        "on\n"));
}

void TestBoardTap::fullDiskOfAReadRecordingIsSaid()
{
    QFile file(path("recording"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(recordingHead(kLineSpeed, QStringLiteral("1")) + "0.100 <- 43\n");
    file.close();
    BoardProgram program({QStringLiteral("--read"), path("recording"),
                          QStringLiteral("--transcript"), QStringLiteral("/dev/full")});
    QCOMPARE(program.waitForEnd(), 3);
    QCOMPARE(program.errorOutput(),
             QByteArray("boardtap: cannot write /dev/full: No space left on device\n"));
}

void TestBoardTap::fullDiskLeavesWholeRecords()
{
    constexpr rlim_t kRoom = 200; // bytes: the head and the version query, but not its reply
    TestBoard board;
    rlimit before{};
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{kRoom, before.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN); // inherited, as the limit is
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);
    BoardProgram program(watch(board.slaveName(), {QStringLiteral("--record"), path("recording")}));
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &before), 0);
    QVERIFY(!program.waitUntilReady().isEmpty());
    AssistantLine line(path("line"));
    QCOMPARE(line.exchange(goodVersionQuery(), 36).size(), 36);
    QCOMPARE(program.end(), 3);
    QVERIFY(program.errorOutput().contains("File too large; the line goes on\n"));
    QString error;
    const auto recording = readRecording(path("recording"), error);
    QVERIFY2(recording, qPrintable(error));
    QCOMPARE(recording->records.size(), 1);
    QCOMPARE(recording->records.first().bytes, goodVersionQuery());
}

void TestBoardTap::readerWhoDoesNotReadHoldsUpNothing()
{
    const QByteArray fifo = QFile::encodeName(path("fifo"));
    QCOMPARE(mkfifo(fifo.constData(), 0600), 0);
    const int reader = open(fifo.constData(), O_RDWR | O_CLOEXEC);
    QVERIFY(reader >= 0);
    TestBoard board;
    BoardProgram program(watch(board.slaveName(),
                               {QStringLiteral("--transcript"), path("fifo"),
                                QStringLiteral("--record"), path("recording")}));
    QVERIFY(!program.waitUntilReady().isEmpty());
    AssistantLine line(path("line"));
    // Each makes 300 bytes of transcript; a FIFO takes 64 KiB.
    for (int i = 0; i < 400; ++i)
        QCOMPARE(line.exchange(goodVersionQuery(), 36).size(), 36);
    QCOMPARE(program.end(), 3);
    QCOMPARE(program.errorOutput(),
             QByteArray("boardtap: nobody reads the transcript: its end is lost\n"));
    QVERIFY(!QFileInfo(path("line")).isSymLink());
    QString error;
    const auto recording = readRecording(path("recording"), error);
    QVERIFY2(recording, qPrintable(error));
    QCOMPARE(recording->records.size(), 800);
    close(reader);
}

void TestBoardTap::recordingIsRead()
{
    QFile file(path("recording"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(recordingHead(kLineSpeed, QStringLiteral("1")) + "0.050 <- 35 30 25 31 0a\n"
               + "0.100 <- 43\n");
    int ms = 1000;
    for (const QByteArray &frame : wholeTransfer("abc"))
        file.write(recordLines({Record::Kind::ToBoard, ++ms, frame, 0}));
    file.close();
    BoardProgram program({QStringLiteral("--read"), path("recording"), QStringLiteral("--image"),
                          path("image"), QStringLiteral("--hex"), QStringLiteral("short")});
    QCOMPARE(program.waitForEnd(), 0);
    QCOMPARE(contentOf(path("image")), QByteArray("abc"));
    QVERIFY(program.output().contains("    0.100 <- 'C', asks for the start frame (1 byte): 43\n"));
    QVERIFY(program.output().contains("    0.050 <- console text \"50%1\\n\" (5 bytes): 35 30"));
    QVERIFY(program.output().contains("    1.004 -> end frame (133 bytes): 01 00 ff"));
}

void TestBoardTap::eventsAreLinesOfJson()
{
    QFile file(path("recording"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("serial line recording 1\nspeed: 9600\nboardtap: 7\nprogram: of mine\nboard: old\n");
    file.write(recordLines({Record::Kind::ToBoard, 1000, changed(goodVersionQuery(), 28), 0}));
    file.write("2.000 -- hang-up\n");
    file.close();
    BoardProgram program(
        {QStringLiteral("--read"), path("recording"), QStringLiteral("--events"), path("events")});
    QCOMPARE(program.waitForEnd(), 1);
    const QList<QByteArray> lines = contentOf(path("events")).split('\n');
    QCOMPARE(lines.size(), 4);
    QCOMPARE(lines.at(0),
             QByteArray(R"({"board":"old","boardtap":"7","program":"of mine","speed":9600})"));
    QCOMPARE(lines.at(1),
             R"({"bytes":")" + changed(goodVersionQuery(), 28).toHex()
                 + R"(","direction":"to board","meaning":"bad version query","ms":1000,)"
                 + R"("violations":["checksum is 0xdc, not 0xdd"]})");
    QCOMPARE(lines.at(2),
             QByteArray(R"({"bytes":"","direction":"none","meaning":"device has gone","ms":2000,)"
                        R"("violations":[]})"));
    QCOMPARE(lines.at(3), QByteArray());
}

void TestBoardTap::brokenRecordingIsRefused()
{
    QFile file(path("recording"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("something else");
    file.close();
    BoardProgram program({QStringLiteral("--read"), path("recording")});
    QCOMPARE(program.waitForEnd(), 3);
    QCOMPARE(
        program.errorOutput(),
        "boardtap: " + path("recording").toLatin1()
            + ": line 1: no recording: it begins with \"something else\", not with \"serial line "
              "recording 1\"\n");
}

QTEST_GUILESS_MAIN(TestBoardTap)
#include "tst_boardtap.moc"
