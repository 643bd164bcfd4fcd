#include "kernel.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include <dlfcn.h>
#include <linux/fs.h>
#include <linux/netlink.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "chance.h"
#include "watch.h"

// A 32-bit C library has two sets of calls that know times; the headers choose the one for 64-bit times.
static constexpr bool WIDE_TIME = sizeof(time_t) > sizeof(long);
static constexpr long SETTLED_NS = 30000000;

// Our end of each card's pair; -1: none. Those before it stay open until the handle is gone: somebody may just be
// sending, and the number of a closed one would be given to another file.
static std::atomic<int32_t> g_as32Ends[KERNEL_CARDS] = {{-1}, {-1}};
static std::vector<int32_t> g_avecOld[KERNEL_CARDS]; // the monitor's own, and of who joined it

template <typename CALL> static CALL Real(const char *pszName)
{
    return reinterpret_cast<CALL>(dlsym(RTLD_NEXT, pszName));
}

// The card whose monitor the calling thread is; -1: none. The names are "cN:hotplug".
static int32_t MonitorOf()
{
    char szName[16] = {};
    prctl(PR_GET_NAME, szName);
    const int32_t s32Card = szName[1] - '0';
    return szName[0] == 'c' && strcmp(szName + 2, ":hotplug") == 0 && s32Card >= 0 && s32Card < KERNEL_CARDS ? s32Card
                                                                                                             : -1;
}

static int OpenPair(int32_t s32Card)
{
    if (CHANCE_In100(10))
    {
        errno = EMFILE;
        return -1;
    }
    int as32Pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, as32Pair) != 0)
    {
        return -1;
    }
    const int32_t s32Old = g_as32Ends[s32Card].exchange(as32Pair[1]);
    if (s32Old >= 0)
    {
        g_avecOld[s32Card].push_back(s32Old);
    }
    return as32Pair[0];
}

extern "C" int socket(int s32Domain, int s32Type, int s32Protocol) noexcept
{
    static const auto pfnSocket = Real<int (*)(int, int, int)>("socket");
    const int32_t s32Card = s32Domain == AF_NETLINK && s32Protocol == NETLINK_KOBJECT_UEVENT ? MonitorOf() : -1;
    return s32Card >= 0 ? OpenPair(s32Card) : pfnSocket(s32Domain, s32Type, s32Protocol);
}

extern "C" int bind(int s32Fd, const struct sockaddr *pstAddress, socklen_t u32Bytes) noexcept
{
    static const auto pfnBind = Real<int (*)(int, const struct sockaddr *, socklen_t)>("bind");
    return pstAddress->sa_family == AF_NETLINK && MonitorOf() >= 0 ? 0 : pfnBind(s32Fd, pstAddress, u32Bytes);
}

extern "C" ssize_t recvmsg(int s32Fd, struct msghdr *pstMessage, int s32Flags)
{
    static const auto pfnReceive = Real<ssize_t (*)(int, struct msghdr *, int)>(WIDE_TIME ? "__recvmsg64" : "recvmsg");
    if (MonitorOf() >= 0 && CHANCE_In100(5))
    {
        errno = ENOBUFS; // as a socket that ran over; what stands in it is lost with it
        return -1;
    }
    return pfnReceive(s32Fd, pstMessage, s32Flags);
}

extern "C" int nanosleep(const struct timespec *pstTime, struct timespec *pstRest)
{
    static const auto pfnSleep =
        Real<int (*)(const struct timespec *, struct timespec *)>(WIDE_TIME ? "__nanosleep64" : "nanosleep");
    struct timespec stShort = *pstTime;
    if (stShort.tv_sec == 1 && stShort.tv_nsec == 0 && MonitorOf() >= 0)
    {
        stShort = {0, static_cast<long>(CHANCE_Below(SETTLED_NS))};
    }
    return pfnSleep(&stShort, pstRest);
}

extern "C" int ioctl(int s32Fd, unsigned long u64Request, ...) noexcept
{
    static const auto pfnIoctl = Real<int (*)(int, unsigned long, ...)>(WIDE_TIME ? "__ioctl_time64" : "ioctl");
    if (u64Request == BLKRRPART)
    {
        return CHANCE_In100(90) ? 0 : -1; // the card is a file, which has no table
    }
    va_list args;
    va_start(args, u64Request);
    void *pArg = va_arg(args, void *);
    va_end(args);
    return pfnIoctl(s32Fd, u64Request, pArg);
}

bool KERNEL_Uevent(int32_t s32Card, const std::string &strAction)
{
    CHANCE_Delay(30);
    const std::string strMessage = strAction + "@/devices/stress/c" + std::to_string(s32Card);
    const int32_t s32End = g_as32Ends[s32Card].load();
    const bool bSent = s32End >= 0 && send(s32End, strMessage.data(), strMessage.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
                                          static_cast<ssize_t>(strMessage.size());
    WATCH_Log("uevent %s: %s", strMessage.c_str(), bSent ? "sent" : "lost");
    return bSent;
}

bool KERNEL_IsHeard(int32_t s32Card)
{
    return g_as32Ends[s32Card].load() >= 0;
}

void KERNEL_Forget(int32_t s32Card)
{
    const int32_t s32End = g_as32Ends[s32Card].exchange(-1);
    if (s32End >= 0)
    {
        close(s32End);
    }
    for (const int32_t s32Old : g_avecOld[s32Card])
    {
        close(s32Old);
    }
    g_avecOld[s32Card].clear();
}
