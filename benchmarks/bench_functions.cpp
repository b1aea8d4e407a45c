#include "cymodem.h"
#include "fileio.h"
#include "frame.h"
#include "plainloops.h"

#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <cstdint>
#include <vector>

// Measures functions of the program, plain loops with the same results, and getIpkList().

namespace {

constexpr unsigned kLongestFrame = 200;
constexpr std::uint16_t kBlock = 1024;

std::vector<std::uint8_t> someBytes(std::size_t count)
{
    std::vector<std::uint8_t> bytes(count);
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 37 + 11);
    return bytes;
}

void frameSumOfTheProgram(benchmark::State &state)
{
    const auto frame = someBytes(kLongestFrame);
    if (frameSum(frame.data(), kLongestFrame) != plainSum(frame.data(), kLongestFrame))
        state.SkipWithError("wrong sum");
    for (auto _ : state) {
        const std::uint8_t *bytes = frame.data();
        benchmark::DoNotOptimize(bytes);
        benchmark::DoNotOptimize(frameSum(bytes, kLongestFrame));
    }
}

void frameSumPlain(benchmark::State &state)
{
    const auto frame = someBytes(kLongestFrame);
    for (auto _ : state) {
        const std::uint8_t *bytes = frame.data();
        benchmark::DoNotOptimize(bytes);
        benchmark::DoNotOptimize(plainSum(bytes, kLongestFrame));
    }
}

void crcOfTheProgram(benchmark::State &state)
{
    const auto block = someBytes(kBlock);
    CYModem sender;
    if (sender.attach_crc(block.data(), kBlock, 0) != plainCrc(block.data(), kBlock))
        state.SkipWithError("wrong CRC");
    for (auto _ : state) {
        const std::uint8_t *bytes = block.data();
        benchmark::DoNotOptimize(bytes);
        benchmark::DoNotOptimize(sender.attach_crc(bytes, kBlock, 0));
    }
}

void crcPlain(benchmark::State &state)
{
    const auto block = someBytes(kBlock);
    for (auto _ : state) {
        const std::uint8_t *bytes = block.data();
        benchmark::DoNotOptimize(bytes);
        benchmark::DoNotOptimize(plainCrc(bytes, kBlock));
    }
}

void listing(benchmark::State &state)
{
    const QTemporaryDir folder;
    for (int i = 0; i < state.range(0); ++i) {
        QFile package(folder.filePath(QStringLiteral("package-%1_1.0.0.ipk").arg(i)));
        if (!package.open(QIODevice::WriteOnly))
            state.SkipWithError("cannot create a package");
    }
    FileIO bridge;
    const QString pattern = folder.filePath(QStringLiteral("*.ipk"));
    if (bridge.getIpkList(pattern).size() != state.range(0))
        state.SkipWithError("wrong list");
    for (auto _ : state)
        benchmark::DoNotOptimize(bridge.getIpkList(pattern));
}

} // namespace

BENCHMARK(frameSumOfTheProgram);
BENCHMARK(frameSumPlain);
BENCHMARK(crcOfTheProgram);
BENCHMARK(crcPlain);
BENCHMARK(listing)->Arg(1)->Arg(100)->Arg(1000)->UseRealTime();
BENCHMARK_MAIN();
