// Texts on the stack. See the header.

#include "util/line.h"

#include <cstdio>
#include <new>

namespace libquarrin
{

const char *UTIL_LINE_FormatList(UTIL_LINE_S &stLine, const char *pszFormat, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int s32Len = vsnprintf(stLine.szShort, sizeof(stLine.szShort), pszFormat, args);
    const char *pszText = stLine.szShort;
    if (s32Len >= static_cast<int>(sizeof(stLine.szShort)))
    {
        const size_t bytes = static_cast<size_t>(s32Len) + 1;
        stLine.spLong.reset(new (std::nothrow) char[bytes]);
        pszText = stLine.spLong.get();
        if (pszText != nullptr)
        {
            (void)vsnprintf(stLine.spLong.get(), bytes, pszFormat, again); // the same text as above, with room for it
        }
    }
    va_end(again);
    return pszText;
}

const char *UTIL_LINE_Format(UTIL_LINE_S &stLine, const char *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    const char *pszText = UTIL_LINE_FormatList(stLine, pszFormat, args);
    va_end(args);
    return pszText;
}

} // namespace libquarrin
