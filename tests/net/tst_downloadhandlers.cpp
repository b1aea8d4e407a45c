#include "downloadfixture.h"

#include <functional>

/// What a handler of the downloader's signals may do: start the next transfer, stop, or delete the
/// object.
class TestDownloadHandlers : public DownloadTest {
    Q_OBJECT

private slots:
    void finishedHandlerStartsTheNext();
    void runningHandlerStartsTheNext();
    void errorHandlerStartsTheNext_data();
    void errorHandlerStartsTheNext();
    void anyHandlerMayStop_data();
    void anyHandlerMayStop();
    void anyHandlerMayDeleteTheObject_data();
    void anyHandlerMayDeleteTheObject();

private:
    void compareNothingHeld(const Download &download) const;
};

void TestDownloadHandlers::finishedHandlerStartsTheNext()
{
    m_server->on("/a", HttpScript::fixedLength("first"));
    m_server->on("/b", HttpScript::head(6).send("sec").hold().send("ond"));
    Download download;
    bool startedNext = false;
    connect(download.fileIo.get(), &FileIO::finished, this, [&] {
        if (startedNext)
            return;
        startedNext = true;
        download.log.clear();
        download.fileIo->setDestination(download.fileUrl("next"));
        download.fileIo->start(m_server->url("/b"));
    });
    download.startOnce(m_server->url("/a"));
    AWAIT(startedNext);
    QCOMPARE(download.log.names(),
             Lines({"destinationChanged", "urlChanged", "progressChanged", "started",
                    "runningChanged", "started"}));
    AWAIT_EQUAL(m_server->requestCount("/b") > 0, true);
    QCOMPARE(download.openFiles(), 1);
    m_server->release("/b");
    AWAIT(download.finished());
    QVERIFY(!download.failed());
    QCOMPARE(download.content(), QByteArray("first"));
    QCOMPARE(download.content("next"), QByteArray("second"));
    QCOMPARE(download.files(), Lines({"file", "next"}));
}

void TestDownloadHandlers::runningHandlerStartsTheNext()
{
    m_server->on("/a", HttpScript::fixedLength("first"));
    m_server->on("/b", HttpScript::fixedLength("second"));
    Download download;
    bool startedNext = false;
    connect(download.fileIo.get(), &FileIO::runningChanged, this, [&] {
        if (startedNext || download.fileIo->running())
            return;
        startedNext = true;
        download.fileIo->setDestination(download.fileUrl("next"));
        download.fileIo->start(m_server->url("/b"));
    });
    download.startOnce(m_server->url("/a"));
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

    if (failure == 1)
        m_server->on("/a", HttpScript::redirect("/c", "moved"));
    else if (failure == 2)
        m_server->on("/a", HttpScript::head(4).hold().send("body"));
    m_server->on("/b", HttpScript::fixedLength("second"));
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
        download.fileIo->start(m_server->url("/b"));
    });
    download.startOnce(m_server->url("/a"));
    if (failure == 2) {
        AWAIT_EQUAL(m_server->requests().size(), 1);
        QVERIFY(QDir(download.path("sub")).removeRecursively());
        m_server->release("/a");
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

struct HandlerRow {
    const char *path; ///< what is downloaded, see scriptRows()
    const char *signal;
    int emission; ///< at which a handler acts
};

constexpr const char *kUrl = "urlChanged()";
constexpr const char *kRunning = "runningChanged()";
constexpr const char *kProgress = "progressChanged()";
constexpr const char *kStarted = "started()";
constexpr const char *kFinished = "finished()";
constexpr const char *kRedirected = "redirected(QUrl)";
constexpr const char *kUpdate = "update(int,int)";
constexpr const char *kError = "error(int,QString)";

/// Every place where the downloader emits.
const HandlerRow kHandlerRows[] = {
    {"/ok", kUrl, 1},           {"/ok", kProgress, 1},        {"/ok", kStarted, 1},
    {"/ok", kRunning, 1},       {"/ok", kStarted, 2},         {"/ok", kUpdate, 1},
    {"/ok", kProgress, 2},      {"/empty", kProgress, 3},     {"/ok", kRunning, 2},
    {"/ok", kFinished, 1},      {"/missing", kError, 1},      {"/to-ok", kRedirected, 1},
    {"/to-ok", kUrl, 2},        {"/to-ok", kStarted, 3},      {"/to-ok", kFinished, 1},
    {"/to-missing", kError, 1}, {"/refused", kRedirected, 1}, {"/refused", kError, 1},
    {"/stop", kError, 1},       {"/stop", kRunning, 2},       {"/folder", kError, 1},
    {"/deleted", kError, 1},    {"/lost", kError, 1},
};

void addHandlerRows()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<int>("emission");

    for (const HandlerRow &row : kHandlerRows)
        QTest::addRow("%s %s %d", row.path, row.signal, row.emission)
            << QByteArray(row.path) << QByteArray(row.signal) << row.emission;
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
                staticMetaObject.method(staticMetaObject.indexOfSlot("count()")));
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
    // No number first, so that the end has a change to 1 to tell.
    server.on("/empty", HttpScript::fixedLength({}));
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

void TestDownloadHandlers::compareNothingHeld(const Download &download) const
{
    QByteArrayList files = download.files();
    files.removeAll("file");
    QCOMPARE(files, Lines());
    deleteReleased();
    for (const RecordingManager::Sent &sent : m_manager->sent())
        QVERIFY(!sent.reply);
}

void TestDownloadHandlers::anyHandlerMayStop_data()
{
    addHandlerRows();
}

void TestDownloadHandlers::anyHandlerMayStop()
{
    QFETCH(QByteArray, path);
    QFETCH(QByteArray, signal);
    QFETCH(int, emission);

    scriptRows(*m_server);
    Download download;
    prepareRow(download, path);
    FileIO *const fileIo = download.fileIo.get();
    const SignalTrigger trigger(fileIo, signal, emission, [fileIo] { fileIo->stop(); });
    runRow(*m_server, download, *m_manager, path);
    AWAIT(trigger.hasFired());
    fileIo->stop();

    // Nothing is left over, and the object still works.
    compareNothingHeld(download);
    fileIo->setDestination(download.fileUrl("next"));
    download.log.clear();
    fileIo->start(m_server->url("/ok"));
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
    QFETCH(QByteArray, path);
    QFETCH(QByteArray, signal);
    QFETCH(int, emission);

    scriptRows(*m_server);
    Download download;
    prepareRow(download, path);
    const SignalTrigger trigger(download.fileIo.get(), signal, emission,
                                [&download] { download.fileIo.reset(); });
    runRow(*m_server, download, *m_manager, path);
    AWAIT(trigger.hasFired());
    QVERIFY(!download.fileIo);

    compareNothingHeld(download);
}

QTEST_GUILESS_MAIN(TestDownloadHandlers)
#include "tst_downloadhandlers.moc"
