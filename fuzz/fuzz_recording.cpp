#include "check.h"
#include "linewatch.h"
#include "recording.h"

#include <QByteArray>

using namespace boardsim;

// A recording of the serial line, as somebody has written or edited it. What can be read is watched
// and written again; the copy has the same records.

namespace {

bool areEqual(const Record &a, const Record &b)
{
    return a.kind == b.kind && a.ms == b.ms && a.bytes == b.bytes;
}

} // namespace

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray text(reinterpret_cast<const char *>(data), static_cast<int>(size));
    QString error;
    const auto recording = parseRecording(text, error);
    CHECK(recording.has_value() == error.isEmpty());
    if (!recording)
        return 0;

    QByteArray copy = recordingHead(recording->speed, recording->madeBy);
    for (const Record &record : recording->records)
        copy += recordLines(record);
    const auto again = parseRecording(copy, error);
    CHECK(again.has_value() && again->records.size() == recording->records.size());
    for (int i = 0; i < again->records.size(); ++i)
        CHECK(areEqual(again->records.at(i), recording->records.at(i)));

    // Each byte goes through the decoder, and comes out once.
    int bytes = 0;
    for (const Record &record : recording->records)
        bytes += record.bytes.size();
    Report report;
    const TimePoint start = Clock::now();
    LineWatch watch(report, {}, HexStyle::Short, start);
    watchRecording(*recording, start, watch);
    int watched = 0;
    for (const FrameRecord &frame : report.frames)
        watched += frame.bytes.size();
    CHECK(watched == bytes);
    return 0;
}
