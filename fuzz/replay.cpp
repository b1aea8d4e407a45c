#include "check.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

// Runs stored inputs, as a fuzzer's program would, under any compiler.
//
//   replay_TARGET FILE-OR-DIRECTORY...

namespace {

void run(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    // In exactly its size, so that the sanitizers see every byte beyond it.
    const auto bytes = std::make_unique<std::uint8_t[]>(input.size());
    std::copy(input.begin(), input.end(), bytes.get());
    std::fprintf(stderr, "%s (%zu bytes)\n", path.filename().c_str(), input.size());
    LLVMFuzzerTestOneInput(bytes.get(), input.size());
}

} // namespace

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        if (!std::filesystem::is_directory(path)) {
            run(path);
            ++count;
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(path)) {
            run(entry.path());
            ++count;
        }
    }
    std::fprintf(stderr, "%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
