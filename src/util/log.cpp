// The log. See the header.

#include "util/log.h"

#include <cstdarg>

#include "bu_platform.h"
#include "util/line.h"

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
    UTIL_LINE_S stLine;
    va_list args;
    va_start(args, pszFormat);
    const char *pszText = UTIL_LINE_FormatList(stLine, pszFormat, args);
    va_end(args);
    pszText = pszText != nullptr ? pszText : stLine.szShort; // no memory: a long one is cut

    char szPrefix[128];
    (void)snprintf(szPrefix, sizeof(szPrefix), "%s[%d] ", pszFunc, s32Line); // function names are short
    (void)UTIL_LOG_Print(enLevel, szPrefix, "%s", pszText);
    (void)printf("[%s][%s:%d] %s\n", LevelTag(enLevel), pszFunc, s32Line, pszText);
}

} // namespace libquarrin
