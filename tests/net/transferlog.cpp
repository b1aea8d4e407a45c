#include "transferlog.h"

#include <QMetaMethod>

namespace {

QByteArray nameOf(const QByteArray &entry)
{
    return entry.left(entry.indexOf('('));
}

} // namespace

TransferLog::TransferLog(FileIO *fileIo)
    : m_fileIo(fileIo)
{
    const QMetaObject &meta = FileIO::staticMetaObject;
    const QMetaMethod plainSlot =
        metaObject()->method(metaObject()->indexOfSlot("addPlainSignal()"));
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        if (method.methodType() == QMetaMethod::Signal && method.parameterCount() == 0)
            connect(fileIo, method, this, plainSlot);
    }
    connect(fileIo, &FileIO::redirected, this,
            [this](const QUrl &target) { add("redirected(" + target.toString().toUtf8() + ')'); });
    connect(fileIo, &FileIO::update, this, [this](int received, int total) {
        add("update(" + QByteArray::number(received) + ", " + QByteArray::number(total) + ')');
    });
    connect(fileIo, &FileIO::error, this, [this](int code, const QString &text) {
        add("error(" + QByteArray::number(code) + ", " + text.toUtf8() + ')');
    });
}

QByteArrayList TransferLog::names() const
{
    QByteArrayList names;
    for (const QByteArray &entry : m_entries)
        names.append(nameOf(entry));
    return names;
}

QByteArrayList TransferLog::of(const QByteArray &name) const
{
    QByteArrayList entries;
    for (const QByteArray &entry : m_entries) {
        if (nameOf(entry) == name)
            entries.append(entry);
    }
    return entries;
}

QByteArrayList TransferLog::milestones() const
{
    QByteArrayList entries;
    for (const QByteArray &entry : m_entries) {
        if (nameOf(entry) != "update" && nameOf(entry) != "progressChanged")
            entries.append(entry.left(entry.lastIndexOf(" progress=")));
    }
    return entries;
}

void TransferLog::addPlainSignal()
{
    add(FileIO::staticMetaObject.method(senderSignalIndex()).methodSignature());
}

void TransferLog::add(const QByteArray &signal)
{
    m_entries.append(signal + " running=" + (m_fileIo->running() ? '1' : '0')
                     + " progress=" + QByteArray::number(m_fileIo->progress()));
}
