#ifndef QUICKDOWNLOADMASTER_H
#define QUICKDOWNLOADMASTER_H

#include <QObject>
#include <QPointer>

class QNetworkAccessManager;

/// The one holder of the network access manager through which every transfer of the program runs.
/// GUI thread only.
class QuickDownloadMaster : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool ready READ ready NOTIFY readyChanged)

public:
    /// Makes the object and records it as the instance, in place of an earlier one.
    explicit QuickDownloadMaster(QObject *parent = nullptr);
    /// Deletes the manager if this object made it. The recorded instance is not cleared.
    ~QuickDownloadMaster() override;

    /// The instance, made on first use; it then lives until the process ends.
    static QuickDownloadMaster *instance();
    /// True when there is an instance; otherwise warns in the name of `function`.
    static bool checkInstance(const char *function);

    /// Always true.
    bool ready() const;

    /// The shared manager, made on first use, or after the held one was destroyed, as a child of
    /// the recorded instance.
    QNetworkAccessManager *networkAccessManager();
    /// Holds `manager` (may be null; stays the caller's) in place of the current one, which is
    /// deleted if this object made it. Must not be the manager that this object made.
    void setNetworkAccessManager(QNetworkAccessManager *manager);

signals:
    void readyChanged(); ///< emitted only by the constructor

private:
    bool m_ready = true;
    bool m_ownsManager = false;
    QPointer<QNetworkAccessManager> m_manager;
    QNetworkAccessManager *m_deletedManager = nullptr; // held in place of m_manager, never used
    static QuickDownloadMaster *self;
};

#endif // QUICKDOWNLOADMASTER_H
