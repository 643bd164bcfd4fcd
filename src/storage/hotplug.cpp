// Hotplug monitor: listens for the kernel's uevents and posts those of the handle's own device.
// Threads: the monitor's own; start and stop on the owner's. Locks: none but the event ring's.

#include "libquarrin/hotplug.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "libquarrin/storage.h"
#include "ring/handle_private.h"
#include "ring/ring.h"
#include "storage/device_name.h"
#include "storage/presence.h"
#include "util/line.h"
#include "util/log.h"

namespace libquarrin
{

constexpr uint32_t UEVENT_GROUP = 1;  // the kernel's own multicast group
constexpr size_t UEVENT_BYTES = 2048; // a longer message is cut; its header is always within
constexpr useconds_t REOPEN_PAUSE_US = 10000;
constexpr suseconds_t WAIT_US = 200000; // bounds the time that a stop takes
constexpr time_t SETTLE_SECONDS = 1;    // the kernel makes and removes the nodes meanwhile

// Kept: this line number is what the device's log filters know the message by.
constexpr int32_t LISTEN_MESSAGE_LINE = 92;

int32_t QN_STORAGE_HotplugNetlinkOpen()
{
    const int32_t s32Fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (s32Fd < 0)
    {
        QN_LOG_ERROR("hotplug netlink open failed: %s", strerror(errno));
        return -1;
    }
    (void)fcntl(s32Fd, F_SETFL, fcntl(s32Fd, F_GETFL) | O_NONBLOCK); // a socket has flags

    struct sockaddr_nl stAddress = {};
    stAddress.nl_family = AF_NETLINK;
    // Two handles of a process need two port ids.
    stAddress.nl_pid = static_cast<uint32_t>(pthread_self()) + static_cast<uint32_t>(getpid());
    stAddress.nl_groups = UEVENT_GROUP;
    if (bind(s32Fd, reinterpret_cast<struct sockaddr *>(&stAddress), sizeof(stAddress)) != 0)
    {
        QN_LOG_ERROR("hotplug netlink bind failed: %s", strerror(errno));
        close(s32Fd);
        return -1;
    }
    return s32Fd;
}

int32_t QN_STORAGE_HotplugNetlinkClose(int32_t &s32Fd)
{
    if (s32Fd >= 0)
    {
        close(s32Fd);
        s32Fd = -1;
    }
    return 0;
}

static bool IsPresent(const tagQN_HANDLER_S *pHandle)
{
    return QN_STORAGE_CheckBlockDevExist(pHandle->strDevice.c_str()) == 0;
}

static bool IsKernelDevice(const tagQN_HANDLER_S *pHandle)
{
    struct stat stStat = {};
    return stat(pHandle->strDevice.c_str(), &stStat) == 0 && S_ISBLK(stStat.st_mode);
}

int32_t QN_STORAGE_HotplugInit(tagQN_HANDLER_S *pHandle)
{
    pHandle->strDevName = QN_DeviceName(pHandle->strDevice);
    UTIL_LINE_S stName;
    (void)UTIL_LINE_Format(stName, "%s:hotplug", pHandle->strDevName.c_str());
    const char *pszName = stName.szShort; // a thread's name is short
    pHandle->s32NetlinkFd = -1;
    QN_PRESENCE_Note(pHandle, IsPresent(pHandle));
    pHandle->pstPrivate->pPresence->bKernelDevice = IsKernelDevice(pHandle);
    (void)UTIL_THREAD_InitData(&pHandle->stHotplugThread, pszName, QN_STORAGE_HotplugThread, pHandle);
    (void)UTIL_THREAD_Create(&pHandle->stHotplugThread, nullptr); // without it, plugging goes unnoticed
    QN_LOG_INFO("Thread %s start", pszName);
    return 0;
}

int32_t QN_STORAGE_HotplugDestroy(tagQN_HANDLER_S *pHandle)
{
    (void)UTIL_THREAD_Destory(&pHandle->stHotplugThread, 1); // both always 0
    (void)QN_STORAGE_HotplugNetlinkClose(pHandle->s32NetlinkFd);
    QN_LOG_INFO("exit");
    return 0;
}

static bool PresenceChanged(const tagQN_HANDLER_S *pHandle)
{
    return IsPresent(pHandle) != QN_PRESENCE_Seen(pHandle);
}

static int64_t NowMs()
{
    struct timespec stNow = {};
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<int64_t>(stNow.tv_sec) * 1000 + stNow.tv_nsec / 1000000;
}

static void Post(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent)
{
    QN_PRESENCE_PostBegins(pHandle, enEvent);
    QN_RING_Push(pHandle, enEvent, nullptr);
}

// Uevents that came after a socket broke, or that a full socket dropped, are made up for by a look at the device. The
// first socket needs one for a device of the kernel's alone, which may have come or gone since QN_STORAGE_Init looked:
// of a node that the host makes itself, no uevent would have told.
// Only a difference to what was seen last counts: mounting a mounted card once more would fail. The look waits a
// second, as an event does; a uevent of the device that comes meanwhile takes its place.
static void PlanLook(tagQN_HANDLER_S *pHandle)
{
    pHandle->pstPrivate->pPresence->s64LookAtMs = PresenceChanged(pHandle) ? NowMs() + SETTLE_SECONDS * 1000 : 0;
}

static void LookAgain(tagQN_HANDLER_S *pHandle)
{
    int64_t &s64LookAtMs = pHandle->pstPrivate->pPresence->s64LookAtMs;
    if (s64LookAtMs == 0 || NowMs() < s64LookAtMs)
    {
        return;
    }
    s64LookAtMs = 0;
    if (PresenceChanged(pHandle)) // an event may have told it meanwhile
    {
        Post(pHandle, IsPresent(pHandle) ? QN_EVENT_E_HOTPLUG_IN : QN_EVENT_E_HOTPLUG_OUT);
    }
}

// As select on one descriptor. The set has a bit for every descriptor up to this one: fd_set itself ends at 1023, and a
// host may have more open, for which memory is taken.
static int32_t WaitReadable(int32_t s32Fd)
{
    constexpr size_t FEW = 2 * sizeof(fd_set) / sizeof(fd_mask);
    fd_mask anFew[FEW] = {};
    const size_t word = static_cast<size_t>(s32Fd) / NFDBITS;
    const std::unique_ptr<fd_mask[]> spMany(word < FEW ? nullptr : new (std::nothrow) fd_mask[word + FEW]());
    fd_mask *pSet = word < FEW ? anFew : spMany.get();
    if (pSet == nullptr)
    {
        usleep(REOPEN_PAUSE_US); // the next pass looks
        return 0;
    }
    pSet[word] = static_cast<fd_mask>(1UL << (static_cast<size_t>(s32Fd) % NFDBITS));
    struct timeval stTimeout = {0, WAIT_US};
    const int32_t s32Ready = select(s32Fd + 1, reinterpret_cast<fd_set *>(pSet), nullptr, nullptr, &stTimeout);
    return s32Ready > 0 && pSet[word] == 0 ? 0 : s32Ready;
}

// The header "ACTION@DEVPATH" names this device when it ends in its name.
static bool NamesDevice(const char *pszHeader, const std::string &strDevName)
{
    const size_t length = strlen(pszHeader);
    return !strDevName.empty() && length >= strDevName.size() &&
           strDevName.compare(pszHeader + length - strDevName.size()) == 0;
}

static void PostLater(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent)
{
    pHandle->pstPrivate->pPresence->s64LookAtMs = 0;
    struct timespec stRest = {SETTLE_SECONDS, 0};
    while (nanosleep(&stRest, &stRest) != 0 && errno == EINTR)
    {
    }
    Post(pHandle, enEvent);
}

static void HandleHeader(tagQN_HANDLER_S *pHandle, const char *pszHeader)
{
    if (!NamesDevice(pszHeader, pHandle->strDevName))
    {
        return;
    }
    if (strncmp(pszHeader, "add@", strlen("add@")) == 0)
    {
        PostLater(pHandle, QN_EVENT_E_HOTPLUG_IN);
    }
    else if (strncmp(pszHeader, "remove@", strlen("remove@")) == 0)
    {
        PostLater(pHandle, QN_EVENT_E_HOTPLUG_OUT);
    }
}

// Receives one message; false when there is none, the socket is closed then if it is broken.
static bool Receive(tagQN_HANDLER_S *pHandle, char (&acBuffer)[UEVENT_BYTES + 1])
{
    struct sockaddr_nl stFrom = {};
    struct iovec stVector = {acBuffer, UEVENT_BYTES};
    struct msghdr stMessage = {};
    stMessage.msg_name = &stFrom;
    stMessage.msg_namelen = sizeof(stFrom);
    stMessage.msg_iov = &stVector;
    stMessage.msg_iovlen = 1;
    const ssize_t s64Bytes = recvmsg(pHandle->s32NetlinkFd, &stMessage, 0);
    if (s64Bytes < 0 && errno != EAGAIN && errno != EINTR)
    {
        QN_LOG_ERROR_AS("QN_STORAGE_HotplugThread", "hotplug netlink recvmsg failed: %s", strerror(errno));
        (void)QN_STORAGE_HotplugNetlinkClose(pHandle->s32NetlinkFd); // the next pass opens a new one
    }
    if (s64Bytes <= 0)
    {
        return false;
    }
    acBuffer[s64Bytes] = '\0'; // the header ends at the first NUL: the key=value lines behind it do not count
    return true;
}

void QN_STORAGE_HotplugThread(void *pArg)
{
    tagQN_HANDLER_S *pHandle = static_cast<tagQN_HANDLER_S *>(pArg);
    if (pHandle->s32NetlinkFd < 0)
    {
        pHandle->s32NetlinkFd = QN_STORAGE_HotplugNetlinkOpen();
        if (pHandle->s32NetlinkFd < 0)
        {
            usleep(REOPEN_PAUSE_US);
            return;
        }
        QN_TRACE("[%s:%d] netlink listen fd=%d\n", __func__, LISTEN_MESSAGE_LINE, pHandle->s32NetlinkFd);
        if (pHandle->pstPrivate->pPresence->bListened || pHandle->pstPrivate->pPresence->bKernelDevice ||
            IsKernelDevice(pHandle))
        {
            PlanLook(pHandle);
        }
    }
    pHandle->pstPrivate->pPresence->bListened = true;
    LookAgain(pHandle);
    const int32_t s32Ready = WaitReadable(pHandle->s32NetlinkFd);
    if (s32Ready < 0 && errno != EINTR)
    {
        QN_LOG_ERROR("hotplug netlink select failed: %s", strerror(errno));
        (void)QN_STORAGE_HotplugNetlinkClose(pHandle->s32NetlinkFd); // the next pass opens a new one
    }
    if (s32Ready <= 0)
    {
        return;
    }
    QN_TRACE("[%s:%d] recvmsg\n", __func__, __LINE__);
    char acHeader[UEVENT_BYTES + 1];
    if (Receive(pHandle, acHeader))
    {
        QN_TRACE("[%s:%d] %s\n", __func__, __LINE__, acHeader);
        HandleHeader(pHandle, acHeader);
    }
}

} // namespace libquarrin
