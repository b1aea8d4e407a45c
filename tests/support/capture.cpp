#include "capture.h"

#include <QMutex>
#include <QMutexLocker>
#include <QtGlobal>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

DescriptorCapture::DescriptorCapture(int descriptor)
    : m_descriptor(descriptor)
{
    std::fflush(nullptr);
    m_original = dup(descriptor);
    FILE *const file = std::tmpfile();
    if (m_original < 0 || !file)
        qFatal("cannot capture descriptor %d", descriptor);
    m_file = dup(fileno(file));
    std::fclose(file);
    dup2(m_file, descriptor);
}

DescriptorCapture::~DescriptorCapture()
{
    take();
}

QByteArray DescriptorCapture::take()
{
    if (m_done)
        return m_text;
    m_done = true;
    std::fflush(nullptr);
    dup2(m_original, m_descriptor);
    close(m_original);
    lseek(m_file, 0, SEEK_SET);
    char block[4096];
    for (ssize_t count; (count = read(m_file, block, sizeof block)) > 0;)
        m_text.append(block, static_cast<int>(count));
    close(m_file);
    return m_text;
}

namespace {

QMutex gMessageMutex;
QStringList gCapturedMessages;
QtMessageHandler gPreviousHandler = nullptr;

void captureMessage(QtMsgType /*type*/, const QMessageLogContext & /*context*/,
                    const QString &message)
{
    const QMutexLocker lock(&gMessageMutex);
    gCapturedMessages.append(message);
}

} // namespace

MessageCapture::MessageCapture()
{
    const QMutexLocker lock(&gMessageMutex);
    gCapturedMessages.clear();
    gPreviousHandler = qInstallMessageHandler(captureMessage);
}

MessageCapture::~MessageCapture()
{
    qInstallMessageHandler(gPreviousHandler);
}

QStringList MessageCapture::messages() const
{
    const QMutexLocker lock(&gMessageMutex);
    return gCapturedMessages;
}
