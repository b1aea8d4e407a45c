#include "fileio.h"

#include <QNetworkReply>
#include <QSaveFile>

#include <cstdio>

namespace {

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
    if (running) {
        start();
    } else {
        // Aborting runs onFinished(), which may release both members.
        if (m_reply && m_reply->isRunning())
            m_reply->abort();
        shutdownNetworkReply();
        if (m_saveFile)
            m_saveFile->cancelWriting();
        shutdownSaveFile();
    }
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
    Q_UNUSED(url)
    std::printf("[info]: start is not built yet.\n");
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
    std::printf("[info]: onReadyRead is not built yet.\n");
}

void FileIO::onFinished()
{
    std::printf("[info]: onFinished is not built yet.\n");
}

void FileIO::onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    Q_UNUSED(bytesReceived)
    Q_UNUSED(bytesTotal)
    std::printf("[info]: onDownloadProgress is not built yet.\n");
}

void FileIO::shutdownNetworkReply()
{
    if (!m_reply)
        return;
    m_reply->disconnect(this);
    m_reply->deleteLater();
    m_reply = nullptr;
}

void FileIO::shutdownSaveFile()
{
    if (!m_saveFile)
        return;
    m_saveFile->commit();
    delete m_saveFile;
    m_saveFile = nullptr;
}
