#include "check.h"
#include "fileio.h"
#include "httpserver.h"
#include "quickdownloadmaster.h"
#include "quiet.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTime>

// HTTP replies to the blocking requests. Byte 0: bits 0 to 1 say into how many pieces the rest is
// cut, bit 2 sends a POST, bit 3 sends two requests. The clock of the wait runs 100 times as fast
// as the real one.

namespace {

constexpr int kFaster = 100;
QElapsedTimer gRealTime;

HttpServer *gServer = nullptr;

} // namespace

/// Replaces QTime::currentTime().
QTime fastTime() __asm__("__wrap__ZN5QTime11currentTimeEv");
QTime fastTime()
{
    return QTime(0, 0).addMSecs(static_cast<int>(gRealTime.elapsed() * kFaster));
}

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
    gRealTime.start();
    // A new one for each input, so that no connection is left over.
    LoopbackManager manager(gServer->port());
    QuickDownloadMaster::instance()->setNetworkAccessManager(&manager);
    gServer->answer(piecesOfAnswer(data, size), 2);
    {
        FileIO io;
        const bool post = data[0] & 4;
        const QString url = QStringLiteral("http://machine/");
        for (int i = 0; i < (data[0] & 8 ? 2 : 1); ++i) {
            const QString text = post ? io.httpPost(url, QStringLiteral("x")) : io.httpGet(url);
            CHECK(!text.contains(QChar(0)));
        }
        CHECK(!io.running());
    }
    QuickDownloadMaster::instance()->setNetworkAccessManager(nullptr);
    return 0;
}
