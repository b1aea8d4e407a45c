#include "capture.h"
#include "httpfixture.h"
#include "qtversion.h"

namespace {

bool hangsUp(const HttpScript &script)
{
    const QList<HttpScript::Step> &steps = script.steps();
    return !steps.isEmpty() && steps.last().kind == HttpScript::Step::Close;
}

} // namespace

/// What the requests of the screens send and return.
class TestHttp : public DownloadTest {
    Q_OBJECT

private slots:
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
};

void TestHttp::getSendsTheUrlAlone()
{
    m_server->on("/a?q=1", HttpScript::fixedLength("body"));
    FileIO fileIo;
    fileIo.httpGet(text(m_server->url("/a?q=1")));
    QCOMPARE(m_manager->sent().size(), 1);
    QCOMPARE(m_manager->sent().at(0).operation, QNetworkAccessManager::GetOperation);
    QCOMPARE(m_manager->sent().at(0).request, requestOf(m_server->url("/a?q=1")));

    // Nor does anything reach the wire that the library does not send by itself.
    const std::unique_ptr<QNetworkReply> plain(m_manager->get(requestOf(m_server->url("/a?q=1"))));
    AWAIT(plain->isFinished());
    QCOMPARE(m_server->requests().size(), 2);
    QCOMPARE(m_server->requests().at(0).method, QByteArray("GET"));
    QCOMPARE(m_server->requests().at(0).path, QByteArray("/a?q=1"));
    QCOMPARE(m_server->requests().at(0).headers, m_server->requests().at(1).headers);
    QCOMPARE(m_server->requests().at(0).body, QByteArray());
}

void TestHttp::postSendsTheUrlAndTheBodyAlone()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    FileIO fileIo;
    const MessageCapture messages; // the library complains of a missing Content-Type
    fileIo.httpPost(text(m_server->url("/a")), QStringLiteral("data"));
    QCOMPARE(m_manager->sent().size(), 1);
    QCOMPARE(m_manager->sent().at(0).operation, QNetworkAccessManager::PostOperation);
    QCOMPARE(m_manager->sent().at(0).request, requestOf(m_server->url("/a")));

    const std::unique_ptr<QNetworkReply> plain(
        m_manager->post(requestOf(m_server->url("/a")), QByteArray("data")));
    AWAIT(plain->isFinished());
    QCOMPARE(m_server->requests().size(), 2);
    QCOMPARE(m_server->requests().at(0).method, QByteArray("POST"));
    QCOMPARE(m_server->requests().at(0).headers, m_server->requests().at(1).headers);
    QCOMPARE(m_server->requests().at(0).body, QByteArray("data"));
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

    m_server->on("/a", HttpScript::fixedLength("taken"));
    FileIO fileIo;
    const MessageCapture messages;
    QCOMPARE(fileIo.httpPost(text(m_server->url("/a")), data), QStringLiteral("taken"));
    QCOMPARE(m_server->requests().size(), 1);
    QCOMPARE(m_server->requests().at(0).body, body);
    QCOMPARE(m_server->requests().at(0).header("content-length"), QByteArray::number(body.size()));
}

void TestHttp::urlIsParsedTolerantly()
{
    m_server->on("/a%20b?c=100%25", HttpScript::fixedLength("body"));
    FileIO fileIo;
    QCOMPARE(fileIo.httpGet(text(m_server->url("/")) + QStringLiteral("a b?c=100%")),
             QStringLiteral("body"));
}

void TestHttp::runningSendsNothing()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    FileIO fileIo;
    fileIo.httpGet(text(m_server->url("/a")));
    fileIo.setRunning(true);
    // It returns at once: the event loop does not turn.
    bool turned = false;
    soon(&fileIo, [&turned] { turned = true; });
    const QString got = fileIo.httpGet(text(m_server->url("/a")));
    const QString posted = fileIo.httpPost(text(m_server->url("/a")), QStringLiteral("data"));
    QCOMPARE(got, QLatin1String(""));
    QCOMPARE(posted, QLatin1String(""));
    QVERIFY(!got.isNull());
    QVERIFY(!posted.isNull());
    QVERIFY(!turned);
    QCOMPARE(m_manager->sent().size(), 1);

    fileIo.setRunning(false);
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), QStringLiteral("body"));
}

void TestHttp::failedDownloadSendsNothing()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.startOnce(m_server->url("/missing"));
    AWAIT(download.failed());
    QCOMPARE(download.fileIo->httpGet(text(m_server->url("/a"))), QString());
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

    m_server->on("/a", script);
    m_server->on("/b", HttpScript::fixedLength("other"));
    FileIO fileIo;
    const TransferLog log(&fileIo);
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), answer);
    QCOMPARE(m_manager->sent().size(), 1);
    QCOMPARE(m_server->requestCount("/b"), 0);
    if (!hangsUp(script)) // then Qt itself may ask again, and on a busy processor does
        QCOMPARE(m_server->requests().size(), 1);
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

    m_server->on("/a", script);
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
    const QString answer =
        fileIo.httpGet(otherUrl.isEmpty() ? text(m_server->url("/a")) : otherUrl);
    QCOMPARE(answer, QString());
    QVERIFY(!answer.isNull());
    QCOMPARE(log.entries(), Lines());
    QVERIFY(m_manager->lastReply()->isFinished());
}

void TestHttp::firstPieceIsReturnedAlone()
{
    m_server->on("/a", HttpScript::head(9).send("first").hold().send("next"));
    FileIO fileIo;
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), QStringLiteral("first"));
    // The rest comes, is read, and hurts nobody.
    m_server->release("/a");
    AWAIT(m_manager->lastReply()->isFinished());
    QCOMPARE(m_manager->lastReply()->bytesAvailable(), 0);
}

void TestHttp::secondPieceWithinAPauseReplacesTheFirst()
{
    m_server->on("/a", HttpScript::head(11).send("first").hold().send("second"));
    FileIO fileIo;
    int pieces = 0;
    soon(this, [&] {
        connect(m_manager->lastReply(), &QNetworkReply::readyRead, this, [&] {
            if (++pieces > 1)
                return;
            // No pause ends before this handler has returned.
            m_server->release("/a");
            AWAIT_EQUAL(pieces, 2);
        });
    });
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), QStringLiteral("second"));
}

void TestHttp::postReturnsTheAnswer()
{
    m_server->on("/a", HttpScript::head(9).send("first").hold().send("next"));
    FileIO fileIo;
    const MessageCapture messages;
    QCOMPARE(fileIo.httpPost(text(m_server->url("/a")), QStringLiteral("data")),
             QStringLiteral("first"));
}

void TestHttp::callForgetsTheEarlierText()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    FileIO fileIo;
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), QStringLiteral("body"));
    QCOMPARE(getUnanswered(fileIo, m_server->url("/missing")), QString());
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), QStringLiteral("body"));
    const MessageCapture messages;
    const FakeClock clock(kNoon, 50);
    QCOMPARE(fileIo.httpPost(text(m_server->url("/missing")), QString()), QString());
}

QTEST_GUILESS_MAIN(TestHttp)
#include "tst_http.moc"
