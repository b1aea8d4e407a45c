#include "downloadfixture.h"

#include <QSaveFile>

/// The properties of a download, and what refuses to start it.
class TestDownloadRefusal : public DownloadTest {
    Q_OBJECT

private slots:
    void settersEmitOnlyOnAChange();
    void incompleteObjectNeverStarts();
    void emptyUrlIsRefused();
    void emptyDestinationIsRefused();
    void existingDestinationIsRefusedWithoutOverwrite();
    void unopenableDestinationIsReported_data();
    void unopenableDestinationIsReported();
    void refusedStartStillChangesRunning();
    void refusedRestartLeavesTheEarlierReply();
};

void TestDownloadRefusal::settersEmitOnlyOnAChange()
{
    FileIO fileIo;
    const TransferLog log(&fileIo);
    for (int i = 0; i < 2; ++i) {
        fileIo.setUrl(QUrl(QStringLiteral("http://h/a")));
        fileIo.setDestination(QUrl(QStringLiteral("/a")));
        fileIo.setFollowRedirects(true);
        fileIo.setOverwrite(false);
        fileIo.setProgress(0.3);
    }
    QCOMPARE(log.names(),
             Lines({"urlChanged", "destinationChanged", "followRedirectsChanged",
                    "overwriteChanged", "progressChanged"}));
    QCOMPARE(log.entries().last(), QByteArray("progressChanged() running=0 progress=0.3"));

    fileIo.setProgress(0.1 + 0.2); // not quite 0.3
    QCOMPARE(log.names().count(QByteArray("progressChanged")), 2);
    QCOMPARE(fileIo.url(), QUrl(QStringLiteral("http://h/a")));
    QCOMPARE(fileIo.destination(), QUrl(QStringLiteral("/a")));
    QVERIFY(fileIo.followRedirects());
    QVERIFY(!fileIo.overwrite());
}

void TestDownloadRefusal::incompleteObjectNeverStarts()
{
    const QTemporaryDir dir;
    FileIO fileIo;
    fileIo.setUrl(m_server->url("/a"));
    fileIo.setDestination(QUrl::fromLocalFile(dir.filePath(QStringLiteral("file"))));
    const TransferLog log(&fileIo);

    fileIo.start();
    fileIo.start(m_server->url("/b"));
    fileIo.start(QUrl());
    QCOMPARE(log.entries(), Lines());
    fileIo.setRunning(true);
    QCOMPARE(log.entries(), Lines({"runningChanged() running=1 progress=0"}));
    fileIo.start();
    fileIo.stop();
    QCOMPARE(log.names(), Lines({"runningChanged", "runningChanged"}));
    fileIo.classBegin();
    fileIo.start();
    QCOMPARE(log.names(), Lines({"runningChanged", "runningChanged"}));

    QCOMPARE(fileIo.url(), m_server->url("/a"));
    QCOMPARE(m_manager->sent().size(), 0);
    QVERIFY(QDir(dir.path()).isEmpty());
}

void TestDownloadRefusal::emptyUrlIsRefused()
{
    Download download;
    download.fileIo->setDestination(QUrl());
    download.log.clear();
    download.fileIo->start();
    download.fileIo->start(QUrl());
    QCOMPARE(download.log.entries(),
             Lines({"error(1, Url is empty) running=0 progress=0",
                    "error(1, Url is empty) running=0 progress=0"}));
    QCOMPARE(m_manager->sent().size(), 0);
}

void TestDownloadRefusal::emptyDestinationIsRefused()
{
    Download download;
    download.fileIo->setDestination(QUrl());
    download.log.clear();
    download.fileIo->start(QUrl(QStringLiteral("http://127.0.0.1/a")));
    QCOMPARE(download.log.entries(),
             Lines({"error(2, Destination is empty) running=0 progress=0"}));
    QCOMPARE(download.fileIo->url(), QUrl());
    QCOMPARE(m_manager->sent().size(), 0);
}

void TestDownloadRefusal::existingDestinationIsRefusedWithoutOverwrite()
{
    Download download;
    download.write("old");
    download.fileIo->setOverwrite(false);
    download.log.clear();
    download.fileIo->start(QUrl(QStringLiteral("http://127.0.0.1/a")));
    QCOMPARE(download.log.milestones(),
             Lines({"urlChanged() running=0",
                    "error(2, Overwriting not allowed for destination file \""
                        + download.path().toUtf8() + "\") running=0"}));
    QCOMPARE(m_manager->sent().size(), 0);
    QCOMPARE(download.content(), QByteArray("old"));
    QCOMPARE(download.files(), Lines({"file"}));
}

void TestDownloadRefusal::unopenableDestinationIsReported_data()
{
    QTest::addColumn<QByteArray>("name");

    QTest::newRow("folder") << QByteArray(".");
    QTest::newRow("missing folder") << QByteArray("missing/file");
}

void TestDownloadRefusal::unopenableDestinationIsReported()
{
    QFETCH(QByteArray, name);

    Download download;
    const QString path = download.path(name);
    download.fileIo->setDestination(QUrl::fromLocalFile(path));
    QSaveFile sameFile(path);
    QVERIFY(!sameFile.open(QIODevice::WriteOnly));
    QVERIFY(!sameFile.errorString().isEmpty());
    download.log.clear();

    download.fileIo->start(QUrl(QStringLiteral("http://127.0.0.1/a")));
    QCOMPARE(download.log.milestones(),
             Lines({"urlChanged() running=0",
                    "error(2, " + sameFile.errorString().toUtf8() + ") running=0"}));
    QCOMPARE(m_manager->sent().size(), 0);
    QVERIFY(QDir(download.dir.path()).isEmpty());
}

void TestDownloadRefusal::refusedStartStillChangesRunning()
{
    Download download;
    download.fileIo->setRunning(true);
    QCOMPARE(download.log.milestones(),
             Lines({"error(1, Url is empty) running=1", "runningChanged() running=1"}));
    download.log.clear();
    download.fileIo->setRunning(true);
    QCOMPARE(download.log.entries(), Lines());
}

void TestDownloadRefusal::refusedRestartLeavesTheEarlierReply()
{
    m_server->on("/a", HttpScript::head(kHugeBody).hold().fill(kHugeBody));
    Download download;
    download.startOnce(m_server->url("/a"));
    AWAIT_EQUAL(m_server->requestCount("/a"), 1);

    const QString missing = download.path("missing/file");
    download.fileIo->setDestination(QUrl::fromLocalFile(missing));
    download.log.clear();
    download.fileIo->start(m_server->url("/a"));
    QCOMPARE(download.log.names(), Lines({"error"}));
    QCOMPARE(download.files(), Lines());
    QCOMPARE(m_manager->sent().size(), 1);
    QVERIFY(m_manager->lastReply()->isRunning());

    // It goes on to its end, without a file to write or commit.
    download.log.clear();
    m_server->release("/a");
    AWAIT(download.failed());
    QCOMPARE(download.log.milestones(),
             Lines({"error(2, Error while writing \"" + missing.toUtf8() + "\") running=1"}));
    deleteReleased();
    QVERIFY(!m_manager->lastReply());
}

QTEST_GUILESS_MAIN(TestDownloadRefusal)
#include "tst_downloadrefusal.moc"
