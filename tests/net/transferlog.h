#ifndef TRANSFERLOG_H
#define TRANSFERLOG_H

#include "fileio.h"

#include <QByteArrayList>

/// Every signal of a FileIO in one list, so that orders between signals show. An entry is the
/// signal with its arguments and the state that a handler sees: "finished() running=0 progress=1".
class TransferLog : public QObject {
    Q_OBJECT

public:
    explicit TransferLog(FileIO *fileIo);

    QByteArrayList entries() const { return m_entries; }
    /// Only the names of the signals.
    QByteArrayList names() const;
    /// The entries of one signal.
    QByteArrayList of(const QByteArray &name) const;
    /// The entries without update() and progressChanged(), whose number depends on how the data
    /// arrives.
    QByteArrayList milestones() const;
    bool has(const QByteArray &name) const { return names().contains(name); }
    void clear() { m_entries.clear(); }

private slots:
    void addPlainSignal();

private:
    void add(const QByteArray &signal);

    FileIO *m_fileIo;
    QByteArrayList m_entries;
};

#endif // TRANSFERLOG_H
