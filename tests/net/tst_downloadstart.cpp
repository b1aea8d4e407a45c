#include "downloadfixture.h"
#include "qtversion.h"

#include <QQmlComponent>
#include <QQmlEngine>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>

/// Which start makes which requests, and of what.
class TestDownloadStart : public DownloadTest {
    Q_OBJECT

private slots:
    void startFromIdleRunsTwice();
    void startFromIdleResetsTheProgress();
    void startWithTheStoredUrlRunsTwice();
    void runningTrueMakesOnePass();
    void completionWithRunningTrueMakesOnePass();
    void startDuringATransferReplacesIt();
    void engineMakesAnObjectThatDownloads();
    void requestIsMadeOfTheUrlAlone();
    void secureRequestOffersNoHttp2();
    void invalidUrlGoesToTheLibrary();
    void destinationIsAPathOrAFileUrl_data();
    void destinationIsAPathOrAFileUrl();
};

void TestDownloadStart::startFromIdleRunsTwice()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.fileIo->start(m_server->url("/a"));
    QCOMPARE(download.log.entries(),
             Lines({"urlChanged() running=0 progress=0", "started() running=1 progress=0",
                    "runningChanged() running=1 progress=0", "started() running=1 progress=0"}));

    // Both requests are sent; the first is dropped, not aborted, and its file replaced.
    QCOMPARE(m_manager->sent().size(), 2);
    QCOMPARE(m_manager->sent().at(0).operation, QNetworkAccessManager::GetOperation);
    QCOMPARE(m_manager->sent().at(0).request.url(), m_server->url("/a"));
    QCOMPARE(m_manager->sent().at(1).request.url(), m_server->url("/a"));
    QVERIFY(m_manager->sent().at(0).reply->isRunning());
    QCOMPARE(download.openFiles(), 1);

    AWAIT(download.finished());
    QVERIFY(!m_manager->sent().at(0).reply);
    QVERIFY(!download.failed());
    QCOMPARE(download.content(), QByteArray("body"));
    QCOMPARE(download.files(), Lines({"file"}));
}

void TestDownloadStart::startFromIdleResetsTheProgress()
{
    m_server->on("/a", HttpScript::silence());
    Download download;
    download.fileIo->setProgress(0.5);
    download.log.clear();
    download.fileIo->start(m_server->url("/a"));
    QCOMPARE(download.log.entries(),
             Lines({"urlChanged() running=0 progress=0.5", "progressChanged() running=0 progress=0",
                    "started() running=1 progress=0", "runningChanged() running=1 progress=0",
                    "started() running=1 progress=0"}));
}

void TestDownloadStart::startWithTheStoredUrlRunsTwice()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.fileIo->setUrl(m_server->url("/a"));
    download.log.clear();
    download.fileIo->start();
    QCOMPARE(download.log.names(), Lines({"started", "runningChanged", "started"}));
    QCOMPARE(m_manager->sent().size(), 2);
    AWAIT(download.finished());
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestDownloadStart::runningTrueMakesOnePass()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.startOnce(m_server->url("/a"));
    QCOMPARE(download.log.entries(),
             Lines({"started() running=1 progress=0", "runningChanged() running=1 progress=0"}));
    AWAIT(download.finished());
    QCOMPARE(m_manager->sent().size(), 1);
    QCOMPARE(m_server->requests().size(), 1);
    QCOMPARE(download.content(), QByteArray("body"));
}

void TestDownloadStart::completionWithRunningTrueMakesOnePass()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    const QTemporaryDir dir;
    FileIO fileIo;
    fileIo.setRunning(true);
    fileIo.setUrl(m_server->url("/a"));
    fileIo.setDestination(QUrl::fromLocalFile(dir.filePath(QStringLiteral("file"))));
    const TransferLog log(&fileIo);
    fileIo.componentComplete();
    QCOMPARE(log.entries(), Lines({"started() running=1 progress=0"}));
    AWAIT(!fileIo.running());
    QCOMPARE(m_server->requests().size(), 1);
    QCOMPARE(log.milestones(),
             Lines({"started() running=1", "runningChanged() running=0", "finished() running=0"}));
    QVERIFY(QFile::exists(dir.filePath(QStringLiteral("file"))));
}

void TestDownloadStart::startDuringATransferReplacesIt()
{
    m_server->on("/a", HttpScript::head(100).send("begun").hold());
    m_server->on("/b", HttpScript::fixedLength("other"));
    Download download;
    download.startOnce(m_server->url("/a"));
    AWAIT_EQUAL(m_server->requestCount("/a"), 1);
    download.log.clear();

    download.fileIo->start(m_server->url("/b"));
    QCOMPARE(download.log.milestones(), Lines({"urlChanged() running=1", "started() running=1"}));
    QCOMPARE(m_manager->sent().size(), 2);
    QVERIFY(m_manager->sent().at(0).reply->isRunning());
    AWAIT(download.finished());
    QVERIFY(!m_manager->sent().at(0).reply);
    QVERIFY(!download.failed());
    QCOMPARE(download.content(), QByteArray("other"));
    QCOMPARE(download.files(), Lines({"file"}));
}

void TestDownloadStart::engineMakesAnObjectThatDownloads()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
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
                          + m_server->url("/a").toEncoded()
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
    QCOMPARE(m_server->requests().size(), 1);
}

void TestDownloadStart::requestIsMadeOfTheUrlAlone()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.startOnce(m_server->url("/a"));
    AWAIT(download.finished());
    QCOMPARE(m_manager->sent().at(0).request, requestOf(m_server->url("/a")));

    // Nor does anything reach the wire that the library does not send by itself.
    const std::unique_ptr<QNetworkReply> plain(m_manager->get(requestOf(m_server->url("/a"))));
    AWAIT(plain->isFinished());
    QCOMPARE(m_server->requests().size(), 2);
    QCOMPARE(m_server->requests().at(0).method, QByteArray("GET"));
    QCOMPARE(m_server->requests().at(0).headers, m_server->requests().at(1).headers);
    QCOMPARE(m_server->requests().at(0).body, QByteArray());
}

void TestDownloadStart::secureRequestOffersNoHttp2()
{
    if (!QSslSocket::supportsSsl())
        QSKIP("this Qt has no TLS");
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    Download download;
    download.startOnce(QUrl(QStringLiteral("https://127.0.0.1:%1/a").arg(server.serverPort())));
    AWAIT(server.hasPendingConnections());
    QTcpSocket *connection = server.nextPendingConnection();

    // The first TLS record names the protocols that may follow.
    constexpr int kHeader = 5;
    AWAIT(connection->bytesAvailable() > kHeader);
    const QByteArray header = connection->peek(kHeader);
    AWAIT(connection->bytesAvailable() >= kHeader + (uchar(header[3]) << 8 | uchar(header[4])));
    const QByteArray hello = connection->readAll();
    QCOMPARE(hello.front(), '\x16');
    QVERIFY(!hello.contains(QByteArray("\x02h2", 3)));
}

void TestDownloadStart::invalidUrlGoesToTheLibrary()
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
}

void TestDownloadStart::destinationIsAPathOrAFileUrl_data()
{
    QTest::addColumn<bool>("asFileUrl");
    QTest::addColumn<QByteArray>("name");

    QTest::newRow("path") << false << QByteArray("plain.bin");
    QTest::newRow("file URL") << true << QByteArray("plain.bin");
    QTest::newRow("path with a blank") << false << QByteArray("two words");
    QTest::newRow("file URL with a blank") << true << QByteArray("two words");
    QTest::newRow("file URL with Chinese") << true << QByteArray("咖啡");
}

void TestDownloadStart::destinationIsAPathOrAFileUrl()
{
    QFETCH(bool, asFileUrl);
    QFETCH(QByteArray, name);

    m_server->on("/a", HttpScript::fixedLength("body"));
    Download download;
    const QString path = download.path(name);
    download.fileIo->setDestination(asFileUrl ? QUrl::fromLocalFile(path) : QUrl(path));
    download.fileIo->start(m_server->url("/a"));
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

QTEST_GUILESS_MAIN(TestDownloadStart)
#include "tst_downloadstart.moc"
