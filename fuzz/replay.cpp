#include "check.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

// Runs stored inputs, as a fuzzer's program would, under any compiler.
//
//   replay_TARGET FILE-OR-DIRECTORY...

namespace {

void run(const std::filesystem::path &path)
{
    // In exactly its size, so that the sanitizers see every byte beyond it.
    std::vector<std::uint8_t> input(static_cast<std::size_t>(std::filesystem::file_size(path)));
    std::ifstream file(path, std::ios::binary);
    CHECK(file.read(reinterpret_cast<char *>(input.data()),
                    static_cast<std::streamsize>(input.size())));
    std::fprintf(stderr, "%s (%zu bytes)\n", path.filename().c_str(), input.size());
    LLVMFuzzerTestOneInput(input.data(), input.size());
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
