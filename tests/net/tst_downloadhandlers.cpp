#include "downloadfixture.h"

#include <functional>

/// What a handler of the downloader's signals may do: start the next transfer, stop, or delete the
/// object.
class TestDownloadHandlers : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void finishedHandlerStartsTheNext();
    void runningHandlerStartsTheNext();
    void errorHandlerStartsTheNext_data();
    void errorHandlerStartsTheNext();
    void anyHandlerMayStop_data();
    void anyHandlerMayStop();
    void anyHandlerMayDeleteTheObject_data();
    void anyHandlerMayDeleteTheObject();

private:
    std::unique_ptr<RecordingManager> m_manager;
};

void TestDownloadHandlers::init()
{
    // No test meets the connections of another.
    m_manager = std::make_unique<RecordingManager>();
}

void TestDownloadHandlers::cleanup()
{
    m_manager.reset();
}

void TestDownloadHandlers::finishedHandlerStartsTheNext()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("first"));
    server.on("/b", HttpScript::head(6).send("sec").hold().send("ond"));
    Download download;
    bool startedNext = false;
    connect(download.fileIo.get(), &FileIO::finished, this, [&] {
        if (startedNext)
            return;
        startedNext = true;
        download.log.clear();
        download.fileIo->setDestination(download.fileUrl("next"));
        download.fileIo->start(server.url("/b"));
    });
    download.startOnce(server.url("/a"));
    AWAIT(startedNext);
    QCOMPARE(download.log.names(),
             Lines({"destinationChanged", "urlChanged", "progressChanged", "started",
                    "runningChanged", "started"}));
    AWAIT_EQUAL(server.requestCount("/b") > 0, true);
    QCOMPARE(download.openFiles(), 1);
    server.release("/b");
    AWAIT(download.finished());
    QVERIFY(!download.failed());
    QCOMPARE(download.content(), QByteArray("first"));
    QCOMPARE(download.content("next"), QByteArray("second"));
    QCOMPARE(download.files(), Lines({"file", "next"}));
}

void TestDownloadHandlers::runningHandlerStartsTheNext()
{
    ScriptedHttpServer server;
    server.on("/a", HttpScript::fixedLength("first"));
    server.on("/b", HttpScript::fixedLength("second"));
    Download download;
    bool startedNext = false;
    connect(download.fileIo.get(), &FileIO::runningChanged, this, [&] {
        if (startedNext || download.fileIo->running())
            return;
        startedNext = true;
        download.fileIo->setDestination(download.fileUrl("next"));
        download.fileIo->start(server.url("/b"));
    });
    download.startOnce(server.url("/a"));
    AWAIT_EQUAL(download.log.names().count(QByteArray("finished")), 2);
    QVERIFY(!download.failed());
    QCOMPARE(download.content("next"), QByteArray("second"));
    QCOMPARE(download.files(), Lines({"file", "next"}));
}

void TestDownloadHandlers::errorHandlerStartsTheNext_data()
{
    QTest::addColumn<int>("failure");

    QTest::newRow("transfer failed") << 0;
    QTest::newRow("redirect refused") << 1;
    QTest::newRow("commit failed") << 2;
    QTest::newRow("stopped") << 3;
    QTest::newRow("reply was deleted") << 4;
    QTest::newRow("destination not opened") << 5;
}

void TestDownloadHandlers::errorHandlerStartsTheNext()
{
    QFETCH(int, failure);

    ScriptedHttpServer server;
    if (failure == 1)
        server.on("/a", HttpScript::redirect("/c", "moved"));
    else if (failure == 2)
        server.on("/a", HttpScript::head(4).hold().send("body"));
    server.on("/b", HttpScript::fixedLength("second"));
    Download download;
    QVERIFY(QDir(download.dir.path()).mkdir(QStringLiteral("sub")));
    if (failure == 2)
        download.fileIo->setDestination(download.fileUrl("sub/file"));
    else if (failure == 5)
        download.fileIo->setDestination(download.fileUrl("sub"));
    int errors = 0;
    connect(download.fileIo.get(), &FileIO::error, this, [&] {
        if (errors++ > 0)
            return;
        download.fileIo->setDestination(download.fileUrl("next"));
        download.fileIo->start(server.url("/b"));
    });
    download.startOnce(server.url("/a"));
    if (failure == 2) {
        AWAIT_EQUAL(server.requests().size(), 1);
        QVERIFY(QDir(download.path("sub")).removeRecursively());
        server.release("/a");
    } else if (failure == 3) {
        download.fileIo->stop();
    } else if (failure == 4) {
        delete m_manager->lastReply();
        QVERIFY(call(download.fileIo.get(), "onFinished"));
    }
    AWAIT(download.finished());
    QCOMPARE(errors, 1);
    QCOMPARE(download.content("next"), QByteArray("second"));
    QCOMPARE(download.files(), Lines({"next"})); // a redirect's body too was replaced
}

namespace {

/// Ways to end, and the signals of each way that a handler can act in.
void addHandlerRows()
{
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<int>("emission");
    QTest::addColumn<QByteArray>("path");

    const QList<QPair<QByteArray, int>> common = {
        {"urlChanged()", 1},     {"progressChanged()", 1}, {"started()", 1},
        {"runningChanged()", 1}, {"started()", 2},
    };
    const QList<QPair<QByteArray, QByteArray>> endings = {
        {"/ok", "progressChanged()"},
        {"/ok", "runningChanged()"},
        {"/ok", "finished()"},
        {"/ok", "update(int,int)"},
        {"/missing", "error(int,QString)"},
        {"/to-ok", "redirected(QUrl)"},
        {"/to-ok", "urlChanged()"},
        {"/to-ok", "started()"},
        {"/to-ok", "finished()"},
        {"/to-missing", "error(int,QString)"},
        {"/refused", "redirected(QUrl)"},
        {"/refused", "error(int,QString)"},
    };
    for (const auto &row : common)
        QTest::addRow("%s %d", row.first.constData(), row.second)
            << row.first << row.second << QByteArray("/ok");
    for (const auto &row : endings) {
        int emission = 1;
        if (row.second == "progressChanged()" || row.second == "urlChanged()"
            || row.second == "runningChanged()")
            emission = 2;
        else if (row.second == "started()")
            emission = 3;
        QTest::addRow("%s of %s", row.second.constData(), row.first.constData())
            << row.second << emission << row.first;
    }
    QTest::newRow("error of stop") << QByteArray("error(int,QString)") << 1 << QByteArray("/stop");
    QTest::newRow("runningChanged of stop")
        << QByteArray("runningChanged()") << 2 << QByteArray("/stop");
    QTest::newRow("error of an unopenable destination")
        << QByteArray("error(int,QString)") << 1 << QByteArray("/folder");
    QTest::newRow("error of a deleted reply")
        << QByteArray("error(int,QString)") << 1 << QByteArray("/deleted");
    QTest::newRow("error of a failed commit")
        << QByteArray("error(int,QString)") << 1 << QByteArray("/lost");
}

/// Runs `action` at the nth emission of a signal, once.
class SignalTrigger : public QObject {
    Q_OBJECT

public:
    SignalTrigger(FileIO *fileIo, const QByteArray &signal, int emission,
                  std::function<void()> action)
        : m_emission(emission)
        , m_action(std::move(action))
    {
        const QMetaObject &meta = FileIO::staticMetaObject;
        connect(fileIo, meta.method(meta.indexOfSignal(signal.constData())), this,
                metaObject()->method(metaObject()->indexOfSlot("count()")));
    }
    bool hasFired() const { return m_count >= m_emission; }

private slots:
    void count()
    {
        if (++m_count == m_emission)
            m_action();
    }

private:
    int m_emission;
    int m_count = 0;
    std::function<void()> m_action;
};

/// Answers for the rows.
void scriptRows(ScriptedHttpServer &server)
{
    // Of unknown length: the library then reports progress at the end, always.
    server.on("/ok", HttpScript::chunked({QByteArray(2000, 'x')}));
    server.on("/to-ok", HttpScript::redirect("/ok"));
    server.on("/to-missing", HttpScript::redirect("/missing"));
    server.on("/refused", HttpScript::redirect("/ok", "moved"));
    server.on("/lost", HttpScript::head(4).hold().send("body"));
    for (const char *silent : {"/stop", "/deleted", "/folder"})
        server.on(silent, HttpScript::silence());
}

/// Makes a download ready for a row.
void prepareRow(Download &download, const QByteArray &path)
{
    QDir(download.dir.path()).mkdir(QStringLiteral("sub"));
    download.fileIo->setFollowRedirects(path != "/refused");
    download.fileIo->setProgress(0.5);
    if (path == "/folder")
        download.fileIo->setDestination(download.fileUrl("sub"));
    if (path == "/lost")
        download.fileIo->setDestination(download.fileUrl("sub/file"));
}

/// Takes the object, as long as there is one, towards the row's end.
void runRow(ScriptedHttpServer &server, const Download &download, const RecordingManager &manager,
            const QByteArray &path)
{
    const QPointer<FileIO> fileIo = download.fileIo.get();
    fileIo->start(server.url(path));
    if (!fileIo)
        return;
    if (path == "/stop") {
        fileIo->stop();
    } else if (path == "/deleted") {
        delete manager.lastReply();
        call(fileIo, "onFinished");
    } else if (path == "/lost") {
        AWAIT(server.requestCount(path) > 0);
        QDir(download.path("sub")).removeRecursively();
        server.release(path);
    }
}

} // namespace

void TestDownloadHandlers::anyHandlerMayStop_data()
{
    addHandlerRows();
}

void TestDownloadHandlers::anyHandlerMayStop()
{
    QFETCH(QByteArray, signal);
    QFETCH(int, emission);
    QFETCH(QByteArray, path);

    ScriptedHttpServer server;
    scriptRows(server);
    Download download;
    prepareRow(download, path);
    FileIO *const fileIo = download.fileIo.get();
    const SignalTrigger trigger(fileIo, signal, emission, [fileIo] { fileIo->stop(); });
    runRow(server, download, *m_manager, path);
    AWAIT(trigger.hasFired());
    fileIo->stop();

    // Nothing is left over, and the object still works.
    QByteArrayList files = download.files();
    files.removeAll("file");
    QCOMPARE(files, Lines());
    QCOMPARE(download.openFiles(), 0);
    deleteReleased();
    for (const RecordingManager::Sent &sent : m_manager->sent())
        QVERIFY(!sent.reply);
    fileIo->setDestination(download.fileUrl("next"));
    download.log.clear();
    fileIo->start(server.url("/ok"));
    AWAIT(download.finished());
    QVERIFY(!download.failed());
    QCOMPARE(download.content("next"), QByteArray(2000, 'x'));
}

void TestDownloadHandlers::anyHandlerMayDeleteTheObject_data()
{
    addHandlerRows();
}

void TestDownloadHandlers::anyHandlerMayDeleteTheObject()
{
    QFETCH(QByteArray, signal);
    QFETCH(int, emission);
    QFETCH(QByteArray, path);

    ScriptedHttpServer server;
    scriptRows(server);
    Download download;
    prepareRow(download, path);
    const SignalTrigger trigger(download.fileIo.get(), signal, emission,
                                [&download] { download.fileIo.reset(); });
    runRow(server, download, *m_manager, path);
    AWAIT(trigger.hasFired());
    QVERIFY(!download.fileIo);

    QByteArrayList files = download.files();
    files.removeAll("file");
    QCOMPARE(files, Lines());
    QCOMPARE(download.openFiles(), 0);
    deleteReleased();
    for (const RecordingManager::Sent &sent : m_manager->sent())
        QVERIFY(!sent.reply);
}

QTEST_GUILESS_MAIN(TestDownloadHandlers)
#include "tst_downloadhandlers.moc"
