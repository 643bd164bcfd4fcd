// Uevents: the monitor is stepped on a pair of sockets that stands in for the kernel's, with any messages, and posts
// exactly the events of the messages that name its device.

#include "fuzz.h"

#include <cerrno>

#include <sys/socket.h>
#include <time.h>

using namespace libquarrin;

static uint32_t s_u32Rests = 0;

// Stands before the C library's: the second that the monitor rests before it posts passes at once.
extern "C" int nanosleep(const struct timespec *pstWanted, struct timespec *pstLeft)
{
    FUZZ_Check(pstWanted->tv_sec == 1 && pstWanted->tv_nsec == 0, "the monitor rests for a second");
    if (++s_u32Rests % 3 == 0) // a signal now and then
    {
        *pstLeft = *pstWanted;
        errno = EINTR;
        return -1;
    }
    return 0;
}

namespace
{

struct RIG_S
{
    tagQN_HANDLER_S *pHandle;
    int32_t s32Send;
};

RIG_S MakeRig()
{
    int as32Pair[2] = {-1, -1};
    FUZZ_Check(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, as32Pair) == 0, "sockets can be made");
    RIG_S stRig = {FUZZ_Handle(), as32Pair[1]};
    stRig.pHandle->s32NetlinkFd = as32Pair[0];
    return stRig;
}

// The event that a message stands for; negative when there is none.
int32_t EventOf(const std::string &strMessage, const std::string &strDevice)
{
    const std::string strHeader = strMessage.substr(0, 2048).c_str(); // cut, then up to the first zero
    const size_t last = strHeader.rfind(strDevice);
    if (last == std::string::npos || last + strDevice.size() != strHeader.size())
    {
        return -1;
    }
    if (strHeader.compare(0, 4, "add@") == 0)
    {
        return QN_EVENT_E_HOTPLUG_IN;
    }
    return strHeader.compare(0, 7, "remove@") == 0 ? QN_EVENT_E_HOTPLUG_OUT : -1;
}

void CheckMessage(const RIG_S &stRig, const std::string &strMessage)
{
    tagQN_HANDLER_S *pHandle = stRig.pHandle;
    const uint32_t u32Rests = s_u32Rests;
    const int32_t s32Fd = pHandle->s32NetlinkFd;
    FUZZ_ClearRing(pHandle);
    FUZZ_Check(send(stRig.s32Send, strMessage.data(), strMessage.size(), 0) == static_cast<ssize_t>(strMessage.size()),
               "a message can be sent");
    QN_STORAGE_HotplugThread(pHandle);
    const int32_t s32Event = EventOf(strMessage, pHandle->strDevName);
    FUZZ_Check(pHandle->u32EventCount == (s32Event < 0 ? 0u : 1u), "an event is posted for a message of the device");
    FUZZ_Check(s32Event < 0 || pHandle->astEventQueue[0].enEvent == s32Event, "it is that of the message");
    FUZZ_Check(pHandle->astEventQueue[0].spPayload == nullptr, "it has no payload");
    FUZZ_Check((s_u32Rests > u32Rests) == (s32Event >= 0), "the monitor rests before an event, and only then");
    FUZZ_Check(pHandle->s32NetlinkFd == s32Fd, "the socket stays open");
}

} // namespace

// The device name, then messages of a length each.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t size)
{
    static const RIG_S stRig = MakeRig();
    FUZZ_INPUT input(pu8Data, size);
    const std::string strDevice = input.Text();
    stRig.pHandle->strDevName = strDevice.empty() ? "mmcblk1" : strDevice;
    for (int32_t i = 0; i < 8 && !input.IsEmpty(); ++i)
    {
        std::string strMessage;
        const uint32_t u32Kind = input.U8();
        for (uint32_t u32Left = input.U8(); u32Left > 0 && !input.IsEmpty(); --u32Left)
        {
            strMessage += static_cast<char>(input.U8());
        }
        if (u32Kind & 1)
        {
            strMessage += stRig.pHandle->strDevName;
        }
        if (u32Kind & 2)
        {
            strMessage.insert(strMessage.size() / 2, std::string(1700 + u32Kind * 2, '/')); // around the cut
        }
        CheckMessage(stRig, strMessage);
    }
    return 0;
}
