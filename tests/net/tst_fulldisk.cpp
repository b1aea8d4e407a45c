#include "downloadfixture.h"

#include <QStorageInfo>

class TestFullDisk : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void downloadFailsAtTheCommit_data();
    void downloadFailsAtTheCommit();
    void refusedRedirectIsNotCommittedCutOff_data();
    void refusedRedirectIsNotCommittedCutOff();
};

namespace {

constexpr qint64 kMostToFill = qint64{1024} * 1024;
constexpr qint64 kPage = 4096; // what the disk gives away at once

/// Leaves `room` bytes of the disk with the temporary files while it lives.
class FullDisk {
public:
    explicit FullDisk(qint64 room)
        : m_filler(QDir::temp().filePath(QStringLiteral("filler")))
    {
        if (!m_filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
            qFatal("the disk cannot be filled");
        const QByteArray page(kPage, 'x');
        while (m_filler.write(page) == page.size()) { }
        m_filler.resize(m_filler.size() - room);
    }
    ~FullDisk() { m_filler.remove(); }
    FullDisk(const FullDisk &) = delete;
    FullDisk &operator=(const FullDisk &) = delete;

private:
    QFile m_filler;
};

} // namespace

void TestFullDisk::initTestCase()
{
    if (QStorageInfo(QDir::tempPath()).bytesTotal() > kMostToFill)
        QSKIP("needs a disk to fill: start it with sandbox/run --small /tmp=65536");
}

void TestFullDisk::downloadFailsAtTheCommit_data()
{
    QTest::addColumn<int>("size");

    QTest::newRow("in the middle") << 1000000;
    QTest::newRow("at the end") << 100; // what was buffered is written then
}

void TestFullDisk::downloadFailsAtTheCommit()
{
    QFETCH(int, size);

    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(size).fill(size));
    Download download;
    download.write("old");
    const FullDisk disk(0);
    download.startOnce(server.url("/a"));
    AWAIT(download.failed() || download.finished());
    QCOMPARE(
        download.log.milestones(),
        Lines({"started() running=1", "runningChanged() running=1",
               "error(2, Error while writing \"" + download.path().toUtf8() + "\") running=1"}));
    QCOMPARE(download.content(), QByteArray("old"));
    QCOMPARE(download.files(), Lines({"file"}));
}

void TestFullDisk::refusedRedirectIsNotCommittedCutOff_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<qint64>("room");
    QTest::addColumn<bool>("fits");

    QTest::newRow("no room") << 100 << qint64{0} << false;
    QTest::newRow("room for a part") << 10000 << kPage << false;
    QTest::newRow("room enough") << 100 << kPage << true;
}

void TestFullDisk::refusedRedirectIsNotCommittedCutOff()
{
    QFETCH(int, size);
    QFETCH(qint64, room);
    QFETCH(bool, fits);

    const QByteArray body(size, 'm');
    ScriptedHttpServer server;
    server.on("/a", HttpScript::redirect("b", body));
    Download download;
    download.write("old");
    const FullDisk disk(room);
    download.startOnce(server.url("/a"));
    AWAIT(download.failed());
    QCOMPARE(download.log.milestones(),
             Lines({"started() running=1", "runningChanged() running=1",
                    "redirected(" + server.url("/b").toEncoded() + ") running=1",
                    "error(3, Re-directs not allowed) running=1"}));
    QVERIFY(download.content() == (fits ? body : QByteArray("old")));
    QCOMPARE(download.files(), Lines({"file"}));
}

QTEST_GUILESS_MAIN(TestFullDisk)
#include "tst_fulldisk.moc"
