#ifndef CHECK_H
#define CHECK_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/// Aborts when the condition is false; the fuzzer reports the abort as an error.
#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                   \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

extern "C" {
/// Called once before the first input.
int LLVMFuzzerInitialize(int *argc, char ***argv);
/// Gives one input to the product.
int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
}

#endif // CHECK_H
