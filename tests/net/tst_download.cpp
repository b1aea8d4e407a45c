#include "capture.h"
#include "downloadfixture.h"

#include <QDeadlineTimer>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QSaveFile>
#include <QThread>

class TestDownload : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Properties and refusals
    void settersEmitOnlyOnAChange();
    void incompleteObjectNeverStarts();
    void emptyUrlIsRefused();
    void emptyDestinationIsRefused();
    void existingDestinationIsRefusedWithoutOverwrite();
    void unopenableDestinationIsReported_data();
    void unopenableDestinationIsReported();
    void refusedStartStillChangesRunning();
    void refusedRestartLeavesTheEarlierReply();

    // Starting
    void startFromIdleRunsTwice();
    void startFromIdleResetsTheProgress();
    void startWithTheStoredUrlRunsTwice();
    void runningTrueMakesOnePass();
    void completionWithRunningTrueMakesOnePass();
    void startDuringATransferReplacesIt();
    void engineMakesAnObjectThatDownloads();
    void requestIsMadeOfTheUrlAlone();
    void invalidUrlGoesToTheLibrary();
    void destinationIsAPathOrAFileUrl_data();
    void destinationIsAPathOrAFileUrl();

    // Data and progress
    void bodyIsWrittenWhole_data();
    void bodyIsWrittenWhole();
    void piecesAreWrittenAsTheyCome();
    void hugeBodyIsStreamed_data();
    void hugeBodyIsStreamed();
    void partialBodyIsReported();
    void unknownTotalMakesProgressNegative();
    void progressIsComputedUnguarded_data();
    void progressIsComputedUnguarded();
    void progressIsIgnoredWhileNotRunning();
    void dataWithoutAReplyIsIgnored();

    // Success
    void successEndsInOrder();
    void progressOfOneIsNotRepeated();
    void emptyBodyEndsAtOne();
    void destinationIsReplacedOnlyAtTheEnd();
    void laterDestinationLeavesTheRunningTransfer();
    void destinationChangedBetweenThePassesCounts();

    // Redirects
    void redirectIsFollowed_data();
    void redirectIsFollowed();
    void redirectsAreFollowedWithoutLimit();
    void refusedRedirectCommitsItsBody_data();
    void refusedRedirectCommitsItsBody();
    void refusedRestartOfARedirectKeepsWhatIsHeld();

    // Failures
    void runningStaysTrueAfterAFailure_data();
    void runningStaysTrueAfterAFailure();
    void failedDownloadIsStartedAgainInOnePass();
    void lostFolderFailsTheCommit();
    void endWithoutRunningIsNotCommitted();
    void endWithoutAReplyIsReported();
    void deletedReplyIsReportedAtTheEnd();
    void deletedManagerIsSurvived();
    void deletedOutsideManagerIsReplaced();

    // Stopping
    void stopLeavesNothing();
    void stopBeforeTheRequestLeaves();
    void stopWhenIdleDoesNothing();
    void destinationChangedInsideStopIsTaken();
    void destructorLeavesNothing();
    void destructorStartsNothing();

private:
    std::unique_ptr<RecordingManager> m_manager;
};

namespace {

constexpr qint64 kHugeBody = 64LL * 1024 * 1024;

bool callProgress(const Download &download, qint64 received, qint64 total)
{
    return QMetaObject::invokeMethod(download.fileIo.get(), "onDownloadProgress",
                                     Qt::DirectConnection, Q_ARG(qint64, received),
                                     Q_ARG(qint64, total));
}

/// The library reports progress no more often than every 100 ms, counted from the request.
void waitForProgressToBeDue(const ScriptedHttpServer &server)
{
    AWAIT_EQUAL(server.requests().size(), 1);
    QTest::qWait(150);
}

} // namespace

void TestDownload::init()
{
    // No test meets the connections of another.
    m_manager = std::make_unique<RecordingManager>();
}

void TestDownload::cleanup()
{
    m_manager.reset();
}

void TestDownload::settersEmitOnlyOnAChange()
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

void TestDownload::incompleteObjectNeverStarts()
{
    const QTemporaryDir dir;
    const ScriptedHttpServer server;
    FileIO fileIo;
    fileIo.setUrl(server.url("/a"));
    fileIo.setDestination(QUrl::fromLocalFile(dir.filePath(QStringLiteral("file"))));
    const TransferLog log(&fileIo);

    fileIo.start();
    fileIo.start(server.url("/b"));
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

    QCOMPARE(fileIo.url(), server.url("/a"));
    QCOMPARE(m_manager->sent().size(), 0);
    QVERIFY(QDir(dir.path()).isEmpty());
}

void TestDownload::emptyUrlIsRefused()
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

void TestDownload::emptyDestinationIsRefused()
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

void TestDownload::existingDestinationIsRefusedWithoutOverwrite()
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
    QCOMPARE(download.openFiles(), 0);
}

void TestDownload::unopenableDestinationIsReported_data()
{
    QTest::addColumn<QByteArray>("name");

    QTest::newRow("folder") << QByteArray(".");
    QTest::newRow("missing folder") << QByteArray("missing/file");
}

void TestDownload::unopenableDestinationIsReported()
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

void TestDownload::refusedStartStillChangesRunning()
{
    Download download;
    download.fileIo->setRunning(true);
    QCOMPARE(download.log.milestones(),
             Lines({"error(1, Url is empty) running=1", "runningChanged() running=1"}));
    download.log.clear();
    download.fileIo->setRunning(true);
    QCOMPARE(download.log.entries(), Lines());
}

void TestDownload::refusedRestartLeavesTheEarlierReply()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(kHugeBody).hold().fill(kHugeBody));
    Download download;
    download.startOnce(server.url("/a"));
    AWAIT_EQUAL(server.requestCount("/a"), 1);

    const QString missing = download.path("missing/file");
    download.fileIo->setDestination(QUrl::fromLocalFile(missing));
    download.log.clear();
    download.fileIo->start(server.url("/a"));
    QCOMPARE(download.log.names(), Lines({"error"}));
    QCOMPARE(download.files(), Lines());
    QCOMPARE(download.openFiles(), 0);
    QCOMPARE(m_manager->sent().size(), 1);
    QVERIFY(m_manager->lastReply()->isRunning());

    // It goes on to its end, without a file to write or commit.
    download.log.clear();
    server.release("/a");
    AWAIT(download.failed());
    QCOMPARE(download.log.milestones(),
             Lines({"error(2, Error while writing \"" + missing.toUtf8() + "\") running=1"}));
    deleteReleased();
    QVERIFY(!m_manager->lastReply());
}

void TestDownload::startFromIdleRunsTwice()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.fileIo->start(server.url("/a"));
    QCOMPARE(download.log.entries(),
             Lines({"urlChanged() running=0 progress=0", "started() running=1 progress=0",
                    "runningChanged() running=1 progress=0", "started() running=1 progress=0"}));

    // Both requests are sent; the first is dropped, not aborted, and its file replaced.
    QCOMPARE(m_manager->sent().size(), 2);
    QCOMPARE(m_manager->sent().at(0).operation, QNetworkAccessManager::GetOperation);
    QCOMPARE(m_manager->sent().at(0).request.url(), server.url("/a"));
    QCOMPARE(m_manager->sent().at(1).request.url(), server.url("/a"));
    QVERIFY(m_manager->sent().at(0).reply->isRunning());
    QCOMPARE(download.openFiles(), 1);

    AWAIT(download.finished());
    QVERIFY(!m_manager->sent().at(0).reply);
    QVERIFY(!download.failed());
    QCOMPARE(download.content(), QByteArray("body"));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
}

void TestDownload::startFromIdleResetsTheProgress()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::silence());
    Download download;
    download.fileIo->setProgress(0.5);
    download.log.clear();
    download.fileIo->start(server.url("/a"));
    QCOMPARE(download.log.entries(),
             Lines({"urlChanged() running=0 progress=0.5", "progressChanged() running=0 progress=0",
                    "started() running=1 progress=0", "runningChanged() running=1 progress=0",
                    "started() running=1 progress=0"}));
}

void TestDownload::startWithTheStoredUrlRunsTwice()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.fileIo->setUrl(server.url("/a"));
    download.log.clear();
    download.fileIo->start();
    QCOMPARE(download.log.names(), Lines({"started", "runningChanged", "started"}));
    QCOMPARE(m_manager->sent().size(), 2);
    AWAIT(download.finished());
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestDownload::runningTrueMakesOnePass()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.startOnce(server.url("/a"));
    QCOMPARE(download.log.entries(),
             Lines({"started() running=1 progress=0", "runningChanged() running=1 progress=0"}));
    AWAIT(download.finished());
    QCOMPARE(m_manager->sent().size(), 1);
    QCOMPARE(server.requests().size(), 1);
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestDownload::completionWithRunningTrueMakesOnePass()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    const QTemporaryDir dir;
    FileIO fileIo;
    fileIo.setRunning(true);
    fileIo.setUrl(server.url("/a"));
    fileIo.setDestination(QUrl::fromLocalFile(dir.filePath(QStringLiteral("file"))));
    const TransferLog log(&fileIo);
    fileIo.componentComplete();
    QCOMPARE(log.entries(), Lines({"started() running=1 progress=0"}));
    AWAIT(!fileIo.running());
    QCOMPARE(server.requests().size(), 1);
    QCOMPARE(log.milestones(),
             Lines({"started() running=1", "runningChanged() running=0", "finished() running=0"}));
    QVERIFY(QFile::exists(dir.filePath(QStringLiteral("file"))));
}

void TestDownload::startDuringATransferReplacesIt()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(100).send("begun").hold());
    server.on("/b", HttpScript::fixedLength("other"));
    Download download;
    download.startOnce(server.url("/a"));
    AWAIT_EQUAL(server.requestCount("/a"), 1);
    download.log.clear();

    download.fileIo->start(server.url("/b"));
    QCOMPARE(download.log.milestones(), Lines({"urlChanged() running=1", "started() running=1"}));
    QCOMPARE(m_manager->sent().size(), 2);
    QVERIFY(m_manager->sent().at(0).reply->isRunning());
    AWAIT(download.finished());
    QVERIFY(!m_manager->sent().at(0).reply);
    QVERIFY(!download.failed());
    QCOMPARE(download.content(), QByteArray("other"));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
}

void TestDownload::engineMakesAnObjectThatDownloads()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    const QTemporaryDir dir;
    qmlRegisterType<FileIO>("Bridge", 1, 0, "FileIO");
    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData("import QtQml 2.2\n"
                      "import Bridge 1.0\n"
                      "FileIO {\n"
                      "    property var seen: []\n"
                      "    running: true\n"
                      "    url: \""
                          + server.url("/a").toEncoded()
                          + "\"\n"
                            "    destination: \""
                          + QUrl::fromLocalFile(dir.filePath(QStringLiteral("file"))).toEncoded()
                          + "\"\n"
                            "    onStarted: seen.push('started')\n"
                            "    onRunningChanged: seen.push('running ' + running)\n"
                            "    onFinished: seen.push('finished')\n"
                            "    onError: seen.push(errorCode + errorString)\n"
                            "}\n",
                      QUrl());
    const std::unique_ptr<QObject> object(component.create());
    QVERIFY2(object, qPrintable(component.errorString()));
    AWAIT(!object->property("running").toBool());
    QCOMPARE(object->property("seen").toStringList().join(QLatin1Char(',')),
             QStringLiteral("started,running false,finished"));
    QFile file(dir.filePath(QStringLiteral("file")));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("body"));
    QCOMPARE(server.requests().size(), 1);
}

void TestDownload::requestIsMadeOfTheUrlAlone()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.startOnce(server.url("/a"));
    AWAIT(download.finished());
    QCOMPARE(m_manager->sent().at(0).request, QNetworkRequest(server.url("/a")));

    // Nor does anything reach the wire that the library does not send by itself.
    const std::unique_ptr<QNetworkReply> plain(m_manager->get(QNetworkRequest(server.url("/a"))));
    AWAIT(plain->isFinished());
    QCOMPARE(server.requests().size(), 2);
    QCOMPARE(server.requests().at(0).method, QByteArray("GET"));
    QCOMPARE(server.requests().at(0).headers, server.requests().at(1).headers);
    QCOMPARE(server.requests().at(0).body, QByteArray());
}

void TestDownload::invalidUrlGoesToTheLibrary()
{
    const QUrl url(QStringLiteral("http://[bad"));
    QVERIFY(!url.isValid());
    QVERIFY(!url.isEmpty());
    Download download;
    QString libraryText;
    connect(m_manager.get(), &QNetworkAccessManager::finished, this,
            [&](QNetworkReply *reply) { libraryText = reply->errorString(); });
    download.fileIo->start(url);
    QCOMPARE(download.log.names(), Lines({"urlChanged", "started", "runningChanged", "started"}));
    download.log.clear();
    AWAIT(download.failed());
    QVERIFY(!libraryText.isEmpty());
    QCOMPARE(download.log.milestones(),
             Lines({"error(3, " + libraryText.toUtf8() + ") running=1"}));
    QCOMPARE(download.files(), Lines());
    QCOMPARE(download.openFiles(), 0);
}

void TestDownload::destinationIsAPathOrAFileUrl_data()
{
    QTest::addColumn<bool>("asFileUrl");
    QTest::addColumn<QByteArray>("name");

    QTest::newRow("path") << false << QByteArray("plain.bin");
    QTest::newRow("file URL") << true << QByteArray("plain.bin");
    QTest::newRow("path with a blank") << false << QByteArray("two words");
    QTest::newRow("file URL with a blank") << true << QByteArray("two words");
    QTest::newRow("file URL with Chinese") << true << QByteArray("咖啡");
}

void TestDownload::destinationIsAPathOrAFileUrl()
{
    QFETCH(bool, asFileUrl);
    QFETCH(QByteArray, name);

    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    Download download;
    const QString path = download.path(name);
    download.fileIo->setDestination(asFileUrl ? QUrl::fromLocalFile(path) : QUrl(path));
    download.fileIo->start(server.url("/a"));
    AWAIT(download.finished());
    QCOMPARE(download.files(), Lines({name}));
    QCOMPARE(download.content(name), QByteArray("body"));

    download.fileIo->setOverwrite(false);
    download.log.clear();
    download.fileIo->start();
    QCOMPARE(download.log.milestones(),
             Lines({"error(2, Overwriting not allowed for destination file \"" + path.toUtf8()
                    + "\") running=0"}));
}

void TestDownload::bodyIsWrittenWhole_data()
{
    QTest::addColumn<HttpScript>("script");
    QTest::addColumn<QByteArray>("body");

    const QByteArray body("one\0two\r\n\xff three", 16);
    QTest::newRow("fixed length") << HttpScript::fixedLength(body) << body;
    QTest::newRow("chunks") << HttpScript::chunked({body.left(5), body.mid(5)}) << body;
    QTest::newRow("unknown length") << HttpScript::unknownLength(body) << body;
    QTest::newRow("empty, fixed length") << HttpScript::fixedLength({}) << QByteArray();
    QTest::newRow("empty, in chunks") << HttpScript::chunked({}) << QByteArray();
    QTest::newRow("empty, unknown length") << HttpScript::unknownLength({}) << QByteArray();
}

void TestDownload::bodyIsWrittenWhole()
{
    QFETCH(HttpScript, script);
    QFETCH(QByteArray, body);

    ScriptedHttpServer server;
    server.on("/a", script);
    Download download;
    const MessageCapture messages;
    download.fileIo->start(server.url("/a"));
    AWAIT(download.finished());
    QCOMPARE(download.content(), body);
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
    QCOMPARE(messages.messages(), QStringList());
}

void TestDownload::piecesAreWrittenAsTheyCome()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(7).send("one").hold().send("two").hold().send("3"));
    Download download;
    download.startOnce(server.url("/a"));
    const QSignalSpy arrivals(m_manager->lastReply(), &QNetworkReply::readyRead);
    for (int piece = 1; piece <= 2; ++piece) {
        AWAIT_EQUAL(arrivals.size(), piece);
        QCOMPARE(m_manager->lastReply()->bytesAvailable(), 0);
        QVERIFY(!QFile::exists(download.path()));
        server.release("/a");
    }
    AWAIT(download.finished());
    QCOMPARE(download.content(), QByteArray("onetwo3"));
}

void TestDownload::hugeBodyIsStreamed_data()
{
    QTest::addColumn<HttpScript>("script");

    const QByteArray head = "HTTP/1.1 200 Scripted\r\n";
    HttpScript chunks;
    chunks.send(head + "Transfer-Encoding: chunked\r\n\r\n");
    for (qint64 sent = 0; sent < kHugeBody; sent += kHugeBody / 256)
        chunks.send(QByteArray::number(kHugeBody / 256, 16) + "\r\n")
            .fill(kHugeBody / 256)
            .send("\r\n");
    QTest::newRow("fixed length") << HttpScript::head(kHugeBody).fill(kHugeBody);
    QTest::newRow("chunks") << chunks.send(HttpScript::chunk({}));
    QTest::newRow("unknown length") << HttpScript().send(head + "\r\n").fill(kHugeBody).close();
}

void TestDownload::hugeBodyIsStreamed()
{
    QFETCH(HttpScript, script);

    ScriptedHttpServer server;
    server.on("/a", script);
    Download download;
    download.startOnce(server.url("/a"));
    // While the program is busy elsewhere the server waits: no more is taken than is written.
    qint64 sentMeanwhile = 0;
    connect(m_manager->lastReply(), &QNetworkReply::readyRead, this, [&] {
        const QDeadlineTimer busy(sentMeanwhile == 0 ? 300 : 0);
        while (!busy.hasExpired() && server.bytesSent() < kHugeBody)
            QThread::msleep(1);
        if (sentMeanwhile == 0)
            sentMeanwhile = server.bytesSent();
    });
    AWAIT(download.finished());
    QVERIFY2(sentMeanwhile < kHugeBody / 2, QByteArray::number(sentMeanwhile).constData());
    QCOMPARE(QFileInfo(download.path()).size(), kHugeBody);
}

void TestDownload::partialBodyIsReported()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(10000).hold().send(QByteArray(2500, 'x')).hold());
    Download download;
    download.startOnce(server.url("/a"));
    waitForProgressToBeDue(server);
    download.log.clear();
    server.release("/a");
    AWAIT_EQUAL(download.log.entries().size(), 2);
    QCOMPARE(
        download.log.entries(),
        Lines({"update(2, 10) running=1 progress=0", "progressChanged() running=1 progress=0.25"}));
    QCOMPARE(download.fileIo->progress(), 0.25);
}

void TestDownload::unknownTotalMakesProgressNegative()
{
    ScriptedHttpServer server;
    server.on("/a",
              HttpScript()
                  .send("HTTP/1.1 200 Scripted\r\nConnection: close\r\n\r\n")
                  .hold()
                  .send(QByteArray(2500, 'x'))
                  .hold()
                  .close());
    Download download;
    download.startOnce(server.url("/a"));
    waitForProgressToBeDue(server);
    download.log.clear();
    server.release("/a");
    AWAIT_EQUAL(download.log.entries().size(), 2);
    QCOMPARE(
        download.log.entries(),
        Lines({"update(2, 0) running=1 progress=0", "progressChanged() running=1 progress=-2500"}));
    server.release("/a");
    AWAIT(download.finished());
    QCOMPARE(download.fileIo->progress(), 1.0);
}

void TestDownload::progressIsComputedUnguarded_data()
{
    QTest::addColumn<qint64>("received");
    QTest::addColumn<qint64>("total");
    QTest::addColumn<QByteArray>("update");
    QTest::addColumn<QByteArray>("progress");

    QTest::newRow("2500 of 10000")
        << 2500LL << 10000LL << QByteArray("update(2, 10)") << QByteArray("0.25");
    QTest::newRow("below a kilobyte")
        << 999LL << 1999LL << QByteArray("update(0, 1)") << QByteArray("0.49975");
    QTest::newRow("kilobytes of 1000")
        << 1000LL << 1600LL << QByteArray("update(1, 1)") << QByteArray("0.625");
    QTest::newRow("unknown total")
        << 2500LL << -1LL << QByteArray("update(2, 0)") << QByteArray("-2500");
    QTest::newRow("cut towards zero")
        << -1999LL << -1000LL << QByteArray("update(-1, -1)") << QByteArray("1.999");
    QTest::newRow("total of 0") << 0LL << 0LL << QByteArray("update(0, 0)") << QByteArray("nan");
    QTest::newRow("bytes of a total of 0")
        << 1LL << 0LL << QByteArray("update(0, 0)") << QByteArray("inf");
    QTest::newRow("beyond 32 bits")
        << 3000000000000LL << 6000000000000LL << QByteArray("update(-1294967296, 1705032704)")
        << QByteArray("0.5");
}

void TestDownload::progressIsComputedUnguarded()
{
    QFETCH(qint64, received);
    QFETCH(qint64, total);
    QFETCH(QByteArray, update);
    QFETCH(QByteArray, progress);

    ScriptedHttpServer server;
    Download download;
    download.startOnce(server.url("/a"));
    download.log.clear();
    QVERIFY(callProgress(download, received, total));
    QCOMPARE(download.log.entries(),
             Lines({update + " running=1 progress=0",
                    "progressChanged() running=1 progress=" + progress}));

    // No number is equal to itself only when it is a number.
    download.log.clear();
    QVERIFY(callProgress(download, received, total));
    QCOMPARE(download.log.of("progressChanged").size(), progress == "nan" ? 1 : 0);
    QCOMPARE(download.log.of("update").size(), 1);
}

void TestDownload::progressIsIgnoredWhileNotRunning()
{
    Download download;
    QVERIFY(callProgress(download, 2500, 10000));
    QCOMPARE(download.log.entries(), Lines());
    QCOMPARE(download.fileIo->progress(), 0.0);
}

void TestDownload::dataWithoutAReplyIsIgnored()
{
    Download download;
    QVERIFY(call(download.fileIo.get(), "onReadyRead"));
    QCOMPARE(download.log.entries(), Lines());

    // A file without a reply: the reply was deleted under it.
    ScriptedHttpServer server;
    download.startOnce(server.url("/a"));
    delete m_manager->lastReply();
    download.log.clear();
    QVERIFY(call(download.fileIo.get(), "onReadyRead"));
    QCOMPARE(download.log.entries(), Lines());
    QCOMPARE(download.openFiles(), 1);
}

void TestDownload::successEndsInOrder()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    Download download;
    QByteArrayList filesAtEnd;
    connect(download.fileIo.get(), &FileIO::runningChanged, this,
            [&] { filesAtEnd = download.files(); });
    download.startOnce(server.url("/a"));
    AWAIT(download.finished());

    QByteArrayList entries = download.log.entries();
    for (const QByteArray &report : download.log.of("update"))
        entries.removeAll(report);
    QCOMPARE(entries,
             Lines({"started() running=1 progress=0", "runningChanged() running=1 progress=0",
                    "progressChanged() running=1 progress=1",
                    "runningChanged() running=0 progress=1", "finished() running=0 progress=1"}));
    QCOMPARE(filesAtEnd, Lines({"file"})); // committed before anything is told
    deleteReleased();
    QVERIFY(!m_manager->lastReply());

    // Nothing is left that a second end could tell.
    download.log.clear();
    QTest::qWait(0);
    QCOMPARE(download.log.entries(), Lines());
}

void TestDownload::progressOfOneIsNotRepeated()
{
    // At the end of a body of unknown length the library itself reports all of it.
    ScriptedHttpServer server;
    server.on("/a", HttpScript::chunked({QByteArray(4000, 'x')}));
    Download download;
    download.startOnce(server.url("/a"));
    AWAIT(download.finished());
    QCOMPARE(download.log.entries().mid(download.log.entries().size() - 3),
             Lines({"progressChanged() running=1 progress=1",
                    "runningChanged() running=0 progress=1", "finished() running=0 progress=1"}));
    QCOMPARE(download.log.of("progressChanged").count("progressChanged() running=1 progress=1"), 1);
    QVERIFY(download.log.of("update").last().startsWith("update(4, 4)"));
}

void TestDownload::emptyBodyEndsAtOne()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength({}));
    Download download;
    download.startOnce(server.url("/a"));
    AWAIT(download.finished());
    QCOMPARE(download.log.entries().mid(2),
             Lines({"update(0, 0) running=1 progress=0", "progressChanged() running=1 progress=nan",
                    "progressChanged() running=1 progress=1",
                    "runningChanged() running=0 progress=1", "finished() running=0 progress=1"}));
    QCOMPARE(download.content(), QByteArray());
}

void TestDownload::destinationIsReplacedOnlyAtTheEnd()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(8).send("half").hold().send("more"));
    Download download;
    download.write("old");
    download.startOnce(server.url("/a"));
    QSignalSpy arrivals(m_manager->lastReply(), &QNetworkReply::readyRead);
    AWAIT_EQUAL(arrivals.size(), 1);
    QCOMPARE(download.content(), QByteArray("old"));
    QCOMPARE(download.openFiles(), 1);
    server.release("/a");
    AWAIT(download.finished());
    QCOMPARE(download.content(), QByteArray("halfmore"));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
}

void TestDownload::laterDestinationLeavesTheRunningTransfer()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(4).hold().send("body"));
    Download download;
    download.startOnce(server.url("/a"));
    AWAIT_EQUAL(server.requests().size(), 1);
    download.fileIo->setDestination(download.fileUrl("next"));
    server.release("/a");
    AWAIT(download.finished());
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
    QCOMPARE(download.log.names().count(QByteArray("destinationChanged")), 1);
}

void TestDownload::destinationChangedBetweenThePassesCounts()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.fileIo->setProgress(0.5);
    connect(download.fileIo.get(), &FileIO::progressChanged, this, [&] {
        if (!download.fileIo->running())
            download.fileIo->setDestination(download.fileUrl("next"));
    });
    download.log.clear();
    download.fileIo->start(server.url("/a"));
    QCOMPARE(download.log.names(),
             Lines({"urlChanged", "progressChanged", "destinationChanged", "started",
                    "runningChanged", "started"}));
    AWAIT(download.finished());
    QCOMPARE(download.files(), Lines({"next"}));
}

void TestDownload::redirectIsFollowed_data()
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

void TestDownload::redirectIsFollowed()
{
    QFETCH(int, status);
    QFETCH(QByteArray, location);
    QFETCH(QByteArray, target);

    ScriptedHttpServer server;
    const QByteArray root = server.url({}).toEncoded();
    location.replace("http:", root);
    const QByteArray targetPath = target.split('#').first();
    server.on("/a/b/start?x", HttpScript::redirect(location, "moved", status));
    server.on(targetPath, HttpScript::fixedLength("body"));
    Download download;
    download.fileIo->setFollowRedirects(true);
    download.startOnce(server.url("/a/b/start?x"));
    AWAIT(download.finished());
    QCOMPARE(download.log.milestones(),
             Lines({"started() running=1", "runningChanged() running=1",
                    "redirected(" + root + target + ") running=1", "urlChanged() running=1",
                    "started() running=1", "runningChanged() running=0", "finished() running=0"}));
    QCOMPARE(download.fileIo->url(), QUrl::fromEncoded(root + target));
    QCOMPARE(m_manager->sent().size(), 2);
    QCOMPARE(server.requests().last().path, targetPath);
    QCOMPARE(download.content(), QByteArray("body"));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
}

void TestDownload::redirectsAreFollowedWithoutLimit()
{
    constexpr int kRedirects = 60; // the library's own limit is 50
    ScriptedHttpServer server;
    for (int i = 0; i < kRedirects; ++i)
        server.on("/a", HttpScript::redirect("/a"));
    server.on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.fileIo->setFollowRedirects(true);
    download.startOnce(server.url("/a"));
    AWAIT(download.finished());
    QVERIFY(!download.failed());
    QCOMPARE(download.log.names().count(QByteArray("redirected")), kRedirects);
    QCOMPARE(download.log.names().count(QByteArray("started")), kRedirects + 1);
    QCOMPARE(server.requests().size(), kRedirects + 1);
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestDownload::refusedRedirectCommitsItsBody_data()
{
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("body") << QByteArray("moved");
    QTest::newRow("no body") << QByteArray();
}

void TestDownload::refusedRedirectCommitsItsBody()
{
    QFETCH(QByteArray, body);

    ScriptedHttpServer server;
    server.on("/a", HttpScript::redirect("b", body));
    server.on("/b", HttpScript::fixedLength("other"));
    Download download;
    download.write("old");
    download.fileIo->setUrl(server.url("/a"));
    QByteArray contentAtError;
    connect(download.fileIo.get(), &FileIO::error, this,
            [&] { contentAtError = download.content(); });
    download.log.clear();
    download.fileIo->setRunning(true);
    AWAIT(download.failed());
    QCOMPARE(download.log.milestones(),
             Lines({"started() running=1", "runningChanged() running=1",
                    "redirected(" + server.url("/b").toEncoded() + ") running=1",
                    "error(3, Re-directs not allowed) running=1"}));
    QCOMPARE(contentAtError, QByteArray("old"));
    QCOMPARE(download.content(), body);
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
    QCOMPARE(download.fileIo->url(), server.url("/a"));
    QVERIFY(download.fileIo->running());
    QCOMPARE(server.requests().size(), 1);
    deleteReleased();
    QVERIFY(!m_manager->lastReply());
}

void TestDownload::refusedRestartOfARedirectKeepsWhatIsHeld()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript().hold().then(HttpScript::redirect("/b", "moved")));
    Download download;
    download.fileIo->setFollowRedirects(true);
    download.fileIo->setOverwrite(false);
    download.startOnce(server.url("/a"));
    AWAIT_EQUAL(server.requests().size(), 1);
    download.write("appeared");
    download.log.clear();
    server.release("/a");
    AWAIT(download.failed());
    QCOMPARE(download.log.milestones(),
             Lines({"redirected(" + server.url("/b").toEncoded() + ") running=1",
                    "urlChanged() running=1",
                    "error(2, Overwriting not allowed for destination file \""
                        + download.path().toUtf8() + "\") running=1"}));

    // The ended reply and the temporary file are still there.
    deleteReleased();
    QVERIFY(m_manager->lastReply());
    QCOMPARE(download.openFiles(), 1);
    QCOMPARE(server.requests().size(), 1);

    // They go with the stop, and nothing is committed.
    download.log.clear();
    download.fileIo->stop();
    QCOMPARE(download.log.milestones(), Lines({"runningChanged() running=0"}));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
    QCOMPARE(download.content(), QByteArray("appeared"));
    deleteReleased();
    QVERIFY(!m_manager->lastReply());
}

void TestDownload::runningStaysTrueAfterAFailure_data()
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

void TestDownload::runningStaysTrueAfterAFailure()
{
    QFETCH(HttpScript, script);
    QFETCH(QUrl, otherUrl);

    ScriptedHttpServer server;
    server.on("/a", script);
    const QUrl url = otherUrl.isEmpty() ? server.url("/a") : otherUrl;

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
    QCOMPARE(download.openFiles(), 0);
    deleteReleased();
    QVERIFY(!m_manager->lastReply());

    // It takes false before true does anything.
    download.log.clear();
    download.fileIo->setRunning(true);
    QCOMPARE(download.log.entries(), Lines());
    download.fileIo->setRunning(false);
    QCOMPARE(download.log.milestones(), Lines({"runningChanged() running=0"}));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
}

void TestDownload::failedDownloadIsStartedAgainInOnePass()
{
    ScriptedHttpServer server;
    server.on("/b", HttpScript::fixedLength("body"));
    Download download;
    download.startOnce(server.url("/missing"));
    AWAIT(download.failed());
    download.log.clear();
    download.fileIo->start(server.url("/b"));
    AWAIT(download.finished());
    QCOMPARE(download.log.milestones(),
             Lines({"urlChanged() running=1", "started() running=1", "runningChanged() running=0",
                    "finished() running=0"}));
    QCOMPARE(m_manager->sent().size(), 2);
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestDownload::lostFolderFailsTheCommit()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(4).hold().send("body"));
    Download download;
    QVERIFY(QDir(download.dir.path()).mkdir(QStringLiteral("sub")));
    const QString path = download.path("sub/file");
    download.fileIo->setDestination(QUrl::fromLocalFile(path));
    download.startOnce(server.url("/a"));
    AWAIT_EQUAL(server.requests().size(), 1);
    QVERIFY(QDir(download.path("sub")).removeRecursively());
    download.log.clear();
    server.release("/a");
    AWAIT(download.failed());
    QCOMPARE(download.log.milestones(),
             Lines({"error(2, Error while writing \"" + path.toUtf8() + "\") running=1"}));
    QVERIFY(download.fileIo->running());
    QVERIFY(QDir(download.dir.path()).isEmpty());
    deleteReleased();
    QVERIFY(!m_manager->lastReply());
}

void TestDownload::endWithoutRunningIsNotCommitted()
{
    ScriptedHttpServer server;
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
    download.fileIo->start(server.url("/a"));
    QCOMPARE(download.log.milestones(),
             Lines({"urlChanged() running=0",
                    "error(2, Error while writing \"" + download.path().toUtf8() + "\") running=0",
                    "started() running=1", "runningChanged() running=1", "started() running=1"}));
    QCOMPARE(filesAtEnd, Lines({"file"}));
    QCOMPARE(download.content(), QByteArray("old"));
}

void TestDownload::endWithoutAReplyIsReported()
{
    Download download;
    QVERIFY(call(download.fileIo.get(), "onFinished"));
    QCOMPARE(download.log.entries(),
             Lines({"error(3, Network reply was deleted) running=0 progress=0"}));
}

void TestDownload::deletedReplyIsReportedAtTheEnd()
{
    ScriptedHttpServer server;
    Download download;
    download.write("old");
    download.startOnce(server.url("/a"));
    delete m_manager->lastReply();
    QCOMPARE(download.openFiles(), 1);
    download.log.clear();
    QVERIFY(call(download.fileIo.get(), "onFinished"));
    QCOMPARE(download.log.milestones(), Lines({"error(3, Network reply was deleted) running=1"}));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
    QCOMPARE(download.content(), QByteArray("old"));
}

void TestDownload::deletedManagerIsSurvived()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(100).send("part").hold());
    server.on("/b", HttpScript::fixedLength("body"));
    // The master's own manager, which goes when another takes its place.
    QuickDownloadMaster *const master = QuickDownloadMaster::instance();
    master->setNetworkAccessManager(nullptr);
    const QPointer<QNetworkAccessManager> own = master->networkAccessManager();

    Download download;
    download.startOnce(server.url("/a"));
    AWAIT_EQUAL(server.requests().size(), 1);
    download.log.clear();
    master->setNetworkAccessManager(m_manager.get());
    QVERIFY(!own);
    AWAIT_EQUAL(server.openConnectionCount(), 0);
    QCOMPARE(download.log.entries(), Lines());
    QVERIFY(download.fileIo->running());
    QCOMPARE(download.openFiles(), 1);

    download.fileIo->stop();
    QCOMPARE(download.log.milestones(), Lines({"runningChanged() running=0"}));
    QCOMPARE(download.files(), Lines());
    QCOMPARE(download.openFiles(), 0);
    download.fileIo->start(server.url("/b"));
    AWAIT(download.finished());
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestDownload::deletedOutsideManagerIsReplaced()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("body"));
    QuickDownloadMaster *const master = QuickDownloadMaster::instance();
    auto *const outside = new QNetworkAccessManager;
    master->setNetworkAccessManager(outside);
    delete outside;
    Download download;
    download.fileIo->start(server.url("/a"));
    AWAIT(download.finished());

    // The one that the master has made itself meanwhile.
    delete master->networkAccessManager();
    download.log.clear();
    download.fileIo->start();
    AWAIT(download.finished());
    QCOMPARE(m_manager->sent().size(), 0);
}

void TestDownload::stopLeavesNothing()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(100).send("part").hold());
    Download download;
    download.startOnce(server.url("/a"));
    QSignalSpy arrivals(m_manager->lastReply(), &QNetworkReply::readyRead);
    AWAIT_EQUAL(arrivals.size(), 1);
    QCOMPARE(download.openFiles(), 1);
    download.log.clear();

    const QPointer<QNetworkReply> reply = m_manager->lastReply();
    download.fileIo->stop();
    QCOMPARE(download.log.milestones(),
             Lines({"error(3, " + reply->errorString().toUtf8() + ") running=0",
                    "runningChanged() running=0"}));
    QCOMPARE(reply->error(), QNetworkReply::OperationCanceledError);
    QCOMPARE(download.files(), Lines());
    QCOMPARE(download.openFiles(), 0);
    deleteReleased();
    QVERIFY(!reply);
    AWAIT_EQUAL(server.openConnectionCount(), 0);
    QCOMPARE(download.log.milestones().size(), 2);
}

void TestDownload::stopBeforeTheRequestLeaves()
{
    ScriptedHttpServer server;
    Download download;
    download.startOnce(server.url("/a"));
    download.log.clear();
    download.fileIo->stop();
    QCOMPARE(download.log.names(), Lines({"error", "runningChanged"}));
    QCOMPARE(download.files(), Lines());
    QCOMPARE(download.openFiles(), 0);
    deleteReleased();
    QVERIFY(!m_manager->lastReply());
}

void TestDownload::stopWhenIdleDoesNothing()
{
    Download download;
    download.fileIo->stop();
    download.fileIo->setRunning(false);
    QCOMPARE(download.log.entries(), Lines());
}

void TestDownload::destinationChangedInsideStopIsTaken()
{
    ScriptedHttpServer server;
    server.on("/b", HttpScript::fixedLength("body"));
    Download download;
    // Here too the file is still held while `running` is false.
    connect(download.fileIo.get(), &FileIO::error, this,
            [&] { download.fileIo->setDestination(download.fileUrl("next")); });
    download.startOnce(server.url("/a"));
    download.log.clear();
    download.fileIo->stop();
    QCOMPARE(download.log.names(), Lines({"error", "destinationChanged", "runningChanged"}));
    QCOMPARE(download.files(), Lines());
    QCOMPARE(download.openFiles(), 0);
    download.fileIo->start(server.url("/b"));
    AWAIT(download.finished());
    QCOMPARE(download.files(), Lines({"next"}));
}

void TestDownload::destructorLeavesNothing()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::head(100).send("part").hold());
    Download download;
    download.write("old");
    download.startOnce(server.url("/a"));
    QSignalSpy arrivals(m_manager->lastReply(), &QNetworkReply::readyRead);
    AWAIT_EQUAL(arrivals.size(), 1);
    QCOMPARE(download.openFiles(), 1);
    download.log.clear();

    const QPointer<QNetworkReply> reply = m_manager->lastReply();
    download.fileIo.reset();
    QCOMPARE(download.log.milestones(),
             Lines({"error(3, " + reply->errorString().toUtf8() + ") running=1"}));
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.openFiles(), 0);
    QCOMPARE(download.content(), QByteArray("old"));
    deleteReleased();
    QVERIFY(!reply);
    AWAIT_EQUAL(server.openConnectionCount(), 0);
}

void TestDownload::destructorStartsNothing()
{
    ScriptedHttpServer server;
    Download download;
    download.startOnce(server.url("/a"));
    FileIO *const fileIo = download.fileIo.get();
    connect(fileIo, &FileIO::error, this, [fileIo] {
        fileIo->stop();
        fileIo->start();
        fileIo->setRunning(true);
    });
    download.fileIo.reset();
    QCOMPARE(m_manager->sent().size(), 1);
    QCOMPARE(download.files(), Lines());
    QCOMPARE(download.openFiles(), 0);
}

QTEST_GUILESS_MAIN(TestDownload)
#include "tst_download.moc"
