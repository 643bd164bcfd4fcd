// The log: every message goes to the platform's logger and to standard output, in one text.
// Threads: any. Locks: none. It takes no memory for messages below 512 bytes, and throws nothing.
#ifndef QUARRIN_UTIL_LOG_H
#define QUARRIN_UTIL_LOG_H

#include <cstdint>
#include <cstdio>

namespace libquarrin
{

/// Levels of UTIL_LOG_Print.
enum QN_LOG_LEVEL_E : int32_t
{
    QN_LOG_LEVEL_ERROR = 3,
    QN_LOG_LEVEL_WARN = 4,
    QN_LOG_LEVEL_INFO = 6,
};

/// Formats a message once, hands it to UTIL_LOG_Print behind the prefix "FUNC[LINE] ", and prints it to standard output
/// behind "[LEVEL][FUNC:LINE] " with a newline at its end.
__attribute__((format(printf, 4, 5))) void QN_LOG_Write(QN_LOG_LEVEL_E enLevel, const char *pszFunc, int32_t s32Line,
                                                        const char *pszFormat, ...);

} // namespace libquarrin

#define QN_LOG_ERROR(...) libquarrin::QN_LOG_Write(libquarrin::QN_LOG_LEVEL_ERROR, __func__, __LINE__, __VA_ARGS__)
#define QN_LOG_WARN(...) libquarrin::QN_LOG_Write(libquarrin::QN_LOG_LEVEL_WARN, __func__, __LINE__, __VA_ARGS__)
#define QN_LOG_INFO(...) libquarrin::QN_LOG_Write(libquarrin::QN_LOG_LEVEL_INFO, __func__, __LINE__, __VA_ARGS__)

// For messages whose promised tag is not the name of the function that prints them.
#define QN_LOG_ERROR_AS(func, ...) libquarrin::QN_LOG_Write(libquarrin::QN_LOG_LEVEL_ERROR, func, __LINE__, __VA_ARGS__)
#define QN_LOG_WARN_AS(func, ...) libquarrin::QN_LOG_Write(libquarrin::QN_LOG_LEVEL_WARN, func, __LINE__, __VA_ARGS__)
#define QN_LOG_INFO_AS(func, ...) libquarrin::QN_LOG_Write(libquarrin::QN_LOG_LEVEL_INFO, func, __LINE__, __VA_ARGS__)

// A line for standard output alone, exactly as given. One call prints one text, so threads cannot tear it.
#define QN_TRACE(...) ((void)printf(__VA_ARGS__))

#endif
