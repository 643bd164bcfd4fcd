// The log line: level, time and text, in one write to standard error.
// Threads: any. Locks: none.
#ifndef QUARRIN_PLATFORM_LOG_H
#define QUARRIN_PLATFORM_LOG_H

#include <cstdarg>
#include <cstdint>

/// Levels of the log, as bu_platform.h counts them.
enum PLATFORM_LOG_LEVEL_E : int32_t
{
    PLATFORM_LOG_ERROR = 3,
    PLATFORM_LOG_WARN = 4,
    PLATFORM_LOG_INFO = 6,
};

/// Writes one line, when the limit lets its level through; errno is kept. A newline at the end of the text is not
/// doubled, and control characters are escaped. The number of bytes of the line, 0 for one that was held back.
int32_t PLATFORM_LogArgs(int32_t s32Level, const char *pszPrefix, const char *pszFormat, va_list args)
    __attribute__((format(printf, 3, 0)));

/// The same for this layer's own messages.
void PLATFORM_LogError(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));

#endif
