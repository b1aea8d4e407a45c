#include "check.h"
#include "fileio.h"
#include "line.h"
#include "paths.h"
#include "quiet.h"

#include <QByteArray>
#include <QDir>
#include <QFile>

#include <unistd.h>
#include <vector>

// Control bytes of the boot loader during a transfer. The input is the serial line's script. After
// the script the board acknowledges every frame, so the whole image must have been sent in order,
// whatever came before. Needs the fixed directory of the simulated machine (sandbox/run).

namespace {

constexpr int kImageSize = 2100; // three blocks
constexpr std::size_t kSmallFrame = 133;
constexpr std::size_t kLargeFrame = 1029;
constexpr int kSkipped = 77; // exit code, for ctest

/// Cuts a frame that starts with these two bytes off the head of what was sent.
void takeFrame(std::vector<std::uint8_t> &sent, int mark, int block, std::size_t size)
{
    CHECK(sent.size() >= size);
    CHECK(sent[0] == mark);
    CHECK(size == 1 || sent[1] == block);
    sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(size));
}

} // namespace

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    if (!qEnvironmentVariableIsSet("UPDATE_ASSISTANT_SANDBOX")) {
        std::fprintf(stderr, "needs a fixed path of the machine: start it with sandbox/run\n");
        std::exit(kSkipped);
    }
    beQuiet();
    const QString directory = QString::fromLatin1(kFirmwareDir);
    QDir().mkpath(directory);
    QFile image(directory + QString::fromLatin1(kFirmwareFile));
    CHECK(image.open(QIODevice::WriteOnly));
    CHECK(image.write(QByteArray(kImageSize, 'i')) == kImageSize);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    beginLine(data, size, AtEnd::Acknowledge);
    FileIO io;
    const int image = dup(STDIN_FILENO);
    close(image);
    const int result = io.updateMcu();
    // A transfer that ended early leaves its image file open.
    close(image);
    const std::vector<std::uint8_t> &taken = takenFromLine();
    CHECK(result == (taken.empty() ? -1 : 0) || lineFailed());
    std::vector<std::uint8_t> sent = writtenToLine();
    // Ten failed reads in a row end a transfer early.
    if (lineFailed())
        return 0;
    // So do ten seconds of silence.
    for (int block = 0; block < 4 && !sent.empty(); ++block)
        takeFrame(sent, block == 0 ? 0x01 : 0x02, block, block == 0 ? kSmallFrame : kLargeFrame);
    if (!sent.empty())
        takeFrame(sent, 0x04, 0, 1);
    while (!sent.empty())
        takeFrame(sent, 0x01, 0, kSmallFrame);
    return 0;
}
