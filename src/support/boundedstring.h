#ifndef BOUNDEDSTRING_H
#define BOUNDEDSTRING_H

#include <cstddef>

/// Copies at most `max` - 1 characters of `src` and terminates them; a shorter `src` is padded
/// with zero bytes up to `max` - 1. `max` must be the true size of `dst`. Returns `dst`.
char *StrMaxCpy(char *dst, const char *src, std::size_t max);

/// Appends `src` to the text in `dst` so that all of it, terminator included, fits in `max` bytes.
/// A text that already fills `max` bytes is left alone. Returns `dst`.
char *StrMaxCat(char *dst, const char *src, std::size_t max);

#endif // BOUNDEDSTRING_H
