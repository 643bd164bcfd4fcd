// The log line. Not here: the functions that hosts and library call (util_log_print.cpp, bsp_print_log.cpp), so that a
// program can replace one of them alone.
// Threads: any. Locks: none; the limit is atomic and a line is one write.

#include "log.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <string>

#include <sys/time.h>
#include <unistd.h>

#include "printable.h"
#include "quarrin_platform.h"

static std::atomic<int32_t> s_s32Limit{PLATFORM_LOG_INFO};

extern "C" void QN_PLATFORM_SetLogLevel(int level)
{
    s_s32Limit = level;
}

// The numbers are those of syslog.
static const char *LevelName(int32_t s32Level)
{
    switch (s32Level)
    {
    case PLATFORM_LOG_ERROR:
        return "ERROR";
    case PLATFORM_LOG_WARN:
        return "WARN";
    case 5:
        return "NOTICE";
    case PLATFORM_LOG_INFO:
        return "INFO";
    default:
        return s32Level < PLATFORM_LOG_ERROR ? "CRITICAL" : "DEBUG";
    }
}

// Local time in ISO 8601 with milliseconds: 2026-03-01T12:00:00.123+0100.
static std::string LocalTime()
{
    struct timeval stNow = {};
    (void)gettimeofday(&stNow, nullptr); // cannot fail with these arguments
    struct tm stLocal = {};
    (void)localtime_r(&stNow.tv_sec, &stLocal); // all zeros on failure, still a line
    char szDate[32];
    char szZone[16];
    if (strftime(szDate, sizeof(szDate), "%Y-%m-%dT%H:%M:%S", &stLocal) == 0 ||
        strftime(szZone, sizeof(szZone), "%z", &stLocal) == 0)
    {
        return "-";
    }
    char szTime[64];
    (void)snprintf(szTime, sizeof(szTime), "%s.%03d%s", szDate, static_cast<int>(stNow.tv_usec / 1000), szZone);
    return szTime;
}

__attribute__((format(printf, 2, 0))) static void AppendFormat(std::string &strLine, const char *pszFormat,
                                                               va_list args)
{
    va_list again;
    va_copy(again, args);
    const int s32Len = vsnprintf(nullptr, 0, pszFormat, args);
    if (s32Len > 0)
    {
        const size_t uBegin = strLine.size();
        strLine.resize(uBegin + static_cast<size_t>(s32Len));
        (void)vsnprintf(&strLine[uBegin], static_cast<size_t>(s32Len) + 1, pszFormat, again); // length known
    }
    va_end(again);
}

// A whole line in one write cannot be torn by other threads; only a full pipe or a signal splits it.
static void WriteAll(const std::string &strLine)
{
    size_t uDone = 0;
    while (uDone < strLine.size())
    {
        const ssize_t sNow = write(STDERR_FILENO, strLine.data() + uDone, strLine.size() - uDone);
        if (sNow < 0 && errno != EINTR)
        {
            return; // nobody left to tell
        }
        uDone += sNow > 0 ? static_cast<size_t>(sNow) : 0;
    }
}

int32_t PLATFORM_LogArgs(int32_t s32Level, const char *pszPrefix, const char *pszFormat, va_list args)
try
{
    const int32_t s32Limit = s_s32Limit;
    if (s32Limit <= 0 || s32Level > s32Limit)
    {
        return 0;
    }
    const int s32Errno = errno;
    std::string strText = pszPrefix != nullptr ? pszPrefix : "";
    if (pszFormat != nullptr)
    {
        AppendFormat(strText, pszFormat, args);
    }
    while (!strText.empty() && strText.back() == '\n')
    {
        strText.pop_back();
    }
    // One message is one line: what a name on a card brings along makes no second one.
    const std::string strLine = LocalTime() + " " + LevelName(s32Level) + " " + PLATFORM_Printable(strText) + "\n";
    WriteAll(strLine);
    errno = s32Errno;
    return static_cast<int32_t>(strLine.size());
}
catch (const std::exception &) // no memory for the line
{
    return 0;
}

void PLATFORM_LogError(const char *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    (void)PLATFORM_LogArgs(PLATFORM_LOG_ERROR, "platform: ", pszFormat, args); // the length is of no use here
    va_end(args);
}
