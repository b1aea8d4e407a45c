#include "recording.h"

#include "boardfaults.h"
#include "boardsimulator.h"
#include "capture.h"
#include "fileio.h"
#include "handmadeframes.h"
#include "machine.h"
#include "serialport.h"

#include <chrono>
#include <functional>
#include <thread>

using namespace boardsim;

namespace {

constexpr Milliseconds kPatience{60000};
constexpr Milliseconds kNever{600000};

using Condition = std::function<bool(const Report &)>;
using Exchange = std::function<void(FileIO &)>;

bool endFrameWasSentAgain(const Report &report)
{
    return report.lastTransfer().extraEndFrames > 0;
}

QByteArray titleOf(const FrameRecord &frame)
{
    const int size = frame.bytes.size();
    return (frame.toBoard ? "-> " : "<- ") + frame.meaning.toUtf8() + " ("
        + QByteArray::number(size) + (size == 1 ? " byte)" : " bytes)");
}

/// Runs `exchange` until the board has seen its end, and then hangs up, which ends a transfer's
/// wait for further answers.
RecordedExchange record(Options options, const Condition &isOver, const Exchange &exchange,
                        QByteArrayList &complaints)
{
    options.linkPath = QStringLiteral("/dev/ttymxc1");
    BoardSimulator board(options);
    if (!board.start()) {
        complaints << board.errorText().toUtf8();
        return {};
    }
    const MessageCapture messages;
    DescriptorCapture out(1);
    std::thread product([&exchange] {
        FileIO io;
        exchange(io);
    });
    if (!board.waitFor(isOver, kPatience))
        complaints << "an exchange did not come to its end";
    board.stop();
    product.join();
    out.take();

    RecordedExchange recording;
    const Report report = board.report();
    for (const FrameRecord &frame : report.frames)
        recording.append({titleOf(frame), frame.bytes});
    if (report.hasUnexplainedViolation())
        complaints << "the board has seen a violation";
    return recording;
}

void openLine(FileIO &io)
{
    if (!io.serialPort()->Open("/dev/ttymxc1", "115200"))
        qFatal("the board's line does not open");
}

/// One whole block.
QByteArray image()
{
    return firmwareOfSize(1024);
}

RecordedExchange recordUpdate(QByteArrayList &complaints)
{
    const FirmwareDir directory;
    directory.put(QStringLiteral("UpdataSystem.bin"), image() + image().left(476));
    Options options;
    options.bootDelay = Milliseconds(4000); // when the assistant surely waits for it
    options.requestInterval = kNever;
    return record(
        options, endFrameWasSentAgain,
        [](FileIO &io) {
            io.getMcuVersion();
            io.startMcuSoftwareUpdate();
            io.updateMcu();
        },
        complaints);
}

RecordedExchange recordRefusals(QByteArrayList &complaints)
{
    const FirmwareDir directory;
    directory.put(QStringLiteral("UpdataSystem.bin"), image());
    Options options;
    options.startInBootLoader = true;
    options.requestInterval = Milliseconds(300);
    options.faults = boardFaults({"nak=3000@block:1", "cancel=3000@block:2"});
    return record(
        options, endFrameWasSentAgain, [](FileIO &io) { io.updateMcu(); }, complaints);
}

RecordedExchange recordPackets(QByteArrayList &complaints)
{
    Options options;
    options.bootDelay = kNever; // no 'C' comes between the answers
    return record(
        options, [](const Report &report) { return report.configReads > 0; },
        [](FileIO &io) {
            io.startMcuSoftwareUpdate();
            openLine(io);
            static_cast<void>(io.sendCmdFromConnect2Config()); // the report tells
        },
        complaints);
}

RecordedExchange recordHandshakes(QByteArrayList &complaints)
{
    return record(
        {}, [](const Report &report) { return report.handshakesV4 > 0; },
        [](FileIO &io) {
            openLine(io);
            static_cast<void>(io.handsharkeV3()); // the report tells
            static_cast<void>(io.handsharkeV4());
        },
        complaints);
}

} // namespace

QVector<RecordedExchange> recordExchanges(QByteArrayList &complaints)
{
    return {recordUpdate(complaints), recordRefusals(complaints), recordPackets(complaints),
            recordHandshakes(complaints)};
}
