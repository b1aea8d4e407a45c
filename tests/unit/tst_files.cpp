#include "capture.h"
#include "child.h"
#include "fileio.h"

#include <QCryptographicHash>
#include <QtTest>

#include <csignal>
#include <memory>
#include <sys/resource.h>

class TestFiles : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void patternIsExpanded();
    void patternWithoutMatchYieldsNothing();
    void directoryYieldsBareNames();
    void orderIsThatOfTheListing();
    void severalPatternsAreListedOneAfterTheOther();
    void patternIsACommandLine();
    void longNameMakesSeveralEntries_data();
    void longNameMakesSeveralEntries();
    void onlyTheLineFeedIsTakenOff();
    void emptyLineIsAnEmptyEntry();
    void textIsLatin1BothWays();
    void percentSigns_data();
    void percentSigns();
    void hugePatternIsListed();
    void commandIsPrintedFirst();
    void complaintGoesToStandardError();
    void noShellYieldsNothing();

    void copyMakesAnEqualFile();
    void copyReplacesTheDestination();
    void failedCopyRemovesTheDestination();
    void copyIntoAMissingDirectoryFails();
    void copyOntoADirectoryFails();
    void copyPrintsNothing();

    void existsTellsFilesAndDirectories();

    void md5IsOfTheJoinedStrings_data();
    void md5IsOfTheJoinedStrings();
    void md5Takes255Entries();
    void md5Of256EntriesDoesNotReturn();

private:
    QString path(const QString &name) const { return m_dir->filePath(name); }
    void put(const QByteArray &name, const QByteArray &content = "x") const;
    QByteArray content(const QString &name) const;
    QStringList list(const QString &pattern);

    std::unique_ptr<QTemporaryDir> m_dir;
    QByteArray m_printed;
};

void TestFiles::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void TestFiles::cleanup()
{
    m_dir.reset();
}

/// By the C library, since the name may not be UTF-8.
void TestFiles::put(const QByteArray &name, const QByteArray &content) const
{
    const QByteArray file = m_dir->path().toLocal8Bit() + '/' + name;
    FILE *const stream = std::fopen(file.constData(), "w");
    QVERIFY(stream);
    std::fwrite(content.constData(), 1, static_cast<std::size_t>(content.size()), stream);
    std::fclose(stream);
}

QByteArray TestFiles::content(const QString &name) const
{
    QFile file(path(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("no such file");
}

QStringList TestFiles::list(const QString &pattern)
{
    DescriptorCapture out(1);
    QStringList entries = FileIO().getIpkList(pattern);
    m_printed = out.take();
    return entries;
}

void TestFiles::patternIsExpanded()
{
    put("b.ipk");
    put("a.ipk");
    put("c.txt");
    QCOMPARE(list(path(QStringLiteral("*.ipk"))),
             QStringList({path(QStringLiteral("a.ipk")), path(QStringLiteral("b.ipk"))}));
}

void TestFiles::patternWithoutMatchYieldsNothing()
{
    put("c.txt");
    DescriptorCapture err(2);
    const QStringList entries = list(path(QStringLiteral("*.ipk")));
    err.take();
    QCOMPARE(entries, QStringList());
}

void TestFiles::directoryYieldsBareNames()
{
    put("b.ipk");
    put("a.ipk");
    put("c.txt");
    QCOMPARE(
        list(m_dir->path()),
        QStringList({QStringLiteral("a.ipk"), QStringLiteral("b.ipk"), QStringLiteral("c.txt")}));
}

void TestFiles::orderIsThatOfTheListing()
{
    put("a.ipk");
    put("b.ipk");
    put("c.ipk");
    QCOMPARE(
        list(QStringLiteral("-r ") + m_dir->path()),
        QStringList({QStringLiteral("c.ipk"), QStringLiteral("b.ipk"), QStringLiteral("a.ipk")}));
}

void TestFiles::severalPatternsAreListedOneAfterTheOther()
{
    put("a.ipk");
    const QString file = path(QStringLiteral("a.ipk"));
    QCOMPARE(list(file + QLatin1Char(' ') + file), QStringList({file, file}));
}

void TestFiles::patternIsACommandLine()
{
    put("a.ipk");
    QCOMPARE(list(m_dir->path() + QStringLiteral("; echo \"$((1 + 2))\"")),
             QStringList({QStringLiteral("a.ipk"), QStringLiteral("3")}));
}

void TestFiles::longNameMakesSeveralEntries_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<QList<int>>("pieces");

    QTest::newRow("198") << 198 << QList<int>{198};
    QTest::newRow("199") << 199 << QList<int>{199, 0};
    QTest::newRow("200") << 200 << QList<int>{199, 1};
    QTest::newRow("250") << 250 << QList<int>{199, 51};
}

void TestFiles::longNameMakesSeveralEntries()
{
    QFETCH(int, length);
    QFETCH(QList<int>, pieces);

    QByteArray name;
    for (int i = 0; i < length; ++i)
        name.append(static_cast<char>('a' + i % 26));
    put(name);

    QStringList expected;
    int position = 0;
    for (const int piece : pieces) {
        expected.append(QString::fromLatin1(name.mid(position, piece)));
        position += piece;
    }
    QCOMPARE(list(m_dir->path()), expected);
}

void TestFiles::onlyTheLineFeedIsTakenOff()
{
    put(" a.ipk \r");
    put("b.ipk\t");
    // The first piece of a long line ends with this one.
    const QByteArray cut = QByteArray(198, 'n') + '\r';
    put(cut + "rest");
    QCOMPARE(list(m_dir->path()),
             QStringList({QStringLiteral(" a.ipk \r"), QStringLiteral("b.ipk\t"),
                          QString::fromLatin1(cut), QStringLiteral("rest")}));
}

void TestFiles::emptyLineIsAnEmptyEntry()
{
    put("a.ipk");
    QCOMPARE(list(m_dir->path() + QStringLiteral("; echo; echo; echo b")),
             QStringList({QStringLiteral("a.ipk"), QString(), QString(), QStringLiteral("b")}));
}

void TestFiles::textIsLatin1BothWays()
{
    put("caf\xE9.ipk");
    put("\xE4\xB8\xAD.ipk");
    const QString directory = m_dir->path() + QLatin1Char('/');
    QCOMPARE(list(directory + QString::fromLatin1("caf\xE9*")),
             QStringList({directory + QString::fromLatin1("caf\xE9.ipk")}));
    QVERIFY(list(m_dir->path()).contains(QString::fromLatin1("\xE4\xB8\xAD.ipk")));
}

void TestFiles::percentSigns_data()
{
    QTest::addColumn<QByteArray>("pattern");
    QTest::addColumn<QByteArray>("name");

    QTest::newRow("doubled is one") << QByteArray("a%%b") << QByteArray("a%b");
    QTest::newRow("twice doubled") << QByteArray("a%%%%b") << QByteArray("a%%b");
    QTest::newRow("alone") << QByteArray("a%b") << QByteArray("a%b");
    QTest::newRow("conversion") << QByteArray("a%s%d%n") << QByteArray("a%s%d%n");
    QTest::newRow("at the end") << QByteArray("a%") << QByteArray("a%");
    QTest::newRow("three") << QByteArray("a%%%b") << QByteArray("a%%b");
}

void TestFiles::percentSigns()
{
    QFETCH(QByteArray, pattern);
    QFETCH(QByteArray, name);

    put(name);
    const QString expected = path(QString::fromLatin1(name));
    QCOMPARE(list(path(QString::fromLatin1(pattern))), QStringList({expected}));
    QCOMPARE(m_printed, "sys_line:ls " + expected.toLatin1() + '\n');
}

void TestFiles::hugePatternIsListed()
{
    put("a.ipk");
    const QString file = path(QStringLiteral("a.ipk"));
    QStringList files;
    for (int i = 0; i < 1000; ++i)
        files.append(file);
    QCOMPARE(list(files.join(QLatin1Char(' '))), files);
}

void TestFiles::commandIsPrintedFirst()
{
    DescriptorCapture err(2);
    list(path(QStringLiteral("no*match")));
    err.take();
    QCOMPARE(m_printed, "sys_line:ls " + m_dir->path().toLatin1() + "/no*match\n");
}

void TestFiles::complaintGoesToStandardError()
{
    DescriptorCapture err(2);
    const QStringList entries = list(path(QStringLiteral("missing")));
    const QByteArray complaint = err.take();
    QCOMPARE(entries, QStringList());
    QVERIFY2(complaint.contains("missing"), complaint.constData());
}

void TestFiles::noShellYieldsNothing()
{
    put("a.ipk");
    const QString directory = m_dir->path();
    const ChildResult child = runInChild([&directory] {
        FileIO fileIO;
        // Without descriptors to spare there is no pipe, hence no stream.
        const rlimit standardOnly{3, 3};
        CHILD_VERIFY(setrlimit(RLIMIT_NOFILE, &standardOnly) == 0);
        CHILD_VERIFY(fileIO.getIpkList(directory).isEmpty());
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
    QCOMPARE(child.out, "sys_line:ls " + directory.toLatin1() + '\n');
}

void TestFiles::copyMakesAnEqualFile()
{
    const QByteArray bytes("\0\x01\xFFtext\n", 8);
    put("source", bytes);
    QVERIFY(FileIO().copy(path(QStringLiteral("new")), path(QStringLiteral("source"))));
    QCOMPARE(content(QStringLiteral("new")), bytes);
    QCOMPARE(content(QStringLiteral("source")), bytes);
}

void TestFiles::copyReplacesTheDestination()
{
    put("source", "new");
    put("destination", "old and longer");
    QVERIFY(FileIO().copy(path(QStringLiteral("destination")), path(QStringLiteral("source"))));
    QCOMPARE(content(QStringLiteral("destination")), QByteArray("new"));
}

void TestFiles::failedCopyRemovesTheDestination()
{
    put("destination", "old");
    QVERIFY(!FileIO().copy(path(QStringLiteral("destination")), path(QStringLiteral("missing"))));
    QVERIFY(!QFile::exists(path(QStringLiteral("destination"))));
}

void TestFiles::copyIntoAMissingDirectoryFails()
{
    put("source");
    QVERIFY(!FileIO().copy(path(QStringLiteral("no/such/file")), path(QStringLiteral("source"))));
    QVERIFY(QFile::exists(path(QStringLiteral("source"))));
}

void TestFiles::copyOntoADirectoryFails()
{
    put("source");
    QVERIFY(QDir(m_dir->path()).mkdir(QStringLiteral("directory")));
    QVERIFY(!FileIO().copy(path(QStringLiteral("directory")), path(QStringLiteral("source"))));
    QVERIFY(QFileInfo(path(QStringLiteral("directory"))).isDir());
}

void TestFiles::copyPrintsNothing()
{
    put("source");
    const MessageCapture messages;
    DescriptorCapture out(1);
    DescriptorCapture err(2);
    FileIO().copy(path(QStringLiteral("destination")), path(QStringLiteral("source")));
    FileIO().copy(path(QStringLiteral("destination")), path(QStringLiteral("missing")));
    FileIO().exists(path(QStringLiteral("missing")));
    const QByteArray complaint = err.take();
    QCOMPARE(out.take(), QByteArray());
    QCOMPARE(complaint, QByteArray());
    QCOMPARE(messages.messages(), QStringList());
}

void TestFiles::existsTellsFilesAndDirectories()
{
    put("file");
    QVERIFY(FileIO().exists(path(QStringLiteral("file"))));
    QVERIFY(FileIO().exists(m_dir->path()));
    QVERIFY(!FileIO().exists(path(QStringLiteral("missing"))));
    QVERIFY(!FileIO().exists(QString()));
    // No shell, so no pattern.
    QVERIFY(!FileIO().exists(path(QStringLiteral("f*"))));
}

void TestFiles::md5IsOfTheJoinedStrings_data()
{
    QTest::addColumn<QStringList>("strings");
    QTest::addColumn<QString>("expected");

    // Digests by md5sum of coreutils.
    const QString ofNothing = QStringLiteral("d41d8cd98f00b204e9800998ecf8427e");
    const QString ofAbc = QStringLiteral("900150983cd24fb0d6963f7d28e17f72");
    QTest::newRow("empty list") << QStringList() << ofNothing;
    QTest::newRow("null and empty strings")
        << QStringList({QString(), QStringLiteral("")}) << ofNothing;
    QTest::newRow("one") << QStringList({QStringLiteral("abc")}) << ofAbc;
    QTest::newRow("ab, c") << QStringList({QStringLiteral("ab"), QStringLiteral("c")}) << ofAbc;
    QTest::newRow("a, bc") << QStringList({QStringLiteral("a"), QStringLiteral("bc")}) << ofAbc;
    QTest::newRow("cut at NUL") << QStringList(
        {QString::fromLatin1("ab\0zz", 5), QStringLiteral("c")})
                                << ofAbc;
    QTest::newRow("NUL first") << QStringList(
        {QString::fromLatin1("\0zz", 3), QStringLiteral("abc")})
                               << ofAbc;
    QTest::newRow("UTF-8") << QStringList({QString::fromUtf8("升级"), QString::fromUtf8("é")})
                           << QStringLiteral("4d6912eff4c59cbee6618f5f0bfedd00");
}

void TestFiles::md5IsOfTheJoinedStrings()
{
    QFETCH(QStringList, strings);
    QFETCH(QString, expected);

    QCOMPARE(FileIO().md5(strings), expected);
}

void TestFiles::md5Takes255Entries()
{
    QStringList strings;
    for (int i = 0; i < 255; ++i)
        strings.append(QString::number(i));
    QCOMPARE(FileIO().md5(strings),
             QString::fromLatin1(
                 QCryptographicHash::hash(strings.join(QString()).toUtf8(), QCryptographicHash::Md5)
                     .toHex()));
}

void TestFiles::md5Of256EntriesDoesNotReturn()
{
    const ChildResult child = runInChild(
        [] {
            QStringList strings;
            for (int i = 0; i < 256; ++i)
                strings.append(QString());
            FileIO().md5(strings);
            return 0;
        },
        1);
    QVERIFY(child.diedOf(SIGALRM));
}

QTEST_APPLESS_MAIN(TestFiles)
#include "tst_files.moc"
