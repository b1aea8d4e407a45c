#include "downloadfixture.h"

class TestDownloadFailure : public DownloadTest {
    Q_OBJECT

private slots:
    void runningStaysTrueAfterAFailure_data();
    void runningStaysTrueAfterAFailure();
    void failedDownloadIsStartedAgainInOnePass();
    void lostFolderFailsTheCommit();
    void endWithoutRunningIsNotCommitted();
    void endWithoutAReplyIsReported();
    void deletedReplyIsReportedAtTheEnd();
    void deletedManagerIsSurvived();
    void deletedOutsideManagerIsReplaced();
};

void TestDownloadFailure::runningStaysTrueAfterAFailure_data()
{
    QTest::addColumn<HttpScript>("script");
    QTest::addColumn<QUrl>("otherUrl"); // than the server's

    const HttpScript part = HttpScript::head(100).send("part");
    const QUrl goneServer = ScriptedHttpServer().url("/a");
    QTest::newRow("404 without a body") << HttpScript::fixedLength({}, 404) << QUrl();
    QTest::newRow("404 with a body") << HttpScript::fixedLength("not here", 404) << QUrl();
    QTest::newRow("500 without a body") << HttpScript::fixedLength({}, 500) << QUrl();
    QTest::newRow("500 with a body") << HttpScript::fixedLength("broken", 500) << QUrl();
    QTest::newRow("closed without an answer") << HttpScript().close() << QUrl();
    QTest::newRow("closed in mid-body") << HttpScript(part).close() << QUrl();
    QTest::newRow("reset in mid-body") << HttpScript(part).drop() << QUrl();
    QTest::newRow("no HTTP") << HttpScript().send("SSH-2.0-none\r\n\r\n").close() << QUrl();
    QTest::newRow("nobody listens") << HttpScript() << goneServer;
    QTest::newRow("unknown scheme") << HttpScript() << QUrl(QStringLiteral("nosuch://127.0.0.1/a"));
}

void TestDownloadFailure::runningStaysTrueAfterAFailure()
{
    QFETCH(HttpScript, script);
    QFETCH(QUrl, otherUrl);

    m_server->on("/a", script);
    const QUrl url = otherUrl.isEmpty() ? m_server->url("/a") : otherUrl;

    Download download;
    download.write("old");
    download.fileIo->setUrl(url);
    QString libraryText;
    connect(m_manager.get(), &QNetworkAccessManager::finished, this,
            [&](QNetworkReply *reply) { libraryText = reply->errorString(); });
    download.log.clear();
    download.fileIo->setRunning(true);
    AWAIT(download.failed());
    AWAIT(!libraryText.isEmpty());
    QCOMPARE(download.log.milestones(),
             Lines({"started() running=1", "runningChanged() running=1",
                    "error(3, " + libraryText.toUtf8() + ") running=1"}));
    QVERIFY(download.fileIo->running());
    QCOMPARE(download.content(), QByteArray("old"));
    QCOMPARE(download.files(), Lines({"file"}));
    deleteReleased();
    QVERIFY(!m_manager->lastReply());

    // It takes false before true does anything.
    download.log.clear();
    download.fileIo->setRunning(true);
    QCOMPARE(download.log.entries(), Lines());
    download.fileIo->setRunning(false);
    QCOMPARE(download.log.milestones(), Lines({"runningChanged() running=0"}));
    QCOMPARE(download.files(), Lines({"file"}));
}

void TestDownloadFailure::failedDownloadIsStartedAgainInOnePass()
{
    m_server->on("/b", HttpScript::fixedLength("body"));
    Download download;
    download.startOnce(m_server->url("/missing"));
    AWAIT(download.failed());
    download.log.clear();
    download.fileIo->start(m_server->url("/b"));
    AWAIT(download.finished());
    QCOMPARE(download.log.milestones(),
             Lines({"urlChanged() running=1", "started() running=1", "runningChanged() running=0",
                    "finished() running=0"}));
    QCOMPARE(m_manager->sent().size(), 2);
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestDownloadFailure::lostFolderFailsTheCommit()
{
    m_server->on("/a", HttpScript::head(4).hold().send("body"));
    Download download;
    QVERIFY(QDir(download.dir.path()).mkdir(QStringLiteral("sub")));
    const QString path = download.path("sub/file");
    download.fileIo->setDestination(QUrl::fromLocalFile(path));
    download.startOnce(m_server->url("/a"));
    AWAIT_EQUAL(m_server->requests().size(), 1);
    QVERIFY(QDir(download.path("sub")).removeRecursively());
    download.log.clear();
    m_server->release("/a");
    AWAIT(download.failed());
    QCOMPARE(download.log.milestones(),
             Lines({"error(2, Error while writing \"" + path.toUtf8() + "\") running=1"}));
    QVERIFY(download.fileIo->running());
    QVERIFY(QDir(download.dir.path()).isEmpty());
    deleteReleased();
    QVERIFY(!m_manager->lastReply());
}

void TestDownloadFailure::endWithoutRunningIsNotCommitted()
{
    Download download;
    download.write("old");
    download.fileIo->setProgress(0.5);
    // Between the two passes of a start there are a reply and a file, and `running` is false.
    QByteArrayList filesAtEnd;
    connect(download.fileIo.get(), &FileIO::progressChanged, this, [&] {
        if (download.fileIo->running())
            return;
        call(download.fileIo.get(), "onFinished");
        filesAtEnd = download.files();
    });
    download.log.clear();
    download.fileIo->start(m_server->url("/a"));
    QCOMPARE(download.log.milestones(),
             Lines({"urlChanged() running=0",
                    "error(2, Error while writing \"" + download.path().toUtf8() + "\") running=0",
                    "started() running=1", "runningChanged() running=1", "started() running=1"}));
    QCOMPARE(filesAtEnd, Lines({"file"}));
    QCOMPARE(download.content(), QByteArray("old"));
}

void TestDownloadFailure::endWithoutAReplyIsReported()
{
    Download download;
    QVERIFY(call(download.fileIo.get(), "onFinished"));
    QCOMPARE(download.log.entries(),
             Lines({"error(3, Network reply was deleted) running=0 progress=0"}));
}

void TestDownloadFailure::deletedReplyIsReportedAtTheEnd()
{
    Download download;
    download.write("old");
    download.startOnce(m_server->url("/a"));
    delete m_manager->lastReply();
    QCOMPARE(download.openFiles(), 1);
    download.log.clear();
    QVERIFY(call(download.fileIo.get(), "onFinished"));
    QCOMPARE(download.log.milestones(), Lines({"error(3, Network reply was deleted) running=1"}));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.content(), QByteArray("old"));
}

void TestDownloadFailure::deletedManagerIsSurvived()
{
    m_server->on("/a", HttpScript::head(100).send("part").hold());
    m_server->on("/b", HttpScript::fixedLength("body"));
    // The master's own manager, which goes when another takes its place.
    QuickDownloadMaster *const master = QuickDownloadMaster::instance();
    master->setNetworkAccessManager(nullptr);
    const QPointer<QNetworkAccessManager> own = master->networkAccessManager();

    Download download;
    download.startOnce(m_server->url("/a"));
    AWAIT_EQUAL(m_server->requests().size(), 1);
    download.log.clear();
    master->setNetworkAccessManager(m_manager.get());
    QVERIFY(!own);
    AWAIT_EQUAL(m_server->openConnectionCount(), 0);
    QCOMPARE(download.log.entries(), Lines());
    QVERIFY(download.fileIo->running());
    QCOMPARE(download.openFiles(), 1);

    download.fileIo->stop();
    QCOMPARE(download.log.milestones(), Lines({"runningChanged() running=0"}));
    QCOMPARE(download.files(), Lines());
    download.fileIo->start(m_server->url("/b"));
    AWAIT(download.finished());
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestDownloadFailure::deletedOutsideManagerIsReplaced()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    QuickDownloadMaster *const master = QuickDownloadMaster::instance();
    auto *const outside = new QNetworkAccessManager;
    master->setNetworkAccessManager(outside);
    delete outside;
    Download download;
    download.fileIo->start(m_server->url("/a"));
    AWAIT(download.finished());

    // The one that the master has made itself meanwhile.
    delete master->networkAccessManager();
    download.log.clear();
    download.fileIo->start();
    AWAIT(download.finished());
    QCOMPARE(m_manager->sent().size(), 0);
}

QTEST_GUILESS_MAIN(TestDownloadFailure)
#include "tst_downloadfailure.moc"
