// The faults. See the header. Built as a library of its own, since the order of libraries is what makes it work.

#include "faults.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

/// One kind of call.
struct FAULT_STATE_S
{
    FAULT_S stFault;
    int32_t s32Count = 0;
    int32_t s32Touched = 0;
};

static const char *const NAMES[FAULT_CALL_COUNT] = {"open",   "write", "rename", "unlink",
                                                    "statfs", "mkdir", "sync",   "socket"};

static std::mutex s_mutex;
static std::atomic<bool> s_bOn{false}; // nothing is looked at before the first FAULTS_Begin
static std::atomic<FAULT_WATCH> s_pfnWatch{nullptr};
static char s_acPath[PATH_MAX];
static FAULT_STATE_S s_astState[FAULT_CALL_COUNT];

template <typename FUNCTION> static FUNCTION Real(const char *pszName)
{
    return reinterpret_cast<FUNCTION>(dlsym(RTLD_NEXT, pszName));
}

void FAULTS_Begin(const char *pszPath)
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_acPath[0] = '\0';
    if (pszPath != nullptr)
    {
        strncpy(s_acPath, pszPath, sizeof(s_acPath) - 1);
    }
    for (FAULT_STATE_S &stState : s_astState)
    {
        stState = FAULT_STATE_S();
    }
    s_bOn = s_acPath[0] != '\0';
}

void FAULTS_Set(FAULT_CALL_E enCall, const FAULT_S *pstFault)
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_astState[enCall].stFault = *pstFault;
}

int32_t FAULTS_Count(FAULT_CALL_E enCall)
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_astState[enCall].s32Count;
}

int32_t FAULTS_Touched(FAULT_CALL_E enCall)
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_astState[enCall].s32Touched;
}

void FAULTS_Watch(FAULT_WATCH pfnWatch)
{
    s_pfnWatch = pfnWatch;
}

static int32_t Number(const char *pszName, int32_t s32Default)
{
    const char *pszValue = getenv(pszName);
    return pszValue == nullptr ? s32Default : static_cast<int32_t>(strtol(pszValue, nullptr, 10));
}

__attribute__((constructor)) static void ReadEnvironment()
{
    const char *pszCall = getenv("QN_FAULT_CALL");
    const char *pszPath = getenv("QN_FAULT_PATH");
    if (pszCall == nullptr || pszPath == nullptr)
    {
        return;
    }
    FAULTS_Begin(pszPath);
    for (int32_t i = 0; i < FAULT_CALL_COUNT; ++i)
    {
        if (strcmp(pszCall, NAMES[i]) == 0)
        {
            const FAULT_S stFault = {Number("QN_FAULT_NTH", 1), Number("QN_FAULT_TIMES", 1),
                                     Number("QN_FAULT_ERRNO", 0), Number("QN_FAULT_DELAY_MS", 0)};
            FAULTS_Set(static_cast<FAULT_CALL_E>(i), &stFault);
        }
    }
}

// True: the call fails, errno is set. Waits first where the call is to be slow.
static bool Strikes(FAULT_CALL_E enCall)
{
    FAULT_S stFault;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        FAULT_STATE_S &stState = s_astState[enCall];
        stState.s32Count += 1;
        stFault = stState.stFault;
        const int32_t s32Past = stState.s32Count - stFault.s32Nth;
        if (stFault.s32Nth <= 0 || s32Past < 0 || (stFault.s32Times >= 0 && s32Past >= stFault.s32Times))
        {
            return false;
        }
        stState.s32Touched += 1;
    }
    struct timespec stRest = {stFault.s32DelayMs / 1000, static_cast<long>(stFault.s32DelayMs % 1000) * 1000000};
    while (stFault.s32DelayMs > 0 && nanosleep(&stRest, &stRest) != 0 && errno == EINTR)
    {
    }
    errno = stFault.s32Errno != 0 ? stFault.s32Errno : errno;
    return stFault.s32Errno != 0;
}

static bool IsBelow(const char *pszPath)
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_acPath[0] != '\0' && strncmp(pszPath, s_acPath, strlen(s_acPath)) == 0;
}

static bool StrikesPath(FAULT_CALL_E enCall, const char *pszPath)
{
    return s_bOn && pszPath != nullptr && IsBelow(pszPath) && Strikes(enCall);
}

static bool PathOf(int s32Fd, char (&szPath)[PATH_MAX])
{
    char szLink[32];
    snprintf(szLink, sizeof(szLink), "/proc/self/fd/%d", s32Fd);
    const ssize_t sLen = readlink(szLink, szPath, sizeof(szPath) - 1);
    szPath[sLen > 0 ? sLen : 0] = '\0';
    return sLen > 0;
}

static bool StrikesDescriptor(FAULT_CALL_E enCall, int s32Fd)
{
    char szPath[PATH_MAX];
    return s_bOn && PathOf(s32Fd, szPath) && IsBelow(szPath) && Strikes(enCall);
}

// Makes a call that is not struck, and tells of it before and behind.
template <typename CALL> static int Tell(FAULT_CALL_E enCall, const char *pszPath, CALL fnCall)
{
    const FAULT_WATCH pfnWatch = s_pfnWatch;
    if (pfnWatch == nullptr || !s_bOn || pszPath == nullptr || !IsBelow(pszPath))
    {
        return fnCall();
    }
    pfnWatch(enCall, pszPath, false);
    const int s32Result = fnCall();
    const int s32Errno = errno;
    if (s32Result == 0)
    {
        pfnWatch(enCall, pszPath, true);
    }
    errno = s32Errno;
    return s32Result;
}

// The mode of an open call, which is there only when a file may be made.
#define OPEN_MODE(flags)                                                                                               \
    mode_t mode = 0;                                                                                                   \
    if (((flags) & (O_CREAT | O_TMPFILE)) != 0)                                                                        \
    {                                                                                                                  \
        va_list args;                                                                                                  \
        va_start(args, flags);                                                                                         \
        mode = va_arg(args, mode_t);                                                                                   \
        va_end(args);                                                                                                  \
    }

extern "C"
{
    int open(const char *path, int flags, ...)
    {
        OPEN_MODE(flags)
        static const auto s_pfnReal = Real<int (*)(const char *, int, ...)>("open");
        return StrikesPath(FAULT_CALL_OPEN, path) ? -1 : s_pfnReal(path, flags, mode);
    }

    int open64(const char *path, int flags, ...)
    {
        OPEN_MODE(flags)
        static const auto s_pfnReal = Real<int (*)(const char *, int, ...)>("open64");
        return StrikesPath(FAULT_CALL_OPEN, path) ? -1 : s_pfnReal(path, flags, mode);
    }

    ssize_t write(int fd, const void *data, size_t bytes)
    {
        static const auto s_pfnReal = Real<ssize_t (*)(int, const void *, size_t)>("write");
        return StrikesDescriptor(FAULT_CALL_WRITE, fd) ? -1 : s_pfnReal(fd, data, bytes);
    }

    int rename(const char *from, const char *to) noexcept
    {
        static const auto s_pfnReal = Real<int (*)(const char *, const char *)>("rename");
        return StrikesPath(FAULT_CALL_RENAME, from)
                   ? -1
                   : Tell(FAULT_CALL_RENAME, from, [from, to] { return s_pfnReal(from, to); });
    }

    int unlink(const char *path) noexcept
    {
        static const auto s_pfnReal = Real<int (*)(const char *)>("unlink");
        return StrikesPath(FAULT_CALL_UNLINK, path) ? -1
                                                    : Tell(FAULT_CALL_UNLINK, path, [path] { return s_pfnReal(path); });
    }

    int remove(const char *path) noexcept
    {
        static const auto s_pfnReal = Real<int (*)(const char *)>("remove");
        return StrikesPath(FAULT_CALL_UNLINK, path) ? -1
                                                    : Tell(FAULT_CALL_UNLINK, path, [path] { return s_pfnReal(path); });
    }

    int statvfs(const char *path, struct statvfs *result) noexcept
    {
        static const auto s_pfnReal = Real<int (*)(const char *, struct statvfs *)>("statvfs");
        return StrikesPath(FAULT_CALL_STATFS, path) ? -1 : s_pfnReal(path, result);
    }

    int statvfs64(const char *path, struct statvfs64 *result) noexcept
    {
        static const auto s_pfnReal = Real<int (*)(const char *, struct statvfs64 *)>("statvfs64");
        return StrikesPath(FAULT_CALL_STATFS, path) ? -1 : s_pfnReal(path, result);
    }

    int mkdir(const char *path, mode_t mode) noexcept
    {
        static const auto s_pfnReal = Real<int (*)(const char *, mode_t)>("mkdir");
        return StrikesPath(FAULT_CALL_MKDIR, path) ? -1 : s_pfnReal(path, mode);
    }

    int fsync(int fd)
    {
        static const auto s_pfnReal = Real<int (*)(int)>("fsync");
        if (StrikesDescriptor(FAULT_CALL_SYNC, fd))
        {
            return -1;
        }
        char szPath[PATH_MAX];
        const bool bNamed = s_pfnWatch.load() != nullptr && PathOf(fd, szPath);
        return Tell(FAULT_CALL_SYNC, bNamed ? szPath : nullptr, [fd] { return s_pfnReal(fd); });
    }

    int socket(int domain, int type, int protocol) noexcept
    {
        static const auto s_pfnReal = Real<int (*)(int, int, int)>("socket");
        return s_bOn && domain == AF_NETLINK && Strikes(FAULT_CALL_SOCKET) ? -1 : s_pfnReal(domain, type, protocol);
    }
}
