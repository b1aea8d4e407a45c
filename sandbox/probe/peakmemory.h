#ifndef PEAKMEMORY_H
#define PEAKMEMORY_H

#include <QByteArray>
#include <QFile>

/// Peak resident memory of this process in kilobytes, 0 when the system does not report it. Not
/// taken from wait4(), whose figure includes the memory of the process that started this one.
inline int peakMemoryKb()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toInt();
    }
    return 0;
}

#endif // PEAKMEMORY_H
