// BSP_PrintLog alone, so that a program's own definition takes its place without a clash.

#include "bu_platform.h"
#include "log.h"

extern "C" int BSP_PrintLog(int level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t s32Len = PLATFORM_LogArgs(level, "", format, args);
    va_end(args);
    return s32Len;
}
