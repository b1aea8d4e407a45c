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
    }
    return m_manager;
}

void QuickDownloadMaster::setNetworkAccessManager(QNetworkAccessManager *manager)
{
    if (m_ownsManager && m_manager) {
        delete m_manager;
        m_ownsManager = false;
    }
    m_manager = manager;
}
