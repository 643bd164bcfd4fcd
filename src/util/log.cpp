// The log. See the header.

#include "util/log.h"

#include <cstdarg>
#include <string>

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

// Most messages fit the stack; paths may be longer than that.
static std::string FormatText(const char *pszFormat, va_list args)
{
    char szText[512];
    va_list again;
    va_copy(again, args);
    const int32_t s32Len = vsnprintf(szText, sizeof(szText), pszFormat, args);
    std::string strText;
    if (s32Len >= static_cast<int32_t>(sizeof(szText)))
    {
        strText.resize(static_cast<size_t>(s32Len));
        (void)vsnprintf(&strText[0], strText.size() + 1, pszFormat, again); // the same text as above, with room for it
    }
    else if (s32Len > 0)
    {
        strText.assign(szText, static_cast<size_t>(s32Len));
    }
    va_end(again);
    return strText;
}

void QN_LOG_Write(QN_LOG_LEVEL_E enLevel, const char *pszFunc, int32_t s32Line, const char *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    const std::string strText = FormatText(pszFormat, args);
    va_end(args);

    char szPrefix[128];
    (void)snprintf(szPrefix, sizeof(szPrefix), "%s[%d] ", pszFunc, s32Line); // function names are short
    (void)UTIL_LOG_Print(enLevel, szPrefix, "%s", strText.c_str());
    (void)printf("[%s][%s:%d] %s\n", LevelTag(enLevel), pszFunc, s32Line, strText.c_str());
}

} // namespace libquarrin
