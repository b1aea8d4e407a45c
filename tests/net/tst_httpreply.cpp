#include "httpfixture.h"

/// The one reply and the one text that all requests of an object share.
class TestHttpReply : public DownloadTest {
    Q_OBJECT

private slots:
    void lateAnswerReadsTheNewerReply();
    void lateAnswerIsForgottenByTheNextCall();
    void repliesStayAlive();
    void innerCallSharesTheText();
    void readWithoutAReplyDoesNothing();
    void replyDeletedMeanwhileIsSurvived();
    void managerDeletedMeanwhileIsSurvived();
    void objectDeletedMeanwhileIsSurvived();
    void downloadReleasesTheHeldReply();
    void downloadStartedMeanwhileIsWhole();
    void destructorAbortsTheHeldReply();
};

void TestHttpReply::lateAnswerReadsTheNewerReply()
{
    m_server->on("/late", HttpScript().hold().then(HttpScript::fixedLength("late")));
    m_server->on("/new", HttpScript().hold().then(HttpScript::fixedLength("new")));
    FileIO fileIo;
    QCOMPARE(getUnanswered(fileIo, m_server->url("/late")), QString());

    QNetworkReply *const late = m_manager->lastReply();
    connect(late, &QNetworkReply::readyRead, this, [this] { m_server->release("/new"); });
    soon(this, [this] { m_server->release("/late"); });
    QCOMPARE(fileIo.httpGet(text(m_server->url("/new"))), QStringLiteral("new"));
    QCOMPARE(late->bytesAvailable(), 4); // nobody has read it
    QCOMPARE(m_manager->lastReply()->bytesAvailable(), 0);
}

void TestHttpReply::lateAnswerIsForgottenByTheNextCall()
{
    m_server->on("/a", HttpScript().hold().then(HttpScript::fixedLength("late")));
    FileIO fileIo;
    QCOMPARE(getUnanswered(fileIo, m_server->url("/a")), QString());
    m_server->release("/a");
    AWAIT(m_manager->lastReply()->isFinished());
    QCOMPARE(m_manager->lastReply()->bytesAvailable(), 0); // it was read
    fileIo.setRunning(true);
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), QString());
}

void TestHttpReply::repliesStayAlive()
{
    m_server->on("/a", HttpScript::silence());
    FileIO fileIo;
    QCOMPARE(getUnanswered(fileIo, m_server->url("/a")), QString());
    QCOMPARE(getUnanswered(fileIo, m_server->url("/a")), QString());
    deleteReleased();
    QCOMPARE(m_manager->sent().size(), 2);
    for (const RecordingManager::Sent &sent : m_manager->sent()) {
        QVERIFY(sent.reply);
        QVERIFY(sent.reply->isRunning());
        // Still connected to the object.
        QVERIFY(QObject::disconnect(sent.reply, SIGNAL(readyRead()), &fileIo,
                                    SLOT(onReadyReadReply())));
    }
}

void TestHttpReply::innerCallSharesTheText()
{
    m_server->on("/outer", HttpScript::silence());
    m_server->on("/inner", HttpScript::fixedLength("inner"));
    FileIO fileIo;
    QString inner;
    soon(this, [&] { inner = fileIo.httpGet(text(m_server->url("/inner"))); });
    QCOMPARE(fileIo.httpGet(text(m_server->url("/outer"))), QStringLiteral("inner"));
    QCOMPARE(inner, QStringLiteral("inner"));
}

void TestHttpReply::readWithoutAReplyDoesNothing()
{
    FileIO fileIo;
    const TransferLog log(&fileIo);
    QVERIFY(call(&fileIo, "onReadyReadReply"));
    QCOMPARE(log.entries(), Lines());
}

void TestHttpReply::replyDeletedMeanwhileIsSurvived()
{
    m_server->on("/a", HttpScript::silence());
    m_server->on("/b", HttpScript::fixedLength("body"));
    FileIO fileIo;
    soon(this, [&] {
        delete m_manager->lastReply();
        call(&fileIo, "onReadyReadReply");
    });
    QCOMPARE(getUnanswered(fileIo, m_server->url("/a")), QString());
    QVERIFY(!m_manager->lastReply());
    QCOMPARE(fileIo.httpGet(text(m_server->url("/b"))), QStringLiteral("body"));
}

void TestHttpReply::managerDeletedMeanwhileIsSurvived()
{
    m_server->on("/a", HttpScript::silence());
    m_server->on("/b", HttpScript::fixedLength("body"));
    FileIO fileIo;
    soon(this, [&] { m_manager.reset(); });
    QCOMPARE(getUnanswered(fileIo, m_server->url("/a")), QString());
    QVERIFY(!m_manager);
    QCOMPARE(fileIo.httpGet(text(m_server->url("/b"))), QStringLiteral("body"));
}

void TestHttpReply::objectDeletedMeanwhileIsSurvived()
{
    m_server->on("/a", HttpScript::silence());
    auto fileIo = std::make_unique<FileIO>();
    soon(this, [&] { fileIo.reset(); });
    const FakeClock clock(kNoon, 50);
    const QString answer = fileIo->httpGet(text(m_server->url("/a")));
    QCOMPARE(answer, QString());
    QVERIFY(!answer.isNull());
    QVERIFY(!fileIo);
    QCOMPARE(clock.looks(), 3); // what is gone waits no longer
}

void TestHttpReply::downloadReleasesTheHeldReply()
{
    m_server->on("/a", HttpScript::silence());
    m_server->on("/b", HttpScript::fixedLength("body"));
    Download download;
    QCOMPARE(getUnanswered(*download.fileIo, m_server->url("/a")), QString());
    const QPointer<QNetworkReply> held = m_manager->lastReply();
    download.startOnce(m_server->url("/b"));
    QVERIFY(held);
    QVERIFY(held->isRunning()); // released, not aborted
    AWAIT(download.finished());
    QVERIFY(!held);
    QVERIFY(!download.failed());
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestHttpReply::downloadStartedMeanwhileIsWhole()
{
    m_server->on("/a", HttpScript().hold().then(HttpScript::fixedLength("late")));
    m_server->on("/b", HttpScript::head(10).send("begun").hold().send("ended"));
    Download download;
    soon(this, [&] {
        download.startOnce(m_server->url("/b"));
        m_server->release("/a");
    });
    QCOMPARE(download.fileIo->httpGet(text(m_server->url("/a"))), QString());
    m_server->release("/b");
    AWAIT(download.finished());
    QVERIFY(!download.failed());
    QCOMPARE(download.content(), QByteArray("begunended"));
}

void TestHttpReply::destructorAbortsTheHeldReply()
{
    m_server->on("/a", HttpScript::head(100).hold());
    Download download;
    QCOMPARE(getUnanswered(*download.fileIo, m_server->url("/a")), QString());
    const QPointer<QNetworkReply> held = m_manager->lastReply();
    // Under way: a connection that a request has not used yet would be kept for the next one.
    AWAIT(held->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid());
    QVERIFY(held->isRunning());
    download.fileIo.reset();
    QCOMPARE(held->error(), QNetworkReply::OperationCanceledError);
    QCOMPARE(download.log.entries(), Lines());
    deleteReleased();
    QVERIFY(!held);
    AWAIT_EQUAL(m_server->openConnectionCount(), 0);
}

QTEST_GUILESS_MAIN(TestHttpReply)
#include "tst_httpreply.moc"
