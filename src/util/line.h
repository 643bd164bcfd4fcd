// A text that is put together on the stack: it takes memory only when it is long, and says so when there is none.
// Threads: any. Locks: none.
#ifndef QUARRIN_UTIL_LINE_H
#define QUARRIN_UTIL_LINE_H

#include <cstdarg>
#include <cstddef>
#include <memory>

namespace libquarrin
{

/// Room for one text.
struct UTIL_LINE_S
{
    char szShort[512] = {};         ///< the text, or its begin
    std::unique_ptr<char[]> spLong; ///< a text that is longer
};

/// Formats a text as printf does. The result lies in stLine; null: no memory, and szShort holds the begin of it.
__attribute__((format(printf, 2, 3))) const char *UTIL_LINE_Format(UTIL_LINE_S &stLine, const char *pszFormat, ...);

/// The same with the arguments of a caller, who may use them once more.
const char *UTIL_LINE_FormatList(UTIL_LINE_S &stLine, const char *pszFormat, va_list args);

} // namespace libquarrin

#endif
