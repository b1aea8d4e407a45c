#include "quickdownloadmaster.h"

#include <QNetworkAccessManager>
#include <QtGlobal>

QuickDownloadMaster *QuickDownloadMaster::self = nullptr;

QuickDownloadMaster::QuickDownloadMaster(QObject *parent)
    : QObject(parent)
{
    self = this;
    emit readyChanged();
}

QuickDownloadMaster::~QuickDownloadMaster()
{
    if (m_ownsManager)
        delete m_manager;
}

QuickDownloadMaster *QuickDownloadMaster::instance()
{
    if (!self)
        self = new QuickDownloadMaster;
    return self;
}

bool QuickDownloadMaster::checkInstance(const char *function)
{
    if (self)
        return true;
    qWarning("QuickDownloadMaster::%s: Please instantiate the QuickDownloadMaster object first",
             function);
    return false;
}

bool QuickDownloadMaster::ready() const
{
    return m_ready;
}

QNetworkAccessManager *QuickDownloadMaster::networkAccessManager()
{
    if (!m_manager) {
        m_manager = new QNetworkAccessManager(self);
        m_ownsManager = true;
        forgetWhenDestroyed(m_manager);
    }
    return m_manager;
}

void QuickDownloadMaster::setNetworkAccessManager(QNetworkAccessManager *manager)
{
    const bool isOwn = m_ownsManager && manager == m_manager;
    if (m_ownsManager)
        delete m_manager;
    m_manager = manager;
    if (manager && !isOwn)
        forgetWhenDestroyed(manager);
}

void QuickDownloadMaster::forgetWhenDestroyed(QNetworkAccessManager *manager)
{
    connect(manager, &QObject::destroyed, this, [this](const QObject *destroyed) {
        if (destroyed != m_manager)
            return;
        m_manager = nullptr;
        m_ownsManager = false;
    });
}
