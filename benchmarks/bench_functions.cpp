#include "cymodem.h"
#include "fileio.h"
#include "frame.h"

#include <benchmark/benchmark.h>

#include <QFile>
#include <QTemporaryDir>

#include <cstdint>
#include <vector>

// The functions of the program beside plain loops that do the same, and the listing of packages.

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

/// A byte at a time, and nothing made of it by the compiler.
__attribute__((optimize("no-tree-vectorize", "no-unroll-loops"))) std::uint8_t
plainSum(const std::uint8_t *frame, unsigned length)
{
    unsigned sum = 0;
    for (unsigned i = 1; i + 2 < length; ++i)
        sum += frame[i];
    return static_cast<std::uint8_t>(sum);
}

/// The text-book CRC-16/XMODEM: a bit at a time.
std::uint16_t plainCrc(const std::uint8_t *bytes, unsigned length)
{
    unsigned crc = 0;
    for (unsigned i = 0; i < length; ++i) {
        crc ^= static_cast<unsigned>(bytes[i]) << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000U) ? (crc << 1) ^ 0x1021U : crc << 1;
    }
    return static_cast<std::uint16_t>(crc);
}

void frameSumOfTheProgram(benchmark::State &state)
{
    const auto frame = someBytes(kLongestFrame);
    if (frameSum(frame.data(), kLongestFrame) != plainSum(frame.data(), kLongestFrame))
        state.SkipWithError("another sum");
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
        state.SkipWithError("another CRC");
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
            state.SkipWithError("no package");
    }
    FileIO bridge;
    const QString pattern = folder.filePath(QStringLiteral("*.ipk"));
    if (bridge.getIpkList(pattern).size() != state.range(0))
        state.SkipWithError("another list");
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
