// Short texts of sizes and times.
// Threads: any. Locks: none.

#include "storage/texts.h"

#include <cstdio>
#include <exception>

#include "libquarrin/naming.h"

namespace libquarrin
{

constexpr uint64_t KIB = 1024;
constexpr uint64_t MIB = 1024 * KIB;
constexpr uint64_t GIB = 1024 * MIB;

constexpr long long YEAR_BASE = 1900; // wide: the last years that a tm holds end above an int

tagQN_TEXT_S QN_TEXT_Size(uint64_t u64Bytes)
{
    tagQN_TEXT_S stText = {};
    char(&szText)[sizeof(stText.szText)] = stText.szText;
    // Below 1 GiB the low word says it all. Kept: a unit begins above its power of two, so 1024 is "1024B".
    const int32_t s32Low = static_cast<int32_t>(static_cast<uint32_t>(u64Bytes));
    if (u64Bytes > GIB)
    {
        (void)snprintf(szText, sizeof(szText), "%.1fGB", static_cast<double>(u64Bytes) / static_cast<double>(GIB));
    }
    else if (u64Bytes > MIB)
    {
        (void)snprintf(szText, sizeof(szText), "%.1fMB", s32Low / static_cast<double>(MIB));
    }
    else if (u64Bytes > KIB)
    {
        (void)snprintf(szText, sizeof(szText), "%.1fKB", s32Low / static_cast<double>(KIB));
    }
    else
    {
        (void)snprintf(szText, sizeof(szText), "%dB", s32Low);
    }
    return stText;
}

tagQN_TEXT_S QN_TEXT_Time(time_t tTime)
{
    tm stTime = {};
    (void)gmtime_r(&tTime, &stTime); // a year beyond its range leaves zeros
    tagQN_TEXT_S stText = {};
    (void)snprintf(stText.szText, sizeof(stText.szText), "%04lld-%02d-%02d-%02d-%02d-%02d", stTime.tm_year + YEAR_BASE,
                   stTime.tm_mon + 1, stTime.tm_mday, stTime.tm_hour, stTime.tm_min, stTime.tm_sec);
    return stText;
}

std::string QN_STORAGE_PrettierSize(uint64_t u64Bytes)
try
{
    return QN_TEXT_Size(u64Bytes).szText;
}
catch (const std::exception &)
{
    return std::string();
}

std::string QN_STORAGE_PrettierTime(time_t tTime)
try
{
    return QN_TEXT_Time(tTime).szText;
}
catch (const std::exception &)
{
    return std::string();
}

} // namespace libquarrin
