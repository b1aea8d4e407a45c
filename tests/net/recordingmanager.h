#ifndef RECORDINGMANAGER_H
#define RECORDINGMANAGER_H

#include "quickdownloadmaster.h"

#include <QList>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>

/// A manager that sends as ever, and tells what it was asked to send. The program's transfers go
/// through it while it lives.
class RecordingManager : public QNetworkAccessManager {
    Q_OBJECT

public:
    struct Sent {
        Operation operation;
        QNetworkRequest request;
        QPointer<QNetworkReply> reply;
    };

    RecordingManager() { QuickDownloadMaster::instance()->setNetworkAccessManager(this); }
    ~RecordingManager() override
    {
        QuickDownloadMaster::instance()->setNetworkAccessManager(nullptr);
    }

    const QList<Sent> &sent() const { return m_sent; }
    QNetworkReply *lastReply() const { return m_sent.isEmpty() ? nullptr : m_sent.last().reply; }

protected:
    QNetworkReply *createRequest(Operation operation, const QNetworkRequest &request,
                                 QIODevice *outgoingData) override
    {
        QNetworkReply *const reply =
            QNetworkAccessManager::createRequest(operation, request, outgoingData);
        m_sent.append({operation, request, reply});
        return reply;
    }

private:
    QList<Sent> m_sent;
};

#endif // RECORDINGMANAGER_H
