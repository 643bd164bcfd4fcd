#include "watch.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "support/process.h"
#include "support/wait.h"

extern char **environ;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int64_t LIMIT_US = 90 * INT64_C(1000000) * TEST_SLOW;
#else
constexpr int64_t LIMIT_US = 45 * INT64_C(1000000) * TEST_SLOW; // the machine may have other work
#endif
constexpr size_t MAX_THREADS = 4096; // of the whole run; a place is used again
constexpr off_t SHOWN_BYTES = 60000;
constexpr int32_t MAX_VIOLATIONS = 20; // one tells enough; a flood hides it

namespace
{

/// What one thread is calling. Relaxed, so that the sanitizer sees no order where the library makes none.
struct PLACE_S
{
    std::atomic<bool> bTaken{false};
    std::atomic<const char *> pszCall{nullptr};
    std::atomic<int64_t> s64BeganUs{0};
    std::atomic<int32_t> s32Tid{0};
};

PLACE_S g_astPlaces[MAX_THREADS];
std::atomic<int64_t> g_as64Counts[WATCH_E_COUNT] = {};
std::atomic<int32_t> g_s32Violations{0};
std::atomic<bool> g_bEnd{false};
std::thread *g_pThread = nullptr;

int64_t NowUs()
{
    struct timespec stNow = {};
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<int64_t>(stNow.tv_sec) * 1000000 + stNow.tv_nsec / 1000;
}

// A place for the calling thread, given back when the thread ends.
struct MY_PLACE_S
{
    PLACE_S *pPlace = nullptr;
    MY_PLACE_S()
    {
        for (PLACE_S &stPlace : g_astPlaces)
        {
            if (!stPlace.bTaken.exchange(true, std::memory_order_relaxed))
            {
                pPlace = &stPlace;
                pPlace->s32Tid.store(static_cast<int32_t>(syscall(SYS_gettid)), std::memory_order_relaxed);
                return;
            }
        }
        abort();
    }
    ~MY_PLACE_S()
    {
        pPlace->bTaken.store(false, std::memory_order_relaxed);
    }
};

PLACE_S &Mine()
{
    static thread_local MY_PLACE_S stMine;
    return *stMine.pPlace;
}

int LogFile()
{
    static const int s_s32Fd = []
    {
        char szPath[] = "/tmp/quarrin-stress-log-XXXXXX";
        const int s32Fd = mkostemp(szPath, O_CLOEXEC | O_APPEND);
        unlink(szPath);
        return s32Fd;
    }();
    return s_s32Fd;
}

void Say(const std::string &strText)
{
    if (write(STDERR_FILENO, strText.data(), strText.size()) < 0)
    {
        _exit(2);
    }
}

// One line, written in one piece.
void WriteLine(int32_t s32Fd, const char *pszBegin, const char *pszFormat, va_list args)
{
    char acLine[600];
    const int64_t s64Us = NowUs();
    const int s32Begin =
        snprintf(acLine, sizeof(acLine), "%s%lld.%06d %d ", pszBegin, static_cast<long long>(s64Us / 1000000),
                 static_cast<int>(s64Us % 1000000), static_cast<int>(syscall(SYS_gettid)));
    const size_t room = sizeof(acLine) - static_cast<size_t>(s32Begin) - 1;
    const int s32Text = vsnprintf(acLine + s32Begin, room, pszFormat, args);
    size_t length =
        static_cast<size_t>(s32Begin) + (static_cast<size_t>(s32Text) < room ? static_cast<size_t>(s32Text) : room - 1);
    if (length > 0 && acLine[length - 1] != '\n')
    {
        acLine[length++] = '\n';
    }
    if (write(s32Fd, acLine, length) < 0)
    {
        _exit(2);
    }
}

// The debugger shows all stacks; without one, what the kernel knows of each thread.
void ShowStacks()
{
    const std::string strPid = std::to_string(getpid());
    const char *const apszArgs[] = {
        "gdb",  "-batch", "-nx", "-p", strPid.c_str(), "-ex", "set pagination off", "-ex", "thread apply all bt",
        nullptr};
    posix_spawn_file_actions_t stActions; // standard output may be silenced
    posix_spawn_file_actions_init(&stActions);
    posix_spawn_file_actions_adddup2(&stActions, STDERR_FILENO, STDOUT_FILENO);
    pid_t pid = 0;
    int32_t s32Status = 0;
    if (posix_spawnp(&pid, "gdb", &stActions, nullptr, const_cast<char *const *>(apszArgs), environ) == 0)
    {
        (void)waitpid(pid, &s32Status, 0);
        return;
    }
    for (const std::string &strName : PROCESS_ThreadNames())
    {
        Say("thread " + strName + (PROCESS_ThreadWaits(strName) ? " waits for a lock or a condition\n" : "\n"));
    }
}

void TellHang(const char *pszCall)
{
    Say(std::string("\nFAILED: ") + pszCall + " has not returned for " + std::to_string(LIMIT_US / 1000000) +
        " s: something hangs. What runs:\n");
    for (const PLACE_S &stPlace : g_astPlaces)
    {
        const char *pszRuns = stPlace.pszCall.load(std::memory_order_relaxed);
        if (pszRuns != nullptr && stPlace.bTaken.load(std::memory_order_relaxed))
        {
            Say("    thread " + std::to_string(stPlace.s32Tid.load(std::memory_order_relaxed)) + ": " + pszRuns +
                " for " + std::to_string((NowUs() - stPlace.s64BeganUs.load(std::memory_order_relaxed)) / 1000) +
                " ms\n");
        }
    }
    WATCH_ShowLog();
    ShowStacks();
    _exit(1);
}

void Look()
{
    while (!g_bEnd.load(std::memory_order_relaxed))
    {
        TEST_SleepMs(100);
        for (const PLACE_S &stPlace : g_astPlaces)
        {
            const char *pszCall = stPlace.pszCall.load(std::memory_order_relaxed);
            if (pszCall != nullptr && NowUs() - stPlace.s64BeganUs.load(std::memory_order_relaxed) > LIMIT_US)
            {
                TellHang(pszCall);
            }
        }
    }
}

} // namespace

WATCHED::WATCHED(const char *pszCall) : m_pszOuter(Mine().pszCall.load(std::memory_order_relaxed))
{
    Mine().s64BeganUs.store(NowUs(), std::memory_order_relaxed);
    Mine().pszCall.store(pszCall, std::memory_order_relaxed);
}

WATCHED::~WATCHED()
{
    Mine().s64BeganUs.store(NowUs(), std::memory_order_relaxed);
    Mine().pszCall.store(m_pszOuter, std::memory_order_relaxed);
    WATCH_Count(WATCH_E_CALLS);
}

void WATCH_Begin()
{
    g_bEnd = false;
    g_pThread = new std::thread(Look);
}

void WATCH_End()
{
    g_bEnd = true;
    g_pThread->join();
    delete g_pThread;
    g_pThread = nullptr;
}

void WATCH_Count(WATCH_E enWhat)
{
    g_as64Counts[enWhat].fetch_add(1, std::memory_order_relaxed);
}

int64_t WATCH_Counted(WATCH_E enWhat)
{
    return g_as64Counts[enWhat].load(std::memory_order_relaxed);
}

std::string WATCH_CountsText()
{
    static const char *const s_apszNames[WATCH_E_COUNT] = {"calls",  "files", "frames",  "frames replayed",
                                                           "mounts", "pulls", "formats", "files moved"};
    std::string strText;
    for (int32_t i = 0; i < WATCH_E_COUNT; ++i)
    {
        strText += (i > 0 ? ", " : "") + std::to_string(g_as64Counts[i].load(std::memory_order_relaxed)) + " " +
                   s_apszNames[i];
    }
    return strText;
}

void WATCH_Violation(const char *pszFormat, ...)
{
    if (g_s32Violations.fetch_add(1, std::memory_order_relaxed) >= MAX_VIOLATIONS)
    {
        return;
    }
    va_list args;
    va_start(args, pszFormat);
    va_list again;
    va_copy(again, args);
    WriteLine(STDERR_FILENO, "FAILED: ", pszFormat, args);
    WriteLine(LogFile(), "FAILED: ", pszFormat, again);
    va_end(again);
    va_end(args);
}

int32_t WATCH_Violations()
{
    return g_s32Violations.load(std::memory_order_relaxed);
}

void WATCH_Log(const char *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    WriteLine(LogFile(), "", pszFormat, args);
    va_end(args);
}

void WATCH_ForgetLog()
{
    if (ftruncate(LogFile(), 0) != 0)
    {
        WATCH_Violation("the log cannot be cut");
    }
}

void WATCH_ShowLog()
{
    const off_t s64End = lseek(LogFile(), 0, SEEK_END);
    off_t s64At = s64End > SHOWN_BYTES ? s64End - SHOWN_BYTES : 0;
    Say("the end of the log:\n");
    char acBlock[4096];
    ssize_t s64Read = 0;
    while ((s64Read = pread(LogFile(), acBlock, sizeof(acBlock), s64At)) > 0)
    {
        Say(std::string(acBlock, static_cast<size_t>(s64Read)));
        s64At += s64Read;
    }
}
