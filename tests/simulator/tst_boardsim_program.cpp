#include "assistantline.h"
#include "boardprogram.h"
#include "fault.h"
#include "handmadeexchanges.h"
#include "handmadeframes.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <csignal>
#include <memory>

namespace {

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QJsonObject jsonOf(const QString &path)
{
    return QJsonDocument::fromJson(contentOf(path)).object();
}

} // namespace

class TestBoardSimProgram : public QObject {
    Q_OBJECT

private slots:
    void init();
    void updateIsReported();
    void handshakesAndPacketsAreReported();
    void parametersAreTakenByteByByte_data();
    void parametersAreTakenByteByByte();
    void transcriptGoesToStandardOutput();
    void endSignalEndsIt_data();
    void endSignalEndsIt();
    void violationGivesStatus1();
    void explainedViolationGivesStatus0();
    void hungUpProgramRunsOnUntilItsEnd();
    void wrongUsageGivesStatus2_data();
    void wrongUsageGivesStatus2();
    void helpTellsEveryOptionAndFault();
    void readmeTellsEveryFaultAndPlace();
    void leftOverLinkIsReplaced();
    void otherFilesAreNotReplaced_data();
    void otherFilesAreNotReplaced();
    void fileThatCannotBeWrittenGivesStatus3_data();
    void fileThatCannotBeWrittenGivesStatus3();
    void imageThatCannotBeWrittenEndsItWithStatus3();
    void fullDiskOfTheTranscriptGivesStatus3();

private:
    QString path(const char *name) const
    {
        return m_directory->filePath(QString::fromLatin1(name));
    }

    std::unique_ptr<QTemporaryDir> m_directory;
};

void TestBoardSimProgram::init()
{
    m_directory = std::make_unique<QTemporaryDir>();
    QVERIFY(m_directory->isValid());
}

void TestBoardSimProgram::updateIsReported()
{
    BoardProgram program(
        {QStringLiteral("--link"), path("line"), QStringLiteral("--version-text"),
         QStringLiteral("V4.9"), QStringLiteral("--image"), path("image"),
         QStringLiteral("--transcript"), path("transcript"), QStringLiteral("--summary"),
         path("summary"), QStringLiteral("--boot-delay"), QStringLiteral("0"),
         QStringLiteral("--control-repeat"), QStringLiteral("10"), QStringLiteral("--pace"),
         QStringLiteral("115200"), QStringLiteral("--fault"), QStringLiteral("split@version")});
    const QString device = program.waitUntilReady();
    QCOMPARE(QFile::symLinkTarget(path("line")), device);

    const QByteArray image = firmwareOfSize(2048);
    {
        AssistantLine line(path("line"));
        QCOMPARE(line.exchange(goodVersionQuery(), 36).mid(16, 5), QByteArray("V4.9\0", 5));
        QCOMPARE(line.exchange(goodStartCommand(), 28).right(10), QByteArray("CCCCCCCCCC"));
        for (const QByteArray &frame : wholeTransfer(image))
            QCOMPARE(line.exchange(frame, 10).left(1), QByteArray("\x06"));
    }
    QCOMPARE(program.end(), 0);

    QVERIFY(!QFileInfo(path("line")).isSymLink());
    QCOMPARE(contentOf(path("image")), image);
    QVERIFY(contentOf(path("transcript")).contains("** fault: split@version\n"));
    QVERIFY(contentOf(path("transcript")).contains("-> block 3 of 3, 0 bytes of data"));

    const QJsonObject summary = jsonOf(path("summary"));
    QCOMPARE(summary.value(QStringLiteral("outcome")).toString(), QStringLiteral("ok"));
    QCOMPARE(summary.value(QStringLiteral("versionQueries")).toInt(), 1);
    QCOMPARE(summary.value(QStringLiteral("startCommands")).toInt(), 1);
    QCOMPARE(summary.value(QStringLiteral("faultsMade")).toArray(),
             QJsonArray{QStringLiteral("split@version")});
    QCOMPARE(summary.value(QStringLiteral("violations")).toArray(), QJsonArray());
    QCOMPARE(summary.value(QStringLiteral("hungUp")).toBool(true), false);
    const QJsonArray transfers = summary.value(QStringLiteral("transfers")).toArray();
    QCOMPARE(transfers.size(), 1);
    const QByteArray hash = QCryptographicHash::hash(image, QCryptographicHash::Sha256).toHex();
    const QJsonObject expected{
        {QStringLiteral("outcome"), QStringLiteral("complete")},
        {QStringLiteral("fileName"), QStringLiteral("app.bin")},
        {QStringLiteral("announcedSize"), 2048},
        {QStringLiteral("blocksExpected"), 3},
        {QStringLiteral("blocksReceived"), 3},
        {QStringLiteral("eotReceived"), true},
        {QStringLiteral("extraEndFrames"), 0},
        {QStringLiteral("imageSize"), 2048},
        {QStringLiteral("imageSha256"), QString::fromLatin1(hash)},
    };
    QCOMPARE(transfers.first().toObject(), expected);
    const QJsonObject first = summary.value(QStringLiteral("frames")).toArray().first().toObject();
    QCOMPARE(first.value(QStringLiteral("direction")).toString(), QStringLiteral("to board"));
    QCOMPARE(first.value(QStringLiteral("meaning")).toString(), QStringLiteral("version query"));
    QCOMPARE(first.value(QStringLiteral("size")).toInt(), 30);
}

void TestBoardSimProgram::handshakesAndPacketsAreReported()
{
    BoardProgram program({QStringLiteral("--params"), QStringLiteral("X_1"),
                          QStringLiteral("--device-id"), QStringLiteral("0x01020304"),
                          QStringLiteral("--boot-delay"), QStringLiteral("600000"),
                          QStringLiteral("--summary"), path("summary")});
    {
        AssistantLine line(program.waitUntilReady());
        const QByteArray params = QByteArray("X_1").leftJustified(42, '\0');
        QCOMPARE(line.exchange(goodHandshakeV3(), 73), handshakeAnswer(3, params));
        QCOMPARE(line.exchange(goodHandshakeV4(), 76), handshakeAnswer(4, params));
        QCOMPARE(line.exchange(goodHandshakeV4(), 76), handshakeAnswer(4, params));
        QCOMPARE(line.exchange(goodStartCommand(), 18).size(), 18);
        QByteArray answers = line.exchange(connectPacket(), kPacketSize);
        for (const QByteArray &packet : packetSequence())
            answers += line.exchange(packet, kPacketSize);
        QCOMPARE(answers.size(), 5 * kPacketSize);
        QCOMPARE(answers.mid(3 * kPacketSize + 8, 4), QByteArray::fromHex("04030201"));
    }
    QCOMPARE(program.end(), 0);
    const QJsonObject summary = jsonOf(path("summary"));
    QCOMPARE(summary.value(QStringLiteral("handshakesV3")).toInt(), 1);
    QCOMPARE(summary.value(QStringLiteral("handshakesV4")).toInt(), 2);
    QCOMPARE(summary.value(QStringLiteral("connects")).toInt(), 2);
    QCOMPARE(summary.value(QStringLiteral("configReads")).toInt(), 1);
}

void TestBoardSimProgram::parametersAreTakenByteByByte_data()
{
    QTest::addColumn<QString>("hex");
    QTest::addColumn<QByteArray>("params");
    QTest::newRow("some") << QStringLiteral("00FF5f00") << QByteArray("\0\xff_\0", 4);
    QTest::newRow("none") << QString() << QByteArray();
}

void TestBoardSimProgram::parametersAreTakenByteByByte()
{
    QFETCH(QString, hex);
    QFETCH(QByteArray, params);
    BoardProgram program({QStringLiteral("--params-hex"), hex});
    AssistantLine line(program.waitUntilReady());
    const QByteArray expected = handshakeAnswer(4, params);
    QCOMPARE(line.exchange(goodHandshakeV4(), expected.size()).toHex(), expected.toHex());
    QCOMPARE(program.end(), 0);
}

void TestBoardSimProgram::transcriptGoesToStandardOutput()
{
    BoardProgram program({QStringLiteral("--transcript"), QStringLiteral("-"),
                          QStringLiteral("--hex"), QStringLiteral("short"),
                          QStringLiteral("--boot-loader")});
    const QString device = program.waitUntilReady();
    AssistantLine line(device);
    QCOMPARE(line.receive(1), QByteArray("C"));
    QCOMPARE(program.end(), 0);
    QVERIFY(program.output().contains("<- 'C', asks for the start frame (1 byte): 43\n"));
}

void TestBoardSimProgram::endSignalEndsIt_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("TERM") << SIGTERM;
    QTest::newRow("INT") << SIGINT;
    QTest::newRow("HUP") << SIGHUP;
}

void TestBoardSimProgram::endSignalEndsIt()
{
    QFETCH(int, signal);
    BoardProgram program({QStringLiteral("--summary"), path("summary")});
    QVERIFY(!program.waitUntilReady().isEmpty());
    program.sendSignal(signal);
    QCOMPARE(program.waitForEnd(), 0);
    QCOMPARE(jsonOf(path("summary")).value(QStringLiteral("outcome")).toString(),
             QStringLiteral("ok"));
}

void TestBoardSimProgram::violationGivesStatus1()
{
    BoardProgram program({QStringLiteral("--summary"), path("summary"), QStringLiteral("--fault"),
                          QStringLiteral("slow=1@eot"), // a fault that is never made
                          QStringLiteral("--transcript"), QStringLiteral("-")});
    AssistantLine line(program.waitUntilReady());
    QVERIFY(line.send("x"));
    QVERIFY(program.waitForOutput("violation: 1 unexpected bytes"));
    QCOMPARE(program.end(), 1);
    const QJsonObject summary = jsonOf(path("summary"));
    QCOMPARE(summary.value(QStringLiteral("outcome")).toString(), QStringLiteral("violations"));
    QVERIFY(!summary.value(QStringLiteral("violations")).toArray().isEmpty());
}

void TestBoardSimProgram::explainedViolationGivesStatus0()
{
    BoardProgram program({QStringLiteral("--summary"), path("summary"),
                          QStringLiteral("--boot-loader"), QStringLiteral("--fault"),
                          QStringLiteral("lose-bytes@start-frame")});
    AssistantLine line(program.waitUntilReady());
    QCOMPARE(line.receive(1), QByteArray("C"));
    QCOMPARE(line.exchange(startFrame("app.bin", "3"), 1), QByteArray("\x15"));
    QCOMPARE(program.end(), 0);
    const QJsonArray violations =
        jsonOf(path("summary")).value(QStringLiteral("violations")).toArray();
    QCOMPARE(violations.size(), 1);
    QCOMPARE(violations.first().toObject().value(QStringLiteral("explainedBy")).toString(),
             QStringLiteral("lose-bytes@start-frame"));
}

void TestBoardSimProgram::hungUpProgramRunsOnUntilItsEnd()
{
    BoardProgram program({QStringLiteral("--summary"), path("summary"), QStringLiteral("--link"),
                          path("line"), QStringLiteral("--fault"),
                          QStringLiteral("hang-up@version")});
    AssistantLine line(program.waitUntilReady());
    QVERIFY(line.send(goodVersionQuery()));
    QVERIFY(line.waitForHangUp());
    QVERIFY(QFileInfo(path("line")).isSymLink());
    QCOMPARE(program.end(), 0);
    QVERIFY(!QFileInfo(path("line")).isSymLink());
    QVERIFY(jsonOf(path("summary")).value(QStringLiteral("hungUp")).toBool());
}

void TestBoardSimProgram::wrongUsageGivesStatus2_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("message");

    const auto row = [](const QStringList &arguments, const QByteArray &message) {
        QTest::newRow(qPrintable(arguments.join(QLatin1Char(' ')))) << arguments << message;
    };
    row({QStringLiteral("--nonsense")}, "boardsim: Unknown option 'nonsense'.\n");
    row({QStringLiteral("line")}, "boardsim: no arguments but options, please: \"line\"\n");
    row({QStringLiteral("--pace"), QStringLiteral("fast")},
        "boardsim: --pace takes a number from 0 to 10000000, not \"fast\"\n");
    row({QStringLiteral("--control-repeat"), QStringLiteral("0")},
        "boardsim: --control-repeat takes a number from 1 to 1000, not \"0\"\n");
    row({QStringLiteral("--request-interval"), QStringLiteral("0")},
        "boardsim: --request-interval takes a number from 1 to 600000, not \"0\"\n");
    row({QStringLiteral("--boot-delay"), QStringLiteral("-1")},
        "boardsim: --boot-delay takes a number from 0 to 600000, not \"-1\"\n");
    row({QStringLiteral("--hex"), QStringLiteral("long")},
        "boardsim: --hex takes full or short, not \"long\"\n");
    row({QStringLiteral("--version-text"), QStringLiteral("12345678901234567890")},
        "boardsim: --version-text takes at most 19 ASCII characters, not "
        "\"12345678901234567890\"\n");
    row({QStringLiteral("--params"), QString(222, QLatin1Char('p'))},
        "boardsim: --params takes at most 221 ASCII characters, not \"" + QByteArray(222, 'p')
            + "\"\n");
    row({QStringLiteral("--params-hex"), QStringLiteral("414")},
        "boardsim: --params-hex takes pairs of hexadecimal digits for at most 221 bytes, not "
        "\"414\"\n");
    row({QStringLiteral("--params-hex"), QString(444, QLatin1Char('0'))},
        "boardsim: --params-hex takes pairs of hexadecimal digits for at most 221 bytes, not \""
            + QByteArray(444, '0') + "\"\n");
    row({QStringLiteral("--device-id"), QStringLiteral("0x100000000")},
        "boardsim: --device-id takes a number from 0 to 0xffffffff, not \"0x100000000\"\n");
    row({QStringLiteral("--fault"), QStringLiteral("nak@version")},
        "boardsim: fault nak cannot happen at version\n");
    row({QStringLiteral("--fault"), QStringLiteral("nak"), QStringLiteral("--fault"),
         QStringLiteral("explode")},
        "boardsim: unknown fault \"explode\"\n");
}

void TestBoardSimProgram::wrongUsageGivesStatus2()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, message);
    BoardProgram program(arguments);
    QCOMPARE(program.waitForEnd(), 2);
    QCOMPARE(program.errorOutput(), message);
    QCOMPARE(program.output(), QByteArray());
}

void TestBoardSimProgram::helpTellsEveryOptionAndFault()
{
    BoardProgram program({QStringLiteral("--help")});
    QCOMPARE(program.waitForEnd(), 0);
    const QByteArray help = program.output();
    for (const char *option :
         {"--link", "--version-text", "--params", "--params-hex", "--device-id", "--image",
          "--transcript", "--hex", "--summary", "--pace", "--control-repeat", "--boot-loader",
          "--boot-delay", "--request-interval", "--replay", "--replay-pace", "--fault"})
        QVERIFY2(help.contains(option), option);
    for (const boardsim::FaultRule &rule : boardsim::faultTable())
        QVERIFY2(help.contains(QByteArray("\n  ") + rule.name), rule.name);
}

void TestBoardSimProgram::readmeTellsEveryFaultAndPlace()
{
    const QByteArray readme = contentOf(QStringLiteral(BOARDSIM_README));
    for (const boardsim::FaultRule &rule : boardsim::faultTable())
        QVERIFY2(readme.contains(QByteArray("| `") + rule.name), rule.name);
    for (const char *place :
         {"version", "start-command", "handshake", "connect", "sync", "device-id", "config",
          "start-frame", "block:N", "block:first", "block:middle", "block:last", "eot", "end"})
        QVERIFY2(readme.contains(QByteArray("| `") + place + '`'), place);
}

void TestBoardSimProgram::leftOverLinkIsReplaced()
{
    QVERIFY(QFile::link(QStringLiteral("/dev/pts/99999"), path("line")));
    BoardProgram program({QStringLiteral("--link"), path("line")});
    const QString device = program.waitUntilReady();
    QCOMPARE(QFile::symLinkTarget(path("line")), device);
    QCOMPARE(program.end(), 0);
}

void TestBoardSimProgram::otherFilesAreNotReplaced_data()
{
    QTest::addColumn<bool>("isLink");
    QTest::newRow("file") << false;
    QTest::newRow("link to a file") << true;
}

void TestBoardSimProgram::otherFilesAreNotReplaced()
{
    QFETCH(bool, isLink);
    QFile file(path("file"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    QVERIFY(!isLink || QFile::link(path("file"), path("link")));
    const QString taken = isLink ? path("link") : path("file");

    BoardProgram program({QStringLiteral("--link"), taken});
    QCOMPARE(program.waitForEnd(), 3);
    QCOMPARE(program.errorOutput(),
             QByteArray("boardsim: ") + taken.toLatin1() + " exists and is not a left-over link\n");
    QVERIFY(QFileInfo(path("file")).isFile());
    QCOMPARE(QFileInfo(taken).isSymLink(), isLink);
}

void TestBoardSimProgram::fileThatCannotBeWrittenGivesStatus3_data()
{
    QTest::addColumn<QString>("option");
    QTest::newRow("link") << QStringLiteral("--link");
    QTest::newRow("transcript") << QStringLiteral("--transcript");
    QTest::newRow("summary") << QStringLiteral("--summary");
    QTest::newRow("image") << QStringLiteral("--image");
}

void TestBoardSimProgram::fileThatCannotBeWrittenGivesStatus3()
{
    QFETCH(QString, option);
    BoardProgram program({option, path("missing/file")});
    QCOMPARE(program.waitForEnd(), 3);
    const QByteArray error = program.errorOutput();
    QVERIFY2(error.startsWith("boardsim: cannot "), error.constData());
    QVERIFY2(error.contains("/missing/file"), error.constData());
}

void TestBoardSimProgram::imageThatCannotBeWrittenEndsItWithStatus3()
{
    QVERIFY(QDir(m_directory->path()).mkdir(QStringLiteral("image")));
    BoardProgram program({QStringLiteral("--image"), path("image"), QStringLiteral("--boot-loader"),
                          QStringLiteral("--control-repeat"), QStringLiteral("2")});
    AssistantLine line(program.waitUntilReady());
    QCOMPARE(line.receive(2), QByteArray("CC"));
    QVector<QByteArray> frames = wholeTransfer("abc");
    const QByteArray last = frames.takeLast();
    for (const QByteArray &frame : qAsConst(frames))
        QCOMPARE(line.exchange(frame, 2).size(), 2);
    QVERIFY(line.send(last));
    QCOMPARE(program.waitForEnd(), 3);
    QCOMPARE(program.errorOutput(),
             QStringLiteral("boardsim: cannot write %1: Is a directory\n")
                 .arg(path("image"))
                 .toLocal8Bit());
}

void TestBoardSimProgram::fullDiskOfTheTranscriptGivesStatus3()
{
    BoardProgram program({QStringLiteral("--transcript"), QStringLiteral("/dev/full")});
    QVERIFY(!program.waitUntilReady().isEmpty());
    QCOMPARE(program.end(), 3);
    QCOMPARE(program.errorOutput(),
             QByteArray("boardsim: cannot write /dev/full: No space left on device\n"));
}

QTEST_GUILESS_MAIN(TestBoardSimProgram)
#include "tst_boardsim_program.moc"
