#include "core/system_calls.h"

#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <linux/fs.h>
#include <mutex>
#include <new>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include "support/wait.h"

namespace
{

struct CALLS_STATE_S
{
    std::mutex mutex;
    std::string strHold; // empty: nobody is held up
    std::atomic<int32_t> s32Held{0};
    std::atomic<int32_t> s32Reread{0};
    std::atomic<int32_t> s32Selects{0};
    std::atomic<bool> bNoneReadable{false};
    std::atomic<bool> bHoldSelect{false};
    std::atomic<int32_t> s32ClockAhead{0};
};

CALLS_STATE_S &State()
{
    static CALLS_STATE_S *pState = new CALLS_STATE_S(); // outlives every thread of the process
    return *pState;
}

// A 32-bit C library has two sets of calls that know times; the headers choose the one for 64-bit times.
constexpr bool WIDE_TIME = sizeof(time_t) > sizeof(long);

thread_local int32_t g_s32FailAfter = -1;

bool IsHeld(const std::string &strPath)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    const std::string &strHold = State().strHold;
    return !strHold.empty() && (strPath == strHold || strPath.rfind(strHold + "/", 0) == 0);
}

std::string PathOf(DIR *pDir)
{
    char szPath[PATH_MAX + 1] = {};
    const std::string strLink = "/proc/self/fd/" + std::to_string(dirfd(pDir));
    return readlink(strLink.c_str(), szPath, PATH_MAX) > 0 ? szPath : "";
}

} // namespace

extern "C" int closedir(DIR *pDir)
{
    using CLOSE = int (*)(DIR *);
    static const CLOSE pfnClose = reinterpret_cast<CLOSE>(dlsym(RTLD_NEXT, "closedir"));
    const std::string strPath = PathOf(pDir);
    if (IsHeld(strPath))
    {
        State().s32Held += 1;
        (void)TEST_WaitFor([&strPath] { return !IsHeld(strPath); }, 600000);
        State().s32Held -= 1;
    }
    return pfnClose(pDir);
}

extern "C" int ioctl(int s32Fd, unsigned long u64Request, ...) noexcept
{
    using IOCTL = int (*)(int, unsigned long, ...);
    static const IOCTL pfnIoctl = reinterpret_cast<IOCTL>(dlsym(RTLD_NEXT, WIDE_TIME ? "__ioctl_time64" : "ioctl"));
    va_list args;
    va_start(args, u64Request);
    void *pArg = u64Request == BLKRRPART ? nullptr : va_arg(args, void *);
    va_end(args);
    return u64Request == BLKRRPART ? State().s32Reread.load() : pfnIoctl(s32Fd, u64Request, pArg);
}

extern "C" int select(int s32Count, fd_set *pstRead, fd_set *pstWrite, fd_set *pstExcept, struct timeval *pstTimeout)
{
    using SELECT = int (*)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
    static const SELECT pfnSelect = reinterpret_cast<SELECT>(dlsym(RTLD_NEXT, WIDE_TIME ? "__select64" : "select"));
    State().s32Selects += 1;
    (void)TEST_WaitFor([] { return !State().bHoldSelect; }, 600000);
    if (State().bNoneReadable)
    {
        FD_ZERO(pstRead);
        return 1;
    }
    return pfnSelect(s32Count, pstRead, pstWrite, pstExcept, pstTimeout);
}

extern "C" int clock_gettime(clockid_t clock, struct timespec *pstTime) noexcept
{
    using GETTIME = int (*)(clockid_t, struct timespec *);
    static const GETTIME pfnGettime =
        reinterpret_cast<GETTIME>(dlsym(RTLD_NEXT, WIDE_TIME ? "__clock_gettime64" : "clock_gettime"));
    const int s32Result = pfnGettime(clock, pstTime);
    if (clock == CLOCK_REALTIME)
    {
        pstTime->tv_sec += State().s32ClockAhead;
    }
    return s32Result;
}

void *operator new(std::size_t u64Size, const std::nothrow_t &stTag) noexcept
{
    using NEW = void *(*)(std::size_t, const std::nothrow_t &);
    static const NEW pfnNew = reinterpret_cast<NEW>(
        dlsym(RTLD_NEXT, sizeof(std::size_t) == 8 ? "_ZnwmRKSt9nothrow_t" : "_ZnwjRKSt9nothrow_t"));
    if (g_s32FailAfter >= 0 && g_s32FailAfter-- == 0)
    {
        return nullptr;
    }
    return pfnNew(u64Size, stTag);
}

void SYSTEM_CALLS_Reset()
{
    SYSTEM_CALLS_ReleaseListing();
    State().s32Reread = 0;
    State().bNoneReadable = false;
    State().bHoldSelect = false;
    State().s32ClockAhead = 0;
    g_s32FailAfter = -1;
}

void SYSTEM_CALLS_AnswerReread(int32_t s32Result)
{
    State().s32Reread = s32Result;
}

void SYSTEM_CALLS_HoldListing(const std::string &strPath)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().strHold = strPath;
}

bool SYSTEM_CALLS_WaitListingHeld(int32_t s32Ms)
{
    return TEST_WaitFor([] { return State().s32Held > 0; }, s32Ms);
}

void SYSTEM_CALLS_ReleaseListing()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().strHold.clear();
}

int32_t SYSTEM_CALLS_Selects()
{
    return State().s32Selects;
}

void SYSTEM_CALLS_SelectNoneReadable()
{
    State().bNoneReadable = true;
}

void SYSTEM_CALLS_HoldSelect()
{
    State().bHoldSelect = true;
}

void SYSTEM_CALLS_ReleaseSelect()
{
    State().bHoldSelect = false;
}

void SYSTEM_CALLS_SetClockAhead(int32_t s32Seconds)
{
    State().s32ClockAhead = s32Seconds;
}

void SYSTEM_CALLS_FailAllocation(int32_t s32Skip)
{
    g_s32FailAfter = s32Skip;
}
