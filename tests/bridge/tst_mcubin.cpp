#include "capture.h"
#include "child.h"
#include "fileio.h"
#include "machine.h"

#include <QtTest>

#include <memory>
#include <sys/resource.h>

class TestMcuBin : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void imagesAreListedByFullPath();
    void entriesGoToTheDebugStream();
    void noImageYieldsNothing();
    void longNameMakesSeveralEntries_data();
    void longNameMakesSeveralEntries();
    void lineIsNotTouched();
    void noShellIsReported();

private:
    std::unique_ptr<FirmwareDir> m_directory;
};

void TestMcuBin::initTestCase()
{
    SKIP_OFF_THE_SIMULATED_MACHINE();
}

void TestMcuBin::init()
{
    m_directory = std::make_unique<FirmwareDir>();
}

void TestMcuBin::cleanup()
{
    m_directory.reset();
}

void TestMcuBin::imagesAreListedByFullPath()
{
    for (const char *name : {"b.bin", "UpdataSystem.bin", "c.txt", "bin"})
        m_directory->put(QString::fromLatin1(name), "x");
    const MessageCapture messages;
    QCOMPARE(FileIO().getMcuBin(),
             QStringList({QStringLiteral("/root/mcu/UpdataSystem.bin"),
                          QStringLiteral("/root/mcu/b.bin")}));
}

void TestMcuBin::entriesGoToTheDebugStream()
{
    m_directory->put(QStringLiteral("UpdataSystem.bin"), "x");
    m_directory->put(QStringLiteral("b.bin"), "x");
    const MessageCapture messages;
    DescriptorCapture out(1);
    FileIO().getMcuBin();
    QCOMPARE(out.take(), QByteArray());
    QCOMPARE(messages.messages(),
             QStringList({QStringLiteral("0  : new mcuVersion: \"/root/mcu/UpdataSystem.bin\""),
                          QStringLiteral("1  : new mcuVersion: \"/root/mcu/b.bin\"")}));
}

void TestMcuBin::noImageYieldsNothing()
{
    m_directory->put(QStringLiteral("c.txt"), "x");
    const MessageCapture messages;
    DescriptorCapture err(2);
    const QStringList images = FileIO().getMcuBin();
    const QByteArray complaint = err.take();
    QCOMPARE(images, QStringList());
    QCOMPARE(messages.messages(), QStringList());
    // The listing's own.
    QVERIFY2(complaint.contains("/root/mcu/*.bin"), complaint.constData());
}

void TestMcuBin::longNameMakesSeveralEntries_data()
{
    QTest::addColumn<int>("pathLength");
    QTest::addColumn<QList<int>>("pieces");

    QTest::newRow("98") << 98 << QList<int>{98};
    QTest::newRow("99") << 99 << QList<int>{99, 0};
    QTest::newRow("100") << 100 << QList<int>{99, 1};
    QTest::newRow("250") << 250 << QList<int>{99, 99, 52};
}

void TestMcuBin::longNameMakesSeveralEntries()
{
    QFETCH(int, pathLength);
    QFETCH(QList<int>, pieces);

    const QByteArray directory("/root/mcu/");
    const QByteArray name = QByteArray(pathLength - directory.size() - 4, 'n') + ".bin";
    m_directory->put(QString::fromLatin1(name), "x");
    QStringList expected;
    int position = 0;
    for (const int piece : pieces) {
        expected.append(QString::fromLatin1((directory + name).mid(position, piece)));
        position += piece;
    }
    const MessageCapture messages;
    QCOMPARE(FileIO().getMcuBin(), expected);
}

void TestMcuBin::lineIsNotTouched()
{
    BoardLine line;
    line.deliver("pending");
    const MessageCapture messages;
    DescriptorCapture err(2);
    FileIO().getMcuBin();
    err.take();
    QCOMPARE(line.pending(), 7);
    QCOMPARE(line.received(), QByteArray());
    QCOMPARE(line.inputDiscards(), 0);
}

void TestMcuBin::noShellIsReported()
{
    m_directory->put(QStringLiteral("UpdataSystem.bin"), "x");
    const ChildResult child = runInChild([] {
        FileIO fileIO;
        // Without descriptors to spare there is no pipe, hence no stream.
        const rlimit standardOnly{3, 3};
        CHILD_VERIFY(setrlimit(RLIMIT_NOFILE, &standardOnly) == 0);
        CHILD_VERIFY(fileIO.getMcuBin().isEmpty());
        return 0;
    });
    QCOMPARE(child.status, 0);
    QCOMPARE(child.err, QByteArray("popen fail: Too many open files\n"));
    QCOMPARE(child.out, QByteArray("popen error: Too many open files\n"));
}

QTEST_APPLESS_MAIN(TestMcuBin)
#include "tst_mcubin.moc"
