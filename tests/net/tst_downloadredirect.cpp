#include "downloadfixture.h"

class TestDownloadRedirect : public DownloadTest {
    Q_OBJECT

private slots:
    void redirectIsFollowed_data();
    void redirectIsFollowed();
    void redirectsAreFollowedWithoutLimit();
    void refusedRedirectCommitsItsBody_data();
    void refusedRedirectCommitsItsBody();
    void refusedRestartOfARedirectKeepsWhatIsHeld();
};

void TestDownloadRedirect::redirectIsFollowed_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("location"); // absolute ones lack the server
    QTest::addColumn<QByteArray>("target");

    QTest::newRow("absolute") << 302 << QByteArray("http:/x/target?q#part")
                              << QByteArray("/x/target?q#part");
    QTest::newRow("path") << 301 << QByteArray("/x/target") << QByteArray("/x/target");
    QTest::newRow("relative") << 303 << QByteArray("target") << QByteArray("/a/b/target");
    QTest::newRow("relative, up") << 307 << QByteArray("../target") << QByteArray("/a/target");
    QTest::newRow("query") << 308 << QByteArray("?again") << QByteArray("/a/b/start?again");
}

void TestDownloadRedirect::redirectIsFollowed()
{
    QFETCH(int, status);
    QFETCH(QByteArray, location);
    QFETCH(QByteArray, target);

    const QByteArray root = m_server->url({}).toEncoded();
    location.replace("http:", root);
    const QByteArray targetPath = target.split('#').first();
    m_server->on("/a/b/start?x", HttpScript::redirect(location, "moved", status));
    m_server->on(targetPath, HttpScript::fixedLength("body"));
    Download download;
    download.fileIo->setFollowRedirects(true);
    download.startOnce(m_server->url("/a/b/start?x"));
    AWAIT(download.finished());
    QCOMPARE(download.log.milestones(),
             Lines({"started() running=1", "runningChanged() running=1",
                    "redirected(" + root + target + ") running=1", "urlChanged() running=1",
                    "started() running=1", "runningChanged() running=0", "finished() running=0"}));
    QCOMPARE(download.fileIo->url(), QUrl::fromEncoded(root + target));
    QCOMPARE(m_manager->sent().size(), 2);
    QCOMPARE(m_server->requests().last().path, targetPath);
    QCOMPARE(download.content(), QByteArray("body"));
    QCOMPARE(download.files(), Lines({"file"}));
}

void TestDownloadRedirect::redirectsAreFollowedWithoutLimit()
{
    constexpr int kRedirects = 60; // the library's own limit is 50
    for (int i = 0; i < kRedirects; ++i)
        m_server->on("/a", HttpScript::redirect("/a"));
    m_server->on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.fileIo->setFollowRedirects(true);
    download.startOnce(m_server->url("/a"));
    AWAIT(download.finished());
    QVERIFY(!download.failed());
    QCOMPARE(download.log.names().count(QByteArray("redirected")), kRedirects);
    QCOMPARE(download.log.names().count(QByteArray("started")), kRedirects + 1);
    QCOMPARE(m_server->requests().size(), kRedirects + 1);
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestDownloadRedirect::refusedRedirectCommitsItsBody_data()
{
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("body") << QByteArray("moved");
    QTest::newRow("no body") << QByteArray();
}

void TestDownloadRedirect::refusedRedirectCommitsItsBody()
{
    QFETCH(QByteArray, body);

    m_server->on("/a", HttpScript::redirect("b", body));
    m_server->on("/b", HttpScript::fixedLength("other"));
    Download download;
    download.write("old");
    download.fileIo->setUrl(m_server->url("/a"));
    QByteArray contentAtError;
    connect(download.fileIo.get(), &FileIO::error, this,
            [&] { contentAtError = download.content(); });
    download.log.clear();
    download.fileIo->setRunning(true);
    AWAIT(download.failed());
    QCOMPARE(download.log.milestones(),
             Lines({"started() running=1", "runningChanged() running=1",
                    "redirected(" + m_server->url("/b").toEncoded() + ") running=1",
                    "error(3, Re-directs not allowed) running=1"}));
    QCOMPARE(contentAtError, QByteArray("old"));
    QCOMPARE(download.content(), body);
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.fileIo->url(), m_server->url("/a"));
    QVERIFY(download.fileIo->running());
    QCOMPARE(m_server->requests().size(), 1);
    deleteReleased();
    QVERIFY(!m_manager->lastReply());
}

void TestDownloadRedirect::refusedRestartOfARedirectKeepsWhatIsHeld()
{
    m_server->on("/a", HttpScript().hold().then(HttpScript::redirect("/b", "moved")));
    Download download;
    download.fileIo->setFollowRedirects(true);
    download.fileIo->setOverwrite(false);
    download.startOnce(m_server->url("/a"));
    AWAIT_EQUAL(m_server->requests().size(), 1);
    download.write("appeared");
    download.log.clear();
    m_server->release("/a");
    AWAIT(download.failed());
    QCOMPARE(download.log.milestones(),
             Lines({"redirected(" + m_server->url("/b").toEncoded() + ") running=1",
                    "urlChanged() running=1",
                    "error(2, Overwriting not allowed for destination file \""
                        + download.path().toUtf8() + "\") running=1"}));

    // The ended reply and the temporary file are still there.
    deleteReleased();
    QVERIFY(m_manager->lastReply());
    QCOMPARE(download.openFiles(), 1);
    QCOMPARE(m_server->requests().size(), 1);

    // They go with the stop, and nothing is committed.
    download.log.clear();
    download.fileIo->stop();
    QCOMPARE(download.log.milestones(), Lines({"runningChanged() running=0"}));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.content(), QByteArray("appeared"));
    deleteReleased();
    QVERIFY(!m_manager->lastReply());
}

QTEST_GUILESS_MAIN(TestDownloadRedirect)
#include "tst_downloadredirect.moc"
