#include "fileio.h"

#include "qtversion.h"
#include "quickdownloadmaster.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSaveFile>
#include <QVariant>

namespace {

constexpr qint64 kBytesPerKilobyte = 1000;       // not 1024
constexpr qint64 kUnwrittenBytes = 256LL * 1024; // a server that is faster than the disk waits

struct ReplyConnection {
    const char *signal;
    const char *slot;
};

const ReplyConnection kReplyConnections[] = {
    {SIGNAL(readyRead()), SLOT(onReadyRead())},
    {SIGNAL(downloadProgress(qint64, qint64)), SLOT(onDownloadProgress(qint64, qint64))},
    {SIGNAL(finished()), SLOT(onFinished())},
};

QString localPath(const QUrl &url)
{
    return url.toDisplayString(QUrl::PreferLocalFile);
}

} // namespace

QUrl FileIO::url() const
{
    return m_url;
}

void FileIO::setUrl(const QUrl &url)
{
    if (url == m_url)
        return;
    m_url = url;
    emit urlChanged();
}

bool FileIO::running() const
{
    return m_running;
}

void FileIO::setRunning(bool running)
{
    if (running == m_running)
        return;
    m_running = running;
    const QPointer<FileIO> self(this);
    if (running)
        start();
    else
        discardTransfer();
    if (self)
        emit runningChanged();
}

double FileIO::progress() const
{
    return m_progress;
}

void FileIO::setProgress(double progress)
{
    if (progress == m_progress)
        return;
    m_progress = progress;
    emit progressChanged();
}

QUrl FileIO::destination() const
{
    return m_destination;
}

void FileIO::setDestination(const QUrl &destination)
{
    if (destination == m_destination)
        return;
    m_destination = destination;
    const QString path = localPath(destination);
    if (m_saveFile && !m_running && m_saveFile->fileName() != path)
        m_saveFile->setFileName(path);
    emit destinationChanged();
}

bool FileIO::followRedirects() const
{
    return m_followRedirects;
}

void FileIO::setFollowRedirects(bool followRedirects)
{
    if (followRedirects == m_followRedirects)
        return;
    m_followRedirects = followRedirects;
    emit followRedirectsChanged();
}

bool FileIO::overwrite() const
{
    return m_overwrite;
}

void FileIO::setOverwrite(bool overwrite)
{
    if (overwrite == m_overwrite)
        return;
    m_overwrite = overwrite;
    emit overwriteChanged();
}

void FileIO::start(QUrl url)
{
    // Deliberate: only an object created by the QML engine becomes complete, so in this program
    // downloads never begin. (tst_downloadrefusal::incompleteObjectNeverStarts)
    if (!m_complete)
        return;
    if (url.isEmpty()) {
        emit error(ErrorUrl, QStringLiteral("Url is empty"));
        return;
    }
    if (m_destination.isEmpty()) {
        emit error(ErrorDestination, QStringLiteral("Destination is empty"));
        return;
    }
    const QPointer<FileIO> self(this); // any handler may delete the object
    setUrl(url);
    if (!self)
        return;

    const QString path = localPath(m_destination);
    if (!m_overwrite && QFile::exists(path)) {
        emit error(ErrorDestination,
                   QStringLiteral("Overwriting not allowed for destination file \"%1\"").arg(path));
        return;
    }
    if (!openSaveFile(path))
        return;

    shutdownNetworkReply();
    m_reply = QuickDownloadMaster::instance()->networkAccessManager()->get(requestOf(m_url));
    m_reply->setReadBufferSize(kUnwrittenBytes);
    for (const ReplyConnection &connection : kReplyConnections)
        connect(m_reply, connection.signal, connection.slot);

    setProgress(0.0);
    if (!self)
        return;
    // Deliberate: from the stopped state this calls start() once more, which replaces the file and
    // the request made above; scripts see started() twice.
    // (tst_downloadstart::startFromIdleRunsTwice)
    setRunning(true);
    if (self)
        emit started();
}

void FileIO::start()
{
    start(m_url);
}

void FileIO::stop()
{
    setRunning(false);
}

void FileIO::onReadyRead()
{
    if (!m_reply)
        return;
    // Read even without a file: with a full buffer the transfer would never end.
    const QByteArray piece = m_reply->readAll();
    if (m_saveFile)
        m_saveFile->write(piece);
}

void FileIO::onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    if (!m_running)
        return;
    const QPointer<FileIO> self(this);
    emit update(static_cast<int>(bytesReceived / kBytesPerKilobyte),
                static_cast<int>(bytesTotal / kBytesPerKilobyte));
    if (!self)
        return;
    // Deliberate: no check of the total. -1 (unknown) makes the progress negative, 0 makes it NaN.
    // (tst_downloaddata::unknownTotalMakesProgressNegative)
    setProgress(static_cast<double>(bytesReceived) / static_cast<double>(bytesTotal));
}

void FileIO::onFinished()
{
    // A handler of the signals below may delete this object, or start the next transfer, whose
    // reply and file must not be touched here.
    const QPointer<FileIO> self(this);
    const QPointer<QNetworkReply> endedReply = m_reply;
    const QPointer<QSaveFile> endedFile = m_saveFile;

    if (!m_running)
        cancelSaveFile();
    if (!m_reply) {
        emit error(ErrorNetwork, QStringLiteral("Network reply was deleted"));
        if (self && m_saveFile == endedFile)
            discardSaveFile();
        return;
    }

    const QVariant redirect = m_reply->attribute(QNetworkRequest::RedirectionTargetAttribute);
    if (m_reply->error() != QNetworkReply::NoError) {
        cancelSaveFile();
        emit error(ErrorNetwork, m_reply->errorString());
    } else if (!redirect.isNull()) {
        const QUrl target = m_url.resolved(redirect.toUrl());
        emit redirected(target);
        if (!self)
            return;
        if (m_followRedirects) {
            start(target);
            return;
        }
        // Deliberate: not cancelled, so shutdownSaveFile() below commits the redirect's own body.
        // (tst_downloadredirect::refusedRedirectCommitsItsBody)
        emit error(ErrorNetwork, QStringLiteral("Re-directs not allowed"));
    } else if (commitSaveFile()) {
        shutdownSaveFile();
        setProgress(1.0);
        if (self)
            setRunning(false);
        if (self)
            emit finished();
        return;
    } else {
        cancelSaveFile();
        emit error(ErrorDestination,
                   QStringLiteral("Error while writing \"%1\"").arg(localPath(m_destination)));
    }
    if (!self)
        return;
    // Deliberate: `running` stays true after a failure; the script sets it false.
    // (tst_downloadfailure::runningStaysTrueAfterAFailure)
    if (m_reply == endedReply)
        shutdownNetworkReply();
    if (m_saveFile == endedFile)
        shutdownSaveFile();
}

void FileIO::shutdownNetworkReply()
{
    if (!m_reply)
        return;
    for (const ReplyConnection &connection : kReplyConnections)
        disconnect(m_reply, connection.signal, this, connection.slot);
    m_reply->deleteLater();
    m_reply.clear();
}

void FileIO::shutdownSaveFile()
{
    if (!m_saveFile)
        return;
    static_cast<void>(commitSaveFile()); // else deleting it discards the file
    delete m_saveFile;
    m_saveFile = nullptr;
}

bool FileIO::openSaveFile(const QString &path)
{
    discardSaveFile();
    m_saveFile = new QSaveFile(path);
    if (m_saveFile->open(QIODevice::WriteOnly))
        return true;
    const QPointer<FileIO> self(this);
    const QPointer<QSaveFile> failedFile = m_saveFile;
    emit error(ErrorDestination, m_saveFile->errorString());
    if (self && m_saveFile == failedFile)
        discardSaveFile();
    return false;
}

bool FileIO::commitSaveFile()
{
    // commit() alone does not report that buffered data could not be written.
    return m_saveFile && m_saveFile->isOpen() && m_saveFile->flush() && m_saveFile->commit();
}

void FileIO::cancelSaveFile()
{
    if (m_saveFile)
        m_saveFile->cancelWriting();
}

void FileIO::discardSaveFile()
{
    cancelSaveFile();
    shutdownSaveFile();
}

void FileIO::discardTransfer()
{
    const QPointer<FileIO> self(this);
    const QPointer<QNetworkReply> reply = m_reply;
    const QPointer<QSaveFile> file = m_saveFile;
    // Aborting runs onFinished(), which releases both; a handler of its error() may already have
    // started the next transfer, or deleted this object.
    if (reply && reply->isRunning())
        reply->abort();
    if (!self)
        return;
    if (m_reply == reply)
        shutdownNetworkReply();
    if (m_saveFile == file)
        discardSaveFile();
}
