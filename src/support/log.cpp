#include "log.h"

LogHook gLogFunc = DefaultLogFunc;
FILE *gLogFs = nullptr;
int gQuiet = 0;

namespace {

const char *levelPrefix(unsigned level)
{
    switch (level) {
    case LogLevelError:
        return "ERROR: ";
    case LogLevelAssert:
        return "ASSERT: ";
    default:
        return "";
    }
}

} // namespace

void LogInit(FILE *stream)
{
    gLogFs = stream;
}

void SetLogFunc(LogHook hook)
{
    gLogFunc = hook;
}

void DefaultLogFunc(unsigned level, const char *format, va_list args)
{
    if (gQuiet && level == LogLevelPlain)
        return;
    FILE *const stream = gLogFs ? gLogFs : stderr;
    fputs(levelPrefix(level), stream);
    vfprintf(stream, format, args);
    fflush(stream);
}

void vLog(const char *format, va_list args)
{
    vLogFunc(LogLevelPlain, format, args);
}

void Log(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vLog(format, args);
    va_end(args);
}

void vLogFunc(unsigned level, const char *format, va_list args)
{
    if (gLogFunc)
        gLogFunc(level, format, args);
}

void LogFunc(unsigned level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vLogFunc(level, format, args);
    va_end(args);
}

void vLogError(const char *format, va_list args)
{
    vLogFunc(LogLevelError, format, args);
}

void LogError(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vLogError(format, args);
    va_end(args);
}

void LogAssertFailed(const char *expression, const char *file, int line, const char *function)
{
    LogFunc(LogLevelAssert, "%s: %d: %s Assertion '%s' failed.\n", file, line, function,
            expression);
}
