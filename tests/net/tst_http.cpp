#include "capture.h"
#include "downloadfixture.h"
#include "fakeclock.h"

#include <QTimer>

#include <functional>

class TestHttp : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Requests
    void getSendsTheUrlAlone();
    void postSendsTheUrlAndTheBodyAlone();
    void postBodyIsLatin1_data();
    void postBodyIsLatin1();
    void urlIsParsedTolerantly();
    void runningSendsNothing();
    void failedDownloadSendsNothing();

    // Answers
    void answerIsReturned_data();
    void answerIsReturned();
    void noAnswerIsAnEmptyText_data();
    void noAnswerIsAnEmptyText();
    void firstPieceIsReturnedAlone();
    void secondPieceWithinAPauseReplacesTheFirst();
    void postReturnsTheAnswer();
    void callForgetsTheEarlierText();

    // The wait
    void silenceIsWaitedOutInNinePauses();
    void answerEndsTheWaitAfterItsPause();
    void silenceIsWaitedOutInRealTime();
    void eventsAreProcessedMeanwhile();
    void delayLastsByTheWallClock();
    void delayOfNothingProcessesNothing_data();
    void delayOfNothingProcessesNothing();
    void delayEndsEarlyAcrossMidnight();

    // The shared reply
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

private:
    std::unique_ptr<RecordingManager> m_manager;
};

namespace {

const QTime kNoon(12, 0);

QString text(const QUrl &url)
{
    return QString::fromLatin1(url.toEncoded());
}

/// Runs `action` when the event loop turns next, if `context` still lives then.
void soon(QObject *context, const std::function<void()> &action)
{
    auto *const timer = new QTimer(context);
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, context, action);
    timer->start(0);
}

/// Asks for what is not going to be answered, without a wait in real time.
QString getUnanswered(FileIO &fileIo, const QUrl &url)
{
    const FakeClock clock(kNoon, 50);
    return fileIo.httpGet(text(url));
}

bool hangsUp(const HttpScript &script)
{
    const QList<HttpScript::Step> &steps = script.steps();
    return !steps.isEmpty() && steps.last().kind == HttpScript::Step::Close;
}

} // namespace

void TestHttp::init()
{
    // No test meets the connections of another.
    m_manager = std::make_unique<RecordingManager>();
}

void TestHttp::cleanup()
{
    m_manager.reset();
}

void TestHttp::getSendsTheUrlAlone()
{
    ScriptedHttpServer server;
    server.on("/a?q=1", HttpScript::fixedLength("body"));
    FileIO fileIo;
    fileIo.httpGet(text(server.url("/a?q=1")));
    QCOMPARE(m_manager->sent().size(), 1);
    QCOMPARE(m_manager->sent().at(0).operation, QNetworkAccessManager::GetOperation);
    QCOMPARE(m_manager->sent().at(0).request, QNetworkRequest(server.url("/a?q=1")));

    // Nor does anything reach the wire that the library does not send by itself.
    const std::unique_ptr<QNetworkReply> plain(
        m_manager->get(QNetworkRequest(server.url("/a?q=1"))));
    AWAIT(plain->isFinished());
    QCOMPARE(server.requests().size(), 2);
    QCOMPARE(server.requests().at(0).method, QByteArray("GET"));
    QCOMPARE(server.requests().at(0).path, QByteArray("/a?q=1"));
    QCOMPARE(server.requests().at(0).headers, server.requests().at(1).headers);
    QCOMPARE(server.requests().at(0).body, QByteArray());
}

void TestHttp::postSendsTheUrlAndTheBodyAlone()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    FileIO fileIo;
    const MessageCapture messages; // the library complains of a missing Content-Type
    fileIo.httpPost(text(server.url("/a")), QStringLiteral("data"));
    QCOMPARE(m_manager->sent().size(), 1);
    QCOMPARE(m_manager->sent().at(0).operation, QNetworkAccessManager::PostOperation);
    QCOMPARE(m_manager->sent().at(0).request, QNetworkRequest(server.url("/a")));

    const std::unique_ptr<QNetworkReply> plain(
        m_manager->post(QNetworkRequest(server.url("/a")), QByteArray("data")));
    AWAIT(plain->isFinished());
    QCOMPARE(server.requests().size(), 2);
    QCOMPARE(server.requests().at(0).method, QByteArray("POST"));
    QCOMPARE(server.requests().at(0).headers, server.requests().at(1).headers);
    QCOMPARE(server.requests().at(0).body, QByteArray("data"));
}

void TestHttp::postBodyIsLatin1_data()
{
    QTest::addColumn<QString>("data");
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("ASCII") << QStringLiteral("a=1&b=%20+") << QByteArray("a=1&b=%20+");
    QTest::newRow("Latin-1") << QString::fromUtf8("caf\u00e9") << QByteArray("caf\xe9");
    QTest::newRow("beyond Latin-1") << QString::fromUtf8("1\u20ac \u5496") << QByteArray("1? ?");
    QTest::newRow("NUL") << QString::fromLatin1("a\0b", 3) << QByteArray("a\0b", 3);
    QTest::newRow("nothing") << QString() << QByteArray();
}

void TestHttp::postBodyIsLatin1()
{
    QFETCH(QString, data);
    QFETCH(QByteArray, body);

    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("taken"));
    FileIO fileIo;
    const MessageCapture messages;
    QCOMPARE(fileIo.httpPost(text(server.url("/a")), data), QStringLiteral("taken"));
    QCOMPARE(server.requests().size(), 1);
    QCOMPARE(server.requests().at(0).body, body);
    QCOMPARE(server.requests().at(0).header("content-length"), QByteArray::number(body.size()));
}

void TestHttp::urlIsParsedTolerantly()
{
    ScriptedHttpServer server;
    server.on("/a%20b?c=100%25", HttpScript::fixedLength("body"));
    FileIO fileIo;
    QCOMPARE(fileIo.httpGet(text(server.url("/")) + QStringLiteral("a b?c=100%")),
             QStringLiteral("body"));
}

void TestHttp::runningSendsNothing()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    FileIO fileIo;
    fileIo.httpGet(text(server.url("/a")));
    fileIo.setRunning(true);
    // It returns at once: the event loop does not turn.
    bool turned = false;
    soon(&fileIo, [&turned] { turned = true; });
    const QString got = fileIo.httpGet(text(server.url("/a")));
    const QString posted = fileIo.httpPost(text(server.url("/a")), QStringLiteral("data"));
    QCOMPARE(got, QLatin1String(""));
    QCOMPARE(posted, QLatin1String(""));
    QVERIFY(!got.isNull());
    QVERIFY(!posted.isNull());
    QVERIFY(!turned);
    QCOMPARE(m_manager->sent().size(), 1);

    fileIo.setRunning(false);
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), QStringLiteral("body"));
}

void TestHttp::failedDownloadSendsNothing()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.startOnce(server.url("/missing"));
    AWAIT(download.failed());
    QCOMPARE(download.fileIo->httpGet(text(server.url("/a"))), QString());
    QCOMPARE(m_manager->sent().size(), 1);
}

void TestHttp::answerIsReturned_data()
{
    QTest::addColumn<HttpScript>("script");
    QTest::addColumn<QString>("answer");

    const QString body = QStringLiteral("body");
    QTest::newRow("fixed length") << HttpScript::fixedLength("body") << body;
    QTest::newRow("one chunk") << HttpScript::chunked({"body"}) << body;
    QTest::newRow("unknown length") << HttpScript::unknownLength("body") << body;
    QTest::newRow("404 with a body") << HttpScript::fixedLength("body", 404) << body;
    QTest::newRow("500 with a body") << HttpScript::fixedLength("body", 500) << body;
    QTest::newRow("redirect's own body") << HttpScript::redirect("/b", "body") << body;
    QTest::newRow("cut off") << HttpScript::head(100).send("body").close() << body;
    QTest::newRow("UTF-8") << HttpScript::fixedLength("caf\xc3\xa9 \xe5\x92\x96")
                           << QString::fromUtf8("caf\u00e9 \u5496");
    QTest::newRow("no UTF-8") << HttpScript::fixedLength("caf\xe9!")
                              << QStringLiteral("caf\ufffd!");
    QTest::newRow("NUL") << HttpScript::fixedLength(QByteArray("bo\0dy", 5))
                         << QStringLiteral("bo");
}

void TestHttp::answerIsReturned()
{
    QFETCH(HttpScript, script);
    QFETCH(QString, answer);

    ScriptedHttpServer server;
    server.on("/a", script);
    server.on("/b", HttpScript::fixedLength("other"));
    FileIO fileIo;
    const TransferLog log(&fileIo);
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), answer);
    QCOMPARE(m_manager->sent().size(), 1);
    QCOMPARE(server.requestCount("/b"), 0);
    if (!hangsUp(script)) // then Qt itself may ask again, and on a busy processor does
        QCOMPARE(server.requests().size(), 1);
    QCOMPARE(log.entries(), Lines()); // these requests tell nobody
}

void TestHttp::noAnswerIsAnEmptyText_data()
{
    QTest::addColumn<HttpScript>("script");
    QTest::addColumn<QString>("otherUrl"); // than the server's

    QTest::newRow("404 without a body") << HttpScript::fixedLength({}, 404) << QString();
    QTest::newRow("empty body") << HttpScript::fixedLength({}) << QString();
    QTest::newRow("NUL first") << HttpScript::fixedLength(QByteArray("\0body", 5)) << QString();
    QTest::newRow("closed") << HttpScript().close() << QString();
    QTest::newRow("nobody listens") << HttpScript() << text(ScriptedHttpServer().url("/a"));
    QTest::newRow("unknown scheme") << HttpScript() << QStringLiteral("nosuch://127.0.0.1/a");
    QTest::newRow("invalid URL") << HttpScript() << QStringLiteral("http://[bad");
    QTest::newRow("no URL") << HttpScript() << QStringLiteral(" ");
}

void TestHttp::noAnswerIsAnEmptyText()
{
    QFETCH(HttpScript, script);
    QFETCH(QString, otherUrl);

    ScriptedHttpServer server;
    server.on("/a", script);
    FileIO fileIo;
    const TransferLog log(&fileIo);
    const MessageCapture messages;
    // Time stands still until the end of the answer.
    FakeClock clock(kNoon, 0);
    soon(this, [&] {
        QNetworkReply *const reply = m_manager->lastReply();
        connect(reply, &QNetworkReply::finished, this, [&clock] { clock.setStep(50); });
        if (reply->isFinished())
            clock.setStep(50);
    });
    const QString answer = fileIo.httpGet(otherUrl.isEmpty() ? text(server.url("/a")) : otherUrl);
    QCOMPARE(answer, QString());
    QVERIFY(!answer.isNull());
    QCOMPARE(log.entries(), Lines());
    QVERIFY(m_manager->lastReply()->isFinished());
}

void TestHttp::firstPieceIsReturnedAlone()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(9).send("first").hold().send("next"));
    FileIO fileIo;
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), QStringLiteral("first"));
    // The rest comes, is read, and hurts nobody.
    server.release("/a");
    AWAIT(m_manager->lastReply()->isFinished());
    QCOMPARE(m_manager->lastReply()->bytesAvailable(), 0);
}

void TestHttp::secondPieceWithinAPauseReplacesTheFirst()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(11).send("first").hold().send("second"));
    FileIO fileIo;
    int pieces = 0;
    soon(this, [&] {
        connect(m_manager->lastReply(), &QNetworkReply::readyRead, this, [&] {
            if (++pieces > 1)
                return;
            // No pause ends before this handler has returned.
            server.release("/a");
            AWAIT_EQUAL(pieces, 2);
        });
    });
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), QStringLiteral("second"));
}

void TestHttp::postReturnsTheAnswer()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(9).send("first").hold().send("next"));
    FileIO fileIo;
    const MessageCapture messages;
    QCOMPARE(fileIo.httpPost(text(server.url("/a")), QStringLiteral("data")),
             QStringLiteral("first"));
}

void TestHttp::callForgetsTheEarlierText()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    FileIO fileIo;
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), QStringLiteral("body"));
    QCOMPARE(getUnanswered(fileIo, server.url("/missing")), QString());
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), QStringLiteral("body"));
    const MessageCapture messages;
    const FakeClock clock(kNoon, 50);
    QCOMPARE(fileIo.httpPost(text(server.url("/missing")), QString()), QString());
}

void TestHttp::silenceIsWaitedOutInNinePauses()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::silence());
    FileIO fileIo;
    const FakeClock clock(kNoon, 1);
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), QString());
    // A pause of 100 ms: a look for its end, and one in each millisecond up to it.
    QCOMPARE(clock.looks(), 9 * 101);
}

void TestHttp::answerEndsTheWaitAfterItsPause()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    FileIO fileIo;
    // Time stands still until the answer is there.
    FakeClock clock(kNoon, 0);
    int looksBefore = 0;
    soon(this, [&] {
        connect(m_manager->lastReply(), &QNetworkReply::readyRead, this, [&] {
            looksBefore = clock.looks();
            clock.setStep(100);
        });
    });
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), QStringLiteral("body"));
    QVERIFY(looksBefore > 0);
    QCOMPARE(clock.looks() - looksBefore, 2); // to the end of this pause, and no other
}

void TestHttp::silenceIsWaitedOutInRealTime()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::silence());
    FileIO fileIo;
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), QString());
    QCOMPARE(server.requests().size(), 1);
    QVERIFY(m_manager->lastReply()->isRunning());
}

void TestHttp::eventsAreProcessedMeanwhile()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript().hold().then(HttpScript::fixedLength("body")));
    FileIO fileIo;
    // Only the event loop of the wait can bring the answer.
    soon(this, [&] { server.release("/a"); });
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), QStringLiteral("body"));
}

void TestHttp::delayLastsByTheWallClock()
{
    FileIO fileIo;
    bool turned = false;
    soon(&fileIo, [&turned] { turned = true; });
    const FakeClock clock(kNoon, 1);
    fileIo.delay_ms(250);
    QCOMPARE(clock.looks(), 251); // the start and 250 steps of 1 ms
    QVERIFY(turned);
}

void TestHttp::delayOfNothingProcessesNothing_data()
{
    QTest::addColumn<int>("ms");

    QTest::newRow("0") << 0;
    QTest::newRow("negative") << -1000;
}

void TestHttp::delayOfNothingProcessesNothing()
{
    QFETCH(int, ms);

    FileIO fileIo;
    bool turned = false;
    soon(&fileIo, [&turned] { turned = true; });
    const FakeClock clock(kNoon, 10);
    fileIo.delay_ms(ms);
    QCOMPARE(clock.looks(), 2);
    QVERIFY(!turned);
}

void TestHttp::delayEndsEarlyAcrossMidnight()
{
    FileIO fileIo;
    bool turned = false;
    soon(&fileIo, [&turned] { turned = true; });
    const FakeClock clock(QTime(23, 59, 59, 950), 10);
    fileIo.delay_ms(100);
    QCOMPARE(clock.looks(), 2);
    QVERIFY(!turned);
}

void TestHttp::lateAnswerReadsTheNewerReply()
{
    ScriptedHttpServer server;
    server.on("/late", HttpScript().hold().then(HttpScript::fixedLength("late")));
    server.on("/new", HttpScript().hold().then(HttpScript::fixedLength("new")));
    FileIO fileIo;
    QCOMPARE(getUnanswered(fileIo, server.url("/late")), QString());

    QNetworkReply *const late = m_manager->lastReply();
    connect(late, &QNetworkReply::readyRead, this, [&server] { server.release("/new"); });
    soon(this, [&server] { server.release("/late"); });
    QCOMPARE(fileIo.httpGet(text(server.url("/new"))), QStringLiteral("new"));
    QCOMPARE(late->bytesAvailable(), 4); // nobody has read it
    QCOMPARE(m_manager->lastReply()->bytesAvailable(), 0);
}

void TestHttp::lateAnswerIsForgottenByTheNextCall()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript().hold().then(HttpScript::fixedLength("late")));
    FileIO fileIo;
    QCOMPARE(getUnanswered(fileIo, server.url("/a")), QString());
    server.release("/a");
    AWAIT(m_manager->lastReply()->isFinished());
    QCOMPARE(m_manager->lastReply()->bytesAvailable(), 0); // it was read
    fileIo.setRunning(true);
    QCOMPARE(fileIo.httpGet(text(server.url("/a"))), QString());
}

void TestHttp::repliesStayAlive()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::silence());
    FileIO fileIo;
    QCOMPARE(getUnanswered(fileIo, server.url("/a")), QString());
    QCOMPARE(getUnanswered(fileIo, server.url("/a")), QString());
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

void TestHttp::innerCallSharesTheText()
{
    ScriptedHttpServer server;
    server.on("/outer", HttpScript::silence());
    server.on("/inner", HttpScript::fixedLength("inner"));
    FileIO fileIo;
    QString inner;
    soon(this, [&] { inner = fileIo.httpGet(text(server.url("/inner"))); });
    QCOMPARE(fileIo.httpGet(text(server.url("/outer"))), QStringLiteral("inner"));
    QCOMPARE(inner, QStringLiteral("inner"));
}

void TestHttp::readWithoutAReplyDoesNothing()
{
    FileIO fileIo;
    const TransferLog log(&fileIo);
    QVERIFY(call(&fileIo, "onReadyReadReply"));
    QCOMPARE(log.entries(), Lines());
}

void TestHttp::replyDeletedMeanwhileIsSurvived()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::silence());
    server.on("/b", HttpScript::fixedLength("body"));
    FileIO fileIo;
    soon(this, [&] {
        delete m_manager->lastReply();
        call(&fileIo, "onReadyReadReply");
    });
    QCOMPARE(getUnanswered(fileIo, server.url("/a")), QString());
    QVERIFY(!m_manager->lastReply());
    QCOMPARE(fileIo.httpGet(text(server.url("/b"))), QStringLiteral("body"));
}

void TestHttp::managerDeletedMeanwhileIsSurvived()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::silence());
    server.on("/b", HttpScript::fixedLength("body"));
    FileIO fileIo;
    soon(this, [&] { m_manager.reset(); });
    QCOMPARE(getUnanswered(fileIo, server.url("/a")), QString());
    QVERIFY(!m_manager);
    QCOMPARE(fileIo.httpGet(text(server.url("/b"))), QStringLiteral("body"));
}

void TestHttp::objectDeletedMeanwhileIsSurvived()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::silence());
    auto fileIo = std::make_unique<FileIO>();
    soon(this, [&] { fileIo.reset(); });
    const FakeClock clock(kNoon, 50);
    const QString answer = fileIo->httpGet(text(server.url("/a")));
    QCOMPARE(answer, QString());
    QVERIFY(!answer.isNull());
    QVERIFY(!fileIo);
    QCOMPARE(clock.looks(), 3); // what is gone waits no longer
}

void TestHttp::downloadReleasesTheHeldReply()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::silence());
    server.on("/b", HttpScript::fixedLength("body"));
    Download download;
    QCOMPARE(getUnanswered(*download.fileIo, server.url("/a")), QString());
    const QPointer<QNetworkReply> held = m_manager->lastReply();
    download.startOnce(server.url("/b"));
    QVERIFY(held);
    QVERIFY(held->isRunning()); // released, not aborted
    AWAIT(download.finished());
    QVERIFY(!held);
    QVERIFY(!download.failed());
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestHttp::downloadStartedMeanwhileIsWhole()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript().hold().then(HttpScript::fixedLength("late")));
    server.on("/b", HttpScript::head(10).send("begun").hold().send("ended"));
    Download download;
    soon(this, [&] {
        download.startOnce(server.url("/b"));
        server.release("/a");
    });
    QCOMPARE(download.fileIo->httpGet(text(server.url("/a"))), QString());
    server.release("/b");
    AWAIT(download.finished());
    QVERIFY(!download.failed());
    QCOMPARE(download.content(), QByteArray("begunended"));
}

void TestHttp::destructorAbortsTheHeldReply()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(100).hold());
    Download download;
    QCOMPARE(getUnanswered(*download.fileIo, server.url("/a")), QString());
    const QPointer<QNetworkReply> held = m_manager->lastReply();
    // Under way: a connection that a request has not used yet would be kept for the next one.
    AWAIT(held->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid());
    QVERIFY(held->isRunning());
    download.fileIo.reset();
    QCOMPARE(held->error(), QNetworkReply::OperationCanceledError);
    QCOMPARE(download.log.entries(), Lines());
    deleteReleased();
    QVERIFY(!held);
    AWAIT_EQUAL(server.openConnectionCount(), 0);
}

QTEST_GUILESS_MAIN(TestHttp)
#include "tst_http.moc"
