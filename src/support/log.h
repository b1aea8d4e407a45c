#ifndef LOG_H
#define LOG_H

#include <cstdarg>
#include <cstdio>

// printf-style logging through one replaceable hook. The capitalised names are interface. The
// globals are plain: set them at start-up, before other threads log. Callers end their formats
// with a line feed; nothing here adds one.

enum LogLevel : unsigned {
    LogLevelPlain = 0,
    LogLevelError = 1,  // prefix "ERROR: "
    LogLevelAssert = 2, // prefix "ASSERT: "
};

/// A hook: level (`LogLevel`, others count as plain), printf format and its arguments.
using LogHook = void (*)(unsigned level, const char *format, va_list args);

/// The hook through which every message passes; null discards all of them.
extern LogHook gLogFunc;
/// Where `DefaultLogFunc` writes; null means standard error. Not owned.
extern FILE *gLogFs;
/// Non-zero: `DefaultLogFunc` drops plain messages.
extern int gQuiet;

#if defined(__GNUC__)
#define LOG_PRINTF(formatIndex, firstArg) __attribute__((format(printf, formatIndex, firstArg)))
#else
#define LOG_PRINTF(formatIndex, firstArg)
#endif

/// Sets `gLogFs`; null restores standard error.
void LogInit(FILE *stream);
/// Sets `gLogFunc`; null switches all logging off.
void SetLogFunc(LogHook hook);
/// The default hook: prefix by level, the message, then a flush.
LOG_PRINTF(2, 0) void DefaultLogFunc(unsigned level, const char *format, va_list args);

/// Plain messages.
LOG_PRINTF(1, 0) void vLog(const char *format, va_list args);
LOG_PRINTF(1, 2) void Log(const char *format, ...);

/// Messages of the given level.
LOG_PRINTF(2, 0) void vLogFunc(unsigned level, const char *format, va_list args);
LOG_PRINTF(2, 3) void LogFunc(unsigned level, const char *format, ...);

/// Errors.
LOG_PRINTF(1, 0) void vLogError(const char *format, va_list args);
LOG_PRINTF(1, 2) void LogError(const char *format, ...);

/// Reports a failed assertion; it does not end the program.
void LogAssertFailed(const char *expression, const char *file, int line, const char *function);

#endif // LOG_H
