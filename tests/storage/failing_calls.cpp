#include "storage/failing_calls.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/statvfs.h>

static std::atomic<int32_t> s_as32Errno[TEST_CALL_COUNT]; // 0: the call is made
static std::atomic<int32_t> s_s32Failed{0};
static std::atomic<bool> s_bEmptyTotals{false};
static std::function<void(const std::string &)> s_fnBeforeRemove;

// A 32-bit C library has two sets of calls that know times; the headers choose the one for 64-bit times.
static constexpr bool WIDE_TIME = sizeof(time_t) > sizeof(long);

template <typename FUNCTION> static FUNCTION Real(const char *pszName)
{
    return reinterpret_cast<FUNCTION>(dlsym(RTLD_NEXT, pszName));
}

static bool Fails(TEST_CALL_E enCall)
{
    const int32_t s32Errno = s_as32Errno[enCall];
    if (s32Errno == 0)
    {
        return false;
    }
    s_s32Failed += 1;
    errno = s32Errno;
    return true;
}

extern "C"
{
    int select(int count, fd_set *read, fd_set *write, fd_set *except, struct timeval *timeout)
    {
        using SELECT = int (*)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
        static const auto s_pfnReal = Real<SELECT>(WIDE_TIME ? "__select64" : "select");
        return Fails(TEST_CALL_SELECT) ? -1 : s_pfnReal(count, read, write, except, timeout);
    }

    ssize_t recvmsg(int fd, struct msghdr *message, int flags)
    {
        using RECVMSG = ssize_t (*)(int, struct msghdr *, int);
        static const auto s_pfnReal = Real<RECVMSG>(WIDE_TIME ? "__recvmsg64" : "recvmsg");
        return Fails(TEST_CALL_RECVMSG) ? -1 : s_pfnReal(fd, message, flags);
    }

    int socket(int domain, int type, int protocol) noexcept
    {
        static const auto s_pfnReal = Real<int (*)(int, int, int)>("socket");
        return Fails(TEST_CALL_SOCKET) ? -1 : s_pfnReal(domain, type, protocol);
    }

    int statvfs(const char *path, struct statvfs *result) noexcept
    {
        static const auto s_pfnReal = Real<int (*)(const char *, struct statvfs *)>("statvfs64");
        if (s_bEmptyTotals)
        {
            *result = {};
            return 0;
        }
        return Fails(TEST_CALL_STATVFS) ? -1 : s_pfnReal(path, result);
    }

    int remove(const char *path) noexcept
    {
        static const auto s_pfnReal = Real<int (*)(const char *)>("remove");
        if (s_fnBeforeRemove)
        {
            s_fnBeforeRemove(path);
        }
        return Fails(TEST_CALL_REMOVE) ? -1 : s_pfnReal(path);
    }
}

void TEST_WithFailingCall(TEST_CALL_E enCall, int32_t s32Errno, const std::function<void()> &fnBody)
{
    s_s32Failed = 0;
    s_as32Errno[enCall] = s32Errno;
    fnBody();
    s_as32Errno[enCall] = 0;
    EXPECT_GT(s_s32Failed, 0) << "no such call was made";
}

void TEST_WithEmptyTotals(const std::function<void()> &fnBody)
{
    s_bEmptyTotals = true;
    fnBody();
    s_bEmptyTotals = false;
}

void TEST_BeforeRemove(const std::function<void(const std::string &)> &fnBefore, const std::function<void()> &fnBody)
{
    s_fnBeforeRemove = fnBefore;
    fnBody();
    s_fnBeforeRemove = nullptr;
}
