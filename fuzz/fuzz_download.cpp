#include "check.h"
#include "fileio.h"
#include "httpserver.h"
#include "quickdownloadmaster.h"
#include "quiet.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QTemporaryDir>

// HTTP replies to the downloader. Bits of byte 0:
//
//   0 to 1   into how many pieces the rest is cut
//   2        follow redirects (a few)
//   3        start by setting `running`
//   4        start again when the first transfer ends
//   5        stop at the first progress signal
//   6        destroy the object during the transfer

namespace {

constexpr int kMostAnswers = 4; // a redirect may lead to itself
constexpr int kGiveUpMs = 300;

HttpServer *gServer = nullptr;

} // namespace

// NOLINTNEXTLINE(readability-non-const-parameter): the fuzzer's interface
int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    beQuiet();
    static QCoreApplication application(*argc, *argv);
    static HttpServer theServer;
    gServer = &theServer;
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    static const QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("download"));
    QFile::remove(path);
    LoopbackManager manager(gServer->port());
    QuickDownloadMaster::instance()->setNetworkAccessManager(&manager);
    gServer->answer(piecesOfAnswer(data, size), kMostAnswers);

    int ends = 0;
    int news = 0;
    {
        FileIO io;
        QObject::connect(&io, &FileIO::finished, [&] {
            CHECK(!io.running());
            CHECK(QFile::exists(path));
            CHECK(io.progress() == 1.0);
            ++ends;
            if ((data[0] & 16) && ends == 1)
                io.start();
        });
        QObject::connect(&io, &FileIO::error, [&](int code, const QString &) {
            CHECK(code == FileIO::ErrorNetwork);
            ++ends;
            if ((data[0] & 16) && ends == 1)
                io.start();
        });
        QObject::connect(&io, &FileIO::update, [&] {
            if ((data[0] & 32) && ++news == 1)
                io.stop();
        });
        io.setDestination(QUrl::fromLocalFile(path));
        io.setUrl(QUrl(QStringLiteral("http://machine/")));
        io.setFollowRedirects(data[0] & 4);
        io.componentComplete();
        if (data[0] & 8)
            io.setRunning(true);
        else
            io.start();
        const int wanted = data[0] & 16 ? 2 : 1;
        const QDeadlineTimer giveUp(data[0] & 64 ? 0 : kGiveUpMs);
        while (ends < wanted && !giveUp.hasExpired())
            QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QuickDownloadMaster::instance()->setNetworkAccessManager(nullptr);
    return 0;
}
