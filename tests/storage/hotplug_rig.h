// A handle whose hotplug monitor is stepped by the test: its thread is stopped, and a pair of sockets stands in for the
// kernel's. So every message is under control, and no privilege is needed.
#ifndef QUARRIN_TESTS_HOTPLUG_RIG_H
#define QUARRIN_TESTS_HOTPLUG_RIG_H

#include <string>

#include <sys/socket.h>
#include <unistd.h>

#include "storage/storage_support.h"
#include "support/card.h"

/// One stepped monitor. The device and the mount directory do not exist: nothing is posted at the start, hotplug-in
/// ends in an error that names the device, and hotplug-out in an unmount line that names the mount directory.
class HOTPLUG_RIG
{
public:
    HOTPLUG_RIG(const std::string &strDir, const std::string &strName)
        : strDevice(strDir + "/" + strName), strMount(strDir + "/mnt-" + strName)
    {
        libquarrin::tagQN_STORAGE_PARAM_S stParam;
        stParam.strDevice = strDevice;
        stParam.s32PartitionNo = 1;
        stParam.pszMountPoint = strMount;
        EXPECT_EQ(0u, QN_Init(&stParam, pHandle));
        EXPECT_EQ(0, QN_STORAGE_HotplugDestroy(pHandle));
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, m_as32Pair));
        pHandle->s32NetlinkFd = m_as32Pair[0];
    }

    ~HOTPLUG_RIG()
    {
        QN_Destroy(pHandle);
        close(m_as32Pair[1]);
    }

    HOTPLUG_RIG(const HOTPLUG_RIG &) = delete;
    HOTPLUG_RIG &operator=(const HOTPLUG_RIG &) = delete;

    /// Hands the monitor one message.
    void Send(const std::string &strMessage) const
    {
        EXPECT_EQ(static_cast<ssize_t>(strMessage.size()),
                  send(m_as32Pair[1], strMessage.data(), strMessage.size(), 0));
    }

    /// One pass of the monitor; the seconds that it took.
    double Pass() const
    {
        const double dBegin = TEST_Seconds();
        QN_STORAGE_HotplugThread(pHandle);
        return TEST_Seconds() - dBegin;
    }

    /// Hotplug-in events that were handled.
    int32_t Ins() const
    {
        int32_t s32Count = 0;
        for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
        {
            const bool bMine =
                stLog.strText == "OOPs, trigger hotplug-in event but device " + strDevice + " not found!";
            s32Count += bMine ? 1 : 0;
        }
        return s32Count;
    }

    /// Hotplug-out events that were handled.
    int32_t Outs() const
    {
        return FAKE_PLATFORM_CommandCount("umount " + strMount + ";");
    }

    /// Every event so far has been handled.
    bool WaitForIdle() const
    {
        for (int32_t i = 0; i < 2; ++i)
        {
            QN_EVENT_PushEvent(pHandle, static_cast<libquarrin::QN_EVENT_E>(5), nullptr);
        }
        return TEST_WaitFor(
            [this]
            {
                pthread_mutex_lock(&pHandle->mutexEvent);
                const bool bEmpty = pHandle->u32EventCount == 0;
                pthread_mutex_unlock(&pHandle->mutexEvent);
                return bEmpty;
            });
    }

    const std::string strDevice;
    const std::string strMount;
    libquarrin::tagQN_HANDLER_S *pHandle = nullptr;

private:
    int m_as32Pair[2] = {-1, -1};
};

#endif
