#include "fileio.h"

#include "qtversion.h"
#include "quickdownloadmaster.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTime>

#include <cstdint>

namespace {

constexpr std::uint8_t kAnswerPauses = 9;
constexpr int kPauseMs = 100;

QNetworkAccessManager *manager()
{
    return QuickDownloadMaster::instance()->networkAccessManager();
}

QNetworkRequest requestFor(const QString &url)
{
    return requestOf(QUrl(url, QUrl::TolerantMode));
}

} // namespace

QString FileIO::httpGet(QString url)
{
    m_replyText = QLatin1String("");
    if (m_running)
        return m_replyText;
    return awaitReplyText(manager()->get(requestFor(url)));
}

QString FileIO::httpPost(QString url, QString data)
{
    m_replyText = QLatin1String("");
    if (m_running)
        return m_replyText;
    return awaitReplyText(manager()->post(requestFor(url), data.toLatin1()));
}

QString FileIO::awaitReplyText(QNetworkReply *reply)
{
    // Deliberate: an earlier reply is neither released nor disconnected. When its data comes late,
    // the slot reads from the newer reply. (tst_httpreply::lateAnswerReadsTheNewerReply)
    m_reply = reply;
    connect(reply, SIGNAL(readyRead()), SLOT(onReadyReadReply()));
    const QPointer<FileIO> self(this);
    for (std::uint8_t pause = 0; m_replyText.isEmpty() && pause != kAnswerPauses; ++pause) {
        delay_ms(kPauseMs);
        if (!self)
            return QLatin1String(""); // a handler has deleted this object
    }
    return m_replyText;
}

void FileIO::onReadyReadReply()
{
    if (!m_reply)
        return;
    // Converted through a C string, which cuts the piece at its first NUL byte.
    m_replyText = QString::fromUtf8(m_reply->readAll().constData());
}

void FileIO::delay_ms(int ms)
{
    const QTime end = QTime::currentTime().addMSecs(ms);
    while (QTime::currentTime() < end)
        QCoreApplication::processEvents(QEventLoop::AllEvents, kPauseMs);
}
