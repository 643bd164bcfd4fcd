// UTIL_LOG_Print alone, so that a program's own definition takes its place without a clash.

#include "bu_platform.h"
#include "log.h"

extern "C" int UTIL_LOG_Print(int level, const char *prefix, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t s32Len = PLATFORM_LogArgs(level, prefix, format, args);
    va_end(args);
    return s32Len;
}
