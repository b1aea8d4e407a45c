#include "testboard.h"

#include "boardfaults.h"

using namespace boardsim;

namespace {

constexpr Milliseconds kPatience{10000};

QByteArrayList sentIn(const Report &report)
{
    QByteArrayList sent;
    for (const FrameRecord &frame : report.frames) {
        if (!frame.toBoard)
            sent << frame.bytes;
    }
    return sent;
}

} // namespace

Options quickToNotice(const QByteArrayList &faults)
{
    Options options;
    options.frameGap = Milliseconds(40);
    options.faults = boardFaults(faults);
    return options;
}

Options inBootLoader(Options options)
{
    options.startInBootLoader = true;
    return options;
}

TestBoard::TestBoard(const Options &options)
    : BoardSimulator(options)
    , line(startedDevice())
{
}

bool TestBoard::await(const Condition &condition) const
{
    return waitFor(condition, kPatience);
}

bool TestBoard::awaitViolations(int count) const
{
    return await([count](const Report &report) { return report.violations.size() >= count; });
}

bool TestBoard::refuses(const QByteArray &bytes)
{
    return line.send(bytes) && awaitViolations();
}

bool TestBoard::awaitFaults(int count) const
{
    return await([count](const Report &report) { return report.faultsMade.size() >= count; });
}

bool TestBoard::awaitSent(int count) const
{
    return await([count](const Report &report) { return sentIn(report).size() >= count; });
}

bool TestBoard::awaitQuiet(Milliseconds quiet) const
{
    return waitForQuiet(quiet, kPatience);
}

QByteArrayList TestBoard::sent() const
{
    return sentIn(report());
}

QString TestBoard::violation() const
{
    const Report report = this->report();
    return report.violations.isEmpty() ? QString() : report.violations.first().text;
}

QString TestBoard::startedDevice()
{
    if (!start())
        qFatal("%s", qPrintable(errorText()));
    return slaveName();
}
