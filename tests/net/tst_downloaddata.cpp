#include "capture.h"
#include "downloadfixture.h"

#include <QDeadlineTimer>
#include <QThread>

namespace {

bool callProgress(const Download &download, qint64 received, qint64 total)
{
    return QMetaObject::invokeMethod(download.fileIo.get(), "onDownloadProgress",
                                     Qt::DirectConnection, Q_ARG(qint64, received),
                                     Q_ARG(qint64, total));
}

} // namespace

/// How the data of a download is taken and reported, up to its successful end.
class TestDownloadData : public DownloadTest {
    Q_OBJECT

private slots:
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

private:
    /// Lets the held data of "/a" come, and leaves only its report in the log.
    void awaitProgress(Download &download);
};

void TestDownloadData::bodyIsWrittenWhole_data()
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

void TestDownloadData::bodyIsWrittenWhole()
{
    QFETCH(HttpScript, script);
    QFETCH(QByteArray, body);

    m_server->on("/a", script);
    Download download;
    const MessageCapture messages;
    download.fileIo->start(m_server->url("/a"));
    AWAIT(download.finished());
    QCOMPARE(download.content(), body);
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(messages.messages(), QStringList());
}

void TestDownloadData::piecesAreWrittenAsTheyCome()
{
    m_server->on("/a", HttpScript::head(7).send("one").hold().send("two").hold().send("3"));
    Download download;
    download.startOnce(m_server->url("/a"));
    const QSignalSpy arrivals(m_manager->lastReply(), &QNetworkReply::readyRead);
    for (int piece = 1; piece <= 2; ++piece) {
        AWAIT_EQUAL(arrivals.size(), piece);
        QCOMPARE(m_manager->lastReply()->bytesAvailable(), 0);
        QVERIFY(!QFile::exists(download.path()));
        m_server->release("/a");
    }
    AWAIT(download.finished());
    QCOMPARE(download.content(), QByteArray("onetwo3"));
}

void TestDownloadData::hugeBodyIsStreamed_data()
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

void TestDownloadData::hugeBodyIsStreamed()
{
    QFETCH(HttpScript, script);

    m_server->on("/a", script);
    Download download;
    download.startOnce(m_server->url("/a"));
    // While the program is busy elsewhere the server waits: no more is taken than is written.
    qint64 sentMeanwhile = 0;
    connect(m_manager->lastReply(), &QNetworkReply::readyRead, this, [&] {
        const QDeadlineTimer busy(sentMeanwhile == 0 ? 300 : 0);
        while (!busy.hasExpired() && m_server->bytesSent() < kHugeBody)
            QThread::msleep(1);
        if (sentMeanwhile == 0)
            sentMeanwhile = m_server->bytesSent();
    });
    AWAIT(download.finished());
    QVERIFY2(sentMeanwhile < kHugeBody / 2, QByteArray::number(sentMeanwhile).constData());
    QCOMPARE(QFileInfo(download.path()).size(), kHugeBody);
}

void TestDownloadData::awaitProgress(Download &download)
{
    AWAIT_EQUAL(m_server->requests().size(), 1);
    QTest::qWait(150); // the library reports no more often than every 100 ms from the request on
    download.log.clear();
    m_server->release("/a");
    AWAIT_EQUAL(download.log.entries().size(), 2);
}

void TestDownloadData::partialBodyIsReported()
{
    m_server->on("/a", HttpScript::head(10000).hold().send(QByteArray(2500, 'x')).hold());
    Download download;
    download.startOnce(m_server->url("/a"));
    awaitProgress(download);
    QCOMPARE(
        download.log.entries(),
        Lines({"update(2, 10) running=1 progress=0", "progressChanged() running=1 progress=0.25"}));
    QCOMPARE(download.fileIo->progress(), 0.25);
}

void TestDownloadData::unknownTotalMakesProgressNegative()
{
    m_server->on("/a",
                 HttpScript()
                     .send("HTTP/1.1 200 Scripted\r\nConnection: close\r\n\r\n")
                     .hold()
                     .send(QByteArray(2500, 'x'))
                     .hold()
                     .close());
    Download download;
    download.startOnce(m_server->url("/a"));
    awaitProgress(download);
    QCOMPARE(
        download.log.entries(),
        Lines({"update(2, 0) running=1 progress=0", "progressChanged() running=1 progress=-2500"}));
    m_server->release("/a");
    AWAIT(download.finished());
    QCOMPARE(download.fileIo->progress(), 1.0);
}

void TestDownloadData::progressIsComputedUnguarded_data()
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

void TestDownloadData::progressIsComputedUnguarded()
{
    QFETCH(qint64, received);
    QFETCH(qint64, total);
    QFETCH(QByteArray, update);
    QFETCH(QByteArray, progress);

    Download download;
    download.startOnce(m_server->url("/a"));
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

void TestDownloadData::progressIsIgnoredWhileNotRunning()
{
    Download download;
    QVERIFY(callProgress(download, 2500, 10000));
    QCOMPARE(download.log.entries(), Lines());
    QCOMPARE(download.fileIo->progress(), 0.0);
}

void TestDownloadData::dataWithoutAReplyIsIgnored()
{
    Download download;
    QVERIFY(call(download.fileIo.get(), "onReadyRead"));
    QCOMPARE(download.log.entries(), Lines());

    // A file without a reply: the reply was deleted under it.
    download.startOnce(m_server->url("/a"));
    delete m_manager->lastReply();
    download.log.clear();
    QVERIFY(call(download.fileIo.get(), "onReadyRead"));
    QCOMPARE(download.log.entries(), Lines());
    QCOMPARE(download.openFiles(), 1);
}

void TestDownloadData::successEndsInOrder()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    Download download;
    QByteArrayList filesAtEnd;
    connect(download.fileIo.get(), &FileIO::runningChanged, this,
            [&] { filesAtEnd = download.files(); });
    download.startOnce(m_server->url("/a"));
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

void TestDownloadData::progressOfOneIsNotRepeated()
{
    // At the end of a body of unknown length the library itself reports all of it.
    m_server->on("/a", HttpScript::chunked({QByteArray(4000, 'x')}));
    Download download;
    download.startOnce(m_server->url("/a"));
    AWAIT(download.finished());
    QCOMPARE(download.log.entries().mid(download.log.entries().size() - 3),
             Lines({"progressChanged() running=1 progress=1",
                    "runningChanged() running=0 progress=1", "finished() running=0 progress=1"}));
    QCOMPARE(download.log.of("progressChanged").count("progressChanged() running=1 progress=1"), 1);
    QVERIFY(download.log.of("update").last().startsWith("update(4, 4)"));
}

void TestDownloadData::emptyBodyEndsAtOne()
{
    m_server->on("/a", HttpScript::fixedLength({}));
    Download download;
    download.startOnce(m_server->url("/a"));
    AWAIT(download.finished());
    QCOMPARE(download.log.entries().mid(2),
             Lines({"update(0, 0) running=1 progress=0", "progressChanged() running=1 progress=nan",
                    "progressChanged() running=1 progress=1",
                    "runningChanged() running=0 progress=1", "finished() running=0 progress=1"}));
    QCOMPARE(download.content(), QByteArray());
}

void TestDownloadData::destinationIsReplacedOnlyAtTheEnd()
{
    m_server->on("/a", HttpScript::head(8).send("half").hold().send("more"));
    Download download;
    download.write("old");
    startAndReceive(download);
    QCOMPARE(download.content(), QByteArray("old"));
    QCOMPARE(download.openFiles(), 1);
    m_server->release("/a");
    AWAIT(download.finished());
    QCOMPARE(download.content(), QByteArray("halfmore"));
    QCOMPARE(download.files(), Lines({"file"}));
}

void TestDownloadData::laterDestinationLeavesTheRunningTransfer()
{
    m_server->on("/a", HttpScript::head(4).hold().send("body"));
    Download download;
    download.startOnce(m_server->url("/a"));
    AWAIT_EQUAL(m_server->requests().size(), 1);
    download.fileIo->setDestination(download.fileUrl("next"));
    m_server->release("/a");
    AWAIT(download.finished());
    QCOMPARE(download.files(), Lines({"file"}));
    QCOMPARE(download.log.names().count(QByteArray("destinationChanged")), 1);
}

void TestDownloadData::destinationChangedBetweenThePassesCounts()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    Download download;
    download.fileIo->setProgress(0.5);
    connect(download.fileIo.get(), &FileIO::progressChanged, this, [&] {
        if (!download.fileIo->running())
            download.fileIo->setDestination(download.fileUrl("next"));
    });
    download.log.clear();
    download.fileIo->start(m_server->url("/a"));
    QCOMPARE(download.log.names(),
             Lines({"urlChanged", "progressChanged", "destinationChanged", "started",
                    "runningChanged", "started"}));
    AWAIT(download.finished());
    QCOMPARE(download.files(), Lines({"next"}));
}

QTEST_GUILESS_MAIN(TestDownloadData)
#include "tst_downloaddata.moc"
