#include "recordingbridge.h"

QStringList RecordingBridge::calls() const
{
    return m_calls;
}

QStringList RecordingBridge::takeCalls()
{
    QStringList taken = m_calls;
    m_calls.clear();
    return taken;
}

void RecordingBridge::setLists(const char *pattern, const QList<QStringList> &answers)
{
    m_lists[QString::fromLatin1(pattern)] = answers;
}

void RecordingBridge::setStatus(const QString &command, int status)
{
    m_statuses[command] = status;
}

QString RecordingBridge::readKernelData() const
{
    return kernelData;
}

QStringList RecordingBridge::getIpkList(QString dir)
{
    record(QStringLiteral("getIpkList(\"%1\")").arg(dir));
    QList<QStringList> &answers = m_lists[dir];
    if (answers.isEmpty())
        return {};
    return answers.size() > 1 ? answers.takeFirst() : answers.first();
}

int RecordingBridge::exe(QString cmd) const
{
    record(QStringLiteral("exe(\"%1\")").arg(cmd));
    return m_statuses.value(cmd);
}

void RecordingBridge::threadExe(QString cmd, int index)
{
    record(QStringLiteral("threadExe(\"%1\", %2)").arg(cmd, QString::number(index)));
}

int RecordingBridge::startMcuSoftwareUpdate()
{
    record(QStringLiteral("startMcuSoftwareUpdate()"));
    return startResult;
}

int RecordingBridge::updateMcu()
{
    record(QStringLiteral("updateMcu()"));
    return updateResult;
}

QString RecordingBridge::getMcuVersion()
{
    record(QStringLiteral("getMcuVersion()"));
    return version;
}

void RecordingBridge::record(const QString &call) const
{
    m_calls.append(call);
    if (onCall)
        onCall(call);
}
