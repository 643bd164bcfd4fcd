// Output: results and messages go to different descriptors, whatever the library prints.
// Threads: the main thread only.

#include "output.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

extern "C"
{
#include <libavutil/log.h>
}

#include "printable.h"
#include "quarrin_platform.h"

static constexpr size_t OUTPUT_LINE_MOST = 8192; // longer ones come in pieces

static int32_t s_s32ResultFd = -1;
static bool s_bProgressOpen = false; // a progress line stands on the terminal without its newline

/// Makes descriptors 0 to 2 valid, so that no file of ours takes one of their places.
static bool OpenStandardDescriptors()
{
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO)
    {
        fd = open("/dev/null", O_RDWR);
    }
    return fd >= 0 && close(fd) == 0;
}

bool TOOL_OUTPUT_Init()
{
    if (!OpenStandardDescriptors())
    {
        return false;
    }
    s_s32ResultFd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    return s_s32ResultFd >= 0 && dup2(STDERR_FILENO, STDOUT_FILENO) >= 0;
}

/// Drops what is printed through stdio; descriptor 1 itself stays where it was moved to.
static void SilenceStandardOutput()
{
#ifdef __GLIBC__
    FILE *pNull = fopen("/dev/null", "we");
    if (pNull != nullptr)
    {
        stdout = pNull; // a variable in glibc, made to be set
    }
#else
    (void)freopen("/dev/null", "we", stdout); // chatter that stays is no harm
#endif
}

/// Writes lines whose control characters are escaped; a newline at the end of each stays.
static void WritePrintable(const std::string &strText)
{
    std::string strSafe;
    size_t uBegin = 0;
    for (size_t uEnd = strText.find('\n'); uEnd != std::string::npos; uEnd = strText.find('\n', uBegin))
    {
        strSafe += TOOL_OUTPUT_Printable(strText.substr(uBegin, uEnd - uBegin)) + "\n";
        uBegin = uEnd + 1;
    }
    strSafe += TOOL_OUTPUT_Printable(strText.substr(uBegin));
    fputs(strSafe.c_str(), stderr);
}

#ifdef __GLIBC__
static ssize_t TakeChatter(void *, const char *pcText, size_t uLen)
{
    WritePrintable(std::string(pcText, uLen));
    return static_cast<ssize_t>(uLen);
}
#endif

/// The library's chatter goes to standard error, a line at a time. It holds names of the card's.
static void ShowChatter()
{
#ifdef __GLIBC__
    FILE *pChatter = fopencookie(nullptr, "w", {nullptr, TakeChatter, nullptr, nullptr});
    if (pChatter != nullptr)
    {
        stdout = pChatter;
    }
#endif
    setvbuf(stdout, nullptr, _IOLBF, OUTPUT_LINE_MOST);
}

static void LogOfFfmpeg(void *pWho, int s32Level, const char *pszFormat, va_list stArgs)
{
    if (s32Level > av_log_get_level())
    {
        return;
    }
    char acLine[OUTPUT_LINE_MOST];
    static int s32Begins = 1; // of a line; torn at the worst when threads of FFmpeg's speak at once
    av_log_format_line(pWho, s32Level, pszFormat, stArgs, acLine, sizeof(acLine), &s32Begins);
    WritePrintable(acLine);
}

void TOOL_OUTPUT_SetVerbose(bool bVerbose)
{
    if (bVerbose)
    {
        ShowChatter();
        av_log_set_callback(LogOfFfmpeg);
    }
    else
    {
        SilenceStandardOutput();
    }
    av_log_set_level(bVerbose ? AV_LOG_INFO : AV_LOG_QUIET);
    QN_PLATFORM_SetLogLevel(bVerbose ? 6 : 0);
}

int32_t TOOL_OUTPUT_Fd()
{
    return s_s32ResultFd;
}

bool TOOL_OUTPUT_Write(const std::string &strText)
{
    size_t uDone = 0;
    while (uDone < strText.size())
    {
        const ssize_t sWritten = write(s_s32ResultFd, strText.data() + uDone, strText.size() - uDone);
        if (sWritten < 0 && errno == EINTR)
        {
            continue;
        }
        if (sWritten < 0)
        {
            return false;
        }
        uDone += static_cast<size_t>(sWritten);
    }
    return true;
}

void TOOL_OUTPUT_Say(const char *pszFormat, ...)
{
    if (s_bProgressOpen)
    {
        s_bProgressOpen = false;
        fputc('\n', stderr);
    }
    va_list stArgs;
    va_start(stArgs, pszFormat);
    std::string strText(static_cast<size_t>(vsnprintf(nullptr, 0, pszFormat, stArgs)), '\0');
    va_end(stArgs);
    va_start(stArgs, pszFormat);
    vsnprintf(strText.data(), strText.size() + 1, pszFormat, stArgs);
    va_end(stArgs);
    fprintf(stderr, "quarrin: %s\n", TOOL_OUTPUT_Printable(strText).c_str());
}

void TOOL_OUTPUT_Progress(const std::string &strText)
{
    const std::string strSafe = TOOL_OUTPUT_Printable(strText);
    if (isatty(STDERR_FILENO) == 0)
    {
        fprintf(stderr, "%s\n", strSafe.c_str());
        return;
    }
    fprintf(stderr, "\r%s\x1b[K", strSafe.c_str()); // K clears what a longer line left behind
    fflush(stderr);
    s_bProgressOpen = true;
}

std::string TOOL_OUTPUT_Printable(const std::string &strText)
{
    return PLATFORM_Printable(strText);
}
