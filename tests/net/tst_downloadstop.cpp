#include "downloadfixture.h"

/// What stopping or deleting a download leaves behind.
class TestDownloadStop : public DownloadTest {
    Q_OBJECT

private slots:
    void stopLeavesNothing();
    void stopBeforeTheRequestLeaves();
    void stopWhenIdleDoesNothing();
    void destinationChangedInsideStopIsTaken();
    void destructorLeavesNothing();
    void destructorStartsNothing();
};

void TestDownloadStop::stopLeavesNothing()
{
    m_server->on("/a", HttpScript::head(100).send("part").hold());
    Download download;
    startAndReceive(download);
    QCOMPARE(download.openFiles(), 1);
    download.log.clear();

    const QPointer<QNetworkReply> reply = m_manager->lastReply();
    download.fileIo->stop();
    QCOMPARE(download.log.milestones(),
             Lines({"error(3, " + reply->errorString().toUtf8() + ") running=0",
                    "runningChanged() running=0"}));
    QCOMPARE(reply->error(), QNetworkReply::OperationCanceledError);
    QCOMPARE(download.files(), Lines());
    deleteReleased();
    QVERIFY(!reply);
    AWAIT_EQUAL(m_server->openConnectionCount(), 0);
    QCOMPARE(download.log.milestones().size(), 2);
}

void TestDownloadStop::stopBeforeTheRequestLeaves()
{
    Download download;
    download.startOnce(m_server->url("/a"));
    download.log.clear();
    download.fileIo->stop();
    QCOMPARE(download.log.names(), Lines({"error", "runningChanged"}));
    QCOMPARE(download.files(), Lines());
    deleteReleased();
    QVERIFY(!m_manager->lastReply());
}

void TestDownloadStop::stopWhenIdleDoesNothing()
{
    Download download;
    download.fileIo->stop();
    download.fileIo->setRunning(false);
    QCOMPARE(download.log.entries(), Lines());
}

void TestDownloadStop::destinationChangedInsideStopIsTaken()
{
    m_server->on("/b", HttpScript::fixedLength("body"));
    Download download;
    // Here too the file is still held while `running` is false.
    connect(download.fileIo.get(), &FileIO::error, this,
            [&] { download.fileIo->setDestination(download.fileUrl("next")); });
    download.startOnce(m_server->url("/a"));
    download.log.clear();
    download.fileIo->stop();
    QCOMPARE(download.log.names(), Lines({"error", "destinationChanged", "runningChanged"}));
    QCOMPARE(download.files(), Lines());
    download.fileIo->start(m_server->url("/b"));
    AWAIT(download.finished());
    QCOMPARE(download.files(), Lines({"next"}));
}

void TestDownloadStop::destructorLeavesNothing()
{
    m_server->on("/a", HttpScript::head(100).send("part").hold());
    Download download;
    download.write("old");
    startAndReceive(download);
    QCOMPARE(download.openFiles(), 1);
    download.log.clear();

    const QPointer<QNetworkReply> reply = m_manager->lastReply();
    download.fileIo.reset();
    QCOMPARE(download.log.milestones(),
             Lines({"error(3, " + reply->errorString().toUtf8() + ") running=1"}));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.content(), QByteArray("old"));
    deleteReleased();
    QVERIFY(!reply);
    AWAIT_EQUAL(m_server->openConnectionCount(), 0);
}

void TestDownloadStop::destructorStartsNothing()
{
    Download download;
    download.startOnce(m_server->url("/a"));
    FileIO *const fileIo = download.fileIo.get();
    connect(fileIo, &FileIO::error, this, [fileIo] {
        fileIo->stop();
        fileIo->start();
        fileIo->setRunning(true);
    });
    download.fileIo.reset();
    QCOMPARE(m_manager->sent().size(), 1);
    QCOMPARE(download.files(), Lines());
}

QTEST_GUILESS_MAIN(TestDownloadStop)
#include "tst_downloadstop.moc"
