#ifndef DOWNLOADFIXTURE_H
#define DOWNLOADFIXTURE_H

#include "fileio.h"
#include "recordingmanager.h"
#include "scriptedhttpserver.h"
#include "transferlog.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

Q_DECLARE_METATYPE(HttpScript)

using Lines = QByteArrayList;

/// More bytes than all buffers on the way hold.
constexpr qint64 kHugeBody = 64LL * 1024 * 1024;

/// Waits for a condition that does come: the bound is for hangs, never a measure.
#define AWAIT(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, 20000)
#define AWAIT_EQUAL(actual, expected) QTRY_COMPARE_WITH_TIMEOUT(actual, expected, 20000)

/// A complete object with its log, writing to "file" in a folder of its own.
class Download {
public:
    Download()
    {
        fileIo->componentComplete();
        fileIo->setDestination(fileUrl("file"));
        log.clear();
    }

    QTemporaryDir dir;
    std::unique_ptr<FileIO> fileIo = std::make_unique<FileIO>();
    TransferLog log{fileIo.get()};

    QString path(const QByteArray &name = "file") const
    {
        return dir.filePath(QString::fromUtf8(name));
    }
    QUrl fileUrl(const QByteArray &name) const { return QUrl::fromLocalFile(path(name)); }
    /// Names in the folder, temporary files included, and "(open)" for each file of the folder that
    /// is open: those being written, which need not have a name.
    QByteArrayList files() const
    {
        QByteArrayList names;
        for (const QString &name :
             QDir(dir.path()).entryList(QDir::Files | QDir::Hidden | QDir::System))
            names.append(name.toUtf8());
        for (int i = openFiles(); i > 0; --i)
            names.append("(open)");
        return names;
    }
    int openFiles() const
    {
        int count = 0;
        const QDir descriptors(QStringLiteral("/proc/self/fd"));
        for (const QFileInfo &descriptor : descriptors.entryInfoList(QDir::Files | QDir::System))
            count += descriptor.symLinkTarget().startsWith(dir.path()) ? 1 : 0;
        return count;
    }
    QByteArray content(const QByteArray &name = "file") const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no file)");
    }
    void write(const QByteArray &bytes) const
    {
        QFile file(path());
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            qFatal("cannot write a test file");
    }

    /// One pass, since `running` is what starts it.
    void startOnce(const QUrl &url)
    {
        fileIo->setUrl(url);
        log.clear();
        fileIo->setRunning(true);
    }
    bool finished() const { return log.has("finished"); }
    bool failed() const { return log.has("error"); }
};

/// What every test of the transfers has: a server, and a manager of its own, so that no test meets
/// the connections of another.
class DownloadTest : public QObject {
    Q_OBJECT

protected:
    /// Downloads "/a" until its first data has come.
    void startAndReceive(Download &download)
    {
        download.startOnce(m_server->url("/a"));
        const QSignalSpy arrivals(m_manager->lastReply(), &QNetworkReply::readyRead);
        AWAIT_EQUAL(arrivals.size(), 1);
    }

    std::unique_ptr<RecordingManager> m_manager;
    std::unique_ptr<ScriptedHttpServer> m_server;

private slots:
    void init()
    {
        m_manager = std::make_unique<RecordingManager>();
        m_server = std::make_unique<ScriptedHttpServer>();
    }
    void cleanup()
    {
        m_server.reset();
        m_manager.reset();
    }
};

/// The transfer's own slots, which its reply calls, are reachable by name.
inline bool call(FileIO *fileIo, const char *slot)
{
    return QMetaObject::invokeMethod(fileIo, slot, Qt::DirectConnection);
}

/// What was left to the event loop to delete is gone afterwards.
inline void deleteReleased()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

#endif // DOWNLOADFIXTURE_H
