#ifndef RECORDINGBRIDGE_H
#define RECORDINGBRIDGE_H

#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>

/// The part of the bridge that the update screen uses: writes down every call and gives the answers
/// that the test set. threadExe() runs nothing, the test emits threadExeFinish() itself.
class RecordingBridge : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString kernelData READ readKernelData NOTIFY kernelDataChanged)

public:
    using QObject::QObject;

    /// The calls so far, in order, such as `exe("sync")` or `getMcuVersion()`.
    QStringList calls() const;
    /// The same, and forgets them.
    QStringList takeCalls();

    /// `answers`: for the first, second ... call with this pattern; the last one stays. Without any
    /// the list is empty.
    void setLists(const char *pattern, const QList<QStringList> &answers);
    /// Commands without a status give 0.
    void setStatus(const QString &command, int status);

    QString kernelData = QStringLiteral("2021-09-16 19:25:17");
    QString version;
    int startResult = 0;
    int updateResult = 0;
    /// Called after each call was written down, before it returns.
    std::function<void(const QString &call)> onCall;

    QString readKernelData() const;

signals:
    void kernelDataChanged();
    void threadExeFinish(int result, int index);

public:
    Q_INVOKABLE QStringList getIpkList(QString dir);
    Q_INVOKABLE int exe(QString cmd) const;
    Q_INVOKABLE void threadExe(QString cmd, int index);
    Q_INVOKABLE int startMcuSoftwareUpdate();
    Q_INVOKABLE int updateMcu();
    Q_INVOKABLE QString getMcuVersion();

private:
    void record(const QString &call) const;

    mutable QStringList m_calls;
    QHash<QString, QList<QStringList>> m_lists;
    QHash<QString, int> m_statuses;
};

#endif // RECORDINGBRIDGE_H
