// The log. See the header.

#include "util/log.h"

#include <cstdarg>
#include <memory>
#include <new>

#include "bu_platform.h"

namespace libquarrin
{

static const char *LevelTag(QN_LOG_LEVEL_E enLevel)
{
    switch (enLevel)
    {
    case QN_LOG_LEVEL_ERROR:
        return "ERROR";
    case QN_LOG_LEVEL_WARN:
        return "WARN";
    case QN_LOG_LEVEL_INFO:
        break;
    }
    return "INFO";
}

void QN_LOG_Write(QN_LOG_LEVEL_E enLevel, const char *pszFunc, int32_t s32Line, const char *pszFormat, ...)
{
    // Most messages fit the stack; one with a long path takes memory, and is cut when there is none.
    char szShort[512] = {};
    std::unique_ptr<char[]> spLong;
    va_list args;
    va_start(args, pszFormat);
    const int32_t s32Len = vsnprintf(szShort, sizeof(szShort), pszFormat, args);
    va_end(args);
    if (s32Len >= static_cast<int32_t>(sizeof(szShort)))
    {
        const size_t bytes = static_cast<size_t>(s32Len) + 1;
        spLong.reset(new (std::nothrow) char[bytes]);
        if (spLong != nullptr)
        {
            va_start(args, pszFormat);
            (void)vsnprintf(spLong.get(), bytes, pszFormat, args); // the same text as above, with room for it
            va_end(args);
        }
    }
    const char *pszText = spLong != nullptr ? spLong.get() : szShort;

    char szPrefix[128];
    (void)snprintf(szPrefix, sizeof(szPrefix), "%s[%d] ", pszFunc, s32Line); // function names are short
    (void)UTIL_LOG_Print(enLevel, szPrefix, "%s", pszText);
    (void)printf("[%s][%s:%d] %s\n", LevelTag(enLevel), pszFunc, s32Line, pszText);
}

} // namespace libquarrin
