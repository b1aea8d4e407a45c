#include "boundedstring.h"

#include <cstring>

char *StrMaxCpy(char *dst, const char *src, std::size_t max)
{
    if (max == 0)
        return dst;
    if (max == 1) {
        dst[0] = '\0';
        return dst;
    }
    std::strncpy(dst, src, max - 1);
    // Deliberate: with a shorter source the last byte stays as it was; the padding already
    // terminates the text. (tst_boundedstring::shortCopyLeavesTheLastByte)
    if (max <= std::strlen(src) + 1)
        dst[max - 1] = '\0';
    return dst;
}

char *StrMaxCat(char *dst, const char *src, std::size_t max)
{
    const std::size_t length = strnlen(dst, max);
    if (length >= max)
        return dst;
    StrMaxCpy(dst + length, src, max - length);
    return dst;
}
