// The hotplug monitor as a handle runs it: its thread, its real socket, and the kernel's own events.

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "storage/failing_calls.h"
#include "storage/storage_support.h"
#include "storage/uevent.h"
#include "support/card.h"
#include "support/loop_device.h"

using namespace libquarrin;

namespace
{

class Hotplug : public CARD_TEST
{
protected:
    /// The card is not there at first.
    void SetUp() override
    {
        CARD_TEST::SetUp();
        unlink(m_strDevice.c_str());
        unlink(m_strPartition.c_str());
        m_strName = m_strDevice.substr(m_strDevice.rfind('/') + 1);
    }

    void PutIn()
    {
        TEST_Touch(m_strDevice);
        TEST_Touch(m_strPartition);
    }

    /// Waits until so many monitors have read a message: they listen, and their start is behind them.
    bool WaitListening(int32_t s32Monitors)
    {
        const std::string strProbe = "change@/devices/virtual/quarrin/" + m_strName + "-probe";
        return TEST_WaitFor([this, s32Monitors] { return m_out.Count("] netlink listen fd=") >= s32Monitors; }) &&
               TEST_SendUevent(strProbe) &&
               TEST_WaitFor([&] { return m_out.Count("] " + strProbe + "\n") >= s32Monitors; });
    }

    void Send(const std::string &strAction, const std::string &strEnd = "")
    {
        EXPECT_TRUE(TEST_SendUevent(strAction + "@/devices/virtual/block/" + m_strName + strEnd +
                                    std::string("\0DEVTYPE=disk\0", 14)));
    }

    int32_t Mounts() const
    {
        return FAKE_PLATFORM_CommandCount("mount " + m_strPartition + " " + m_strMount);
    }

    int32_t Unmounts() const
    {
        return FAKE_PLATFORM_CommandCount("umount " + m_strMount + "; rm -rf " + m_strMount);
    }

    STDOUT_CAPTURE m_out;
    std::string m_strName; // last component of the device
};

/// Visible names of the threads of this process.
bool HasThread(const std::string &strName)
{
    for (const std::string &strTid : TEST_List("/proc/self/task"))
    {
        std::string strComm;
        std::getline(std::ifstream("/proc/self/task/" + strTid + "/comm"), strComm);
        if (strComm == strName)
        {
            return true;
        }
    }
    return false;
}

} // namespace

TEST_F(Hotplug, ThreadCarriesTheNameOfTheDevice)
{
    m_stParam.strDevice = m_dir.strPath + "/a/mmcblk1";
    Init();
    EXPECT_TRUE(TEST_WaitFor([] { return HasThread("mmcblk1:hotplug"); }));
    EXPECT_EQ("mmcblk1", m_pHandle->strDevName);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_STORAGE_HotplugInit", "Thread mmcblk1:hotplug start"));
    EXPECT_TRUE(m_out.HasLine(R"(\[INFO\]\[QN_STORAGE_HotplugInit:\d+\] Thread mmcblk1:hotplug start)"));
    EXPECT_TRUE(
        TEST_WaitFor([this] { return m_out.HasLine(R"(\[QN_STORAGE_HotplugThread:92\] netlink listen fd=\d+)"); }));
    FAKE_PLATFORM_Reset();
    EXPECT_EQ(0, QN_STORAGE_HotplugDestroy(m_pHandle));
    EXPECT_TRUE(
        TEST_WaitFor([] { return !HasThread("mmcblk1:hotplug"); })); // joined; the kernel lists it a moment longer
    EXPECT_EQ(-1, m_pHandle->s32NetlinkFd);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_STORAGE_HotplugDestroy", "exit"));
    EXPECT_TRUE(m_out.HasLine(R"(\[INFO\]\[QN_STORAGE_HotplugDestroy:\d+\] exit)"));
}

TEST_F(Hotplug, MonitorCanBeStartedAgain)
{
    Init();
    EXPECT_EQ(0, QN_STORAGE_HotplugDestroy(m_pHandle));
    EXPECT_EQ(0, QN_STORAGE_HotplugInit(m_pHandle));
    EXPECT_TRUE(TEST_WaitFor([this] { return HasThread((m_strName + ":hotplug").substr(0, 15)); }));
}

TEST_F(Hotplug, DeviceWithoutASlashAndVeryLongOnesAreNoTrouble)
{
    for (const std::string &strDevice : {std::string("qncard"), "/dev/" + std::string(5000, 'x'), std::string("/dev/"),
                                         std::string("/"), "/dev/" + std::string(31, 'y')})
    {
        m_stParam.strDevice = strDevice;
        Init();
        EXPECT_EQ(strDevice.substr(strDevice.rfind('/') + 1), m_pHandle->strDevName);
        QN_Destroy(m_pHandle);
    }
}

TEST_F(Hotplug, MissingFacilityIsTriedEveryTenMillisecondsAndDoesNotHoldUpTheEnd)
{
    constexpr int32_t FAILURES = 6;
    const double dBegin = TEST_Seconds();
    int32_t s32Seen = 0;
    double dTaken = 0;
    TEST_WithFailingCall(TEST_CALL_SOCKET, EPROTONOSUPPORT,
                         [&]
                         {
                             Init();
                             const auto fnCount = [this]
                             {
                                 return m_out.Count("] hotplug netlink open failed: ");
                             };
                             EXPECT_TRUE(TEST_WaitFor([&] { return fnCount() >= FAILURES; }));
                             s32Seen = fnCount();
                             dTaken = TEST_Seconds() - dBegin;
                             EXPECT_EQ(0u, QN_Destroy(m_pHandle));
                         });
    EXPECT_GE(dTaken, (s32Seen - 1) * 0.010);
    EXPECT_EQ(nullptr, m_pHandle);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_STORAGE_HotplugNetlinkOpen",
                                            std::string("hotplug netlink open failed: ") + strerror(EPROTONOSUPPORT)));
    EXPECT_FALSE(m_out.Has("netlink listen"));
}

TEST_F(Hotplug, SocketIsOpenedOnceThereAreDescriptorsAgain)
{
    struct rlimit stBefore = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &stBefore));
    struct rlimit stNone = stBefore;
    stNone.rlim_cur = 0;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &stNone));
    Init();
    const bool bFailed = TEST_WaitFor([this] { return m_out.Count("] hotplug netlink open failed: ") >= 2; });
    setrlimit(RLIMIT_NOFILE, &stBefore);
    EXPECT_TRUE(bFailed);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_STORAGE_HotplugNetlinkOpen",
                                            std::string("hotplug netlink open failed: ") + strerror(EMFILE)));
    EXPECT_TRUE(TEST_WaitFor([this] { return m_out.Has("[QN_STORAGE_HotplugThread:92] netlink listen fd="); }));
}

TEST_F(Hotplug, CardIsMountedASecondAfterItCameAndUnmountedASecondAfterItWent)
{
    if (!TEST_MaySendUevents())
    {
        GTEST_SKIP() << "sending uevents needs root";
    }
    Init();
    ASSERT_TRUE(WaitListening(1));
    PutIn();
    for (const char *pszAction : {"change", "bind", "online"})
    {
        Send(pszAction);
    }
    Send("add", "p1");
    Send("add", "x");
    double dBegin = TEST_Seconds();
    Send("add");
    Send("add", "p2");
    ASSERT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    EXPECT_GE(TEST_Seconds() - dBegin, 1.0);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_EVENT_ProcessThread", "QN_EVENT_E_HOTPLUG_IN"));

    Send("remove", "p1");
    Send("unbind");
    dBegin = TEST_Seconds();
    Send("remove");
    ASSERT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_GE(TEST_Seconds() - dBegin, 1.0);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_EVENT_ProcessThread", "QN_EVENT_E_HOTPLUG_OUT"));
    // Messages come in order: whatever stood between the two had no effect.
    EXPECT_EQ(1, Mounts());
    EXPECT_EQ(1, Unmounts());
}

TEST_F(Hotplug, EndJoinsAMonitorThatIsInTheSecondOfAnEvent)
{
    if (!TEST_MaySendUevents())
    {
        GTEST_SKIP() << "sending uevents needs root";
    }
    Init();
    ASSERT_TRUE(WaitListening(1));
    Send("add");
    ASSERT_TRUE(TEST_WaitFor([this] { return m_out.Has("] add@/devices/virtual/block/" + m_strName + "\n"); }));
    EXPECT_EQ(0u, QN_Destroy(m_pHandle)); // the monitor is in its second
    EXPECT_EQ(nullptr, m_pHandle);
    EXPECT_EQ(0, Unmounts());
}

TEST_F(Hotplug, EndGetsPastAMonitorThatWaitsForRoom)
{
    if (!TEST_MaySendUevents())
    {
        GTEST_SKIP() << "sending uevents needs root";
    }
    Init();
    ASSERT_TRUE(WaitListening(1));
    FAKE_PLATFORM_Stall("mkdir -p");
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_MOUNT_DONE, nullptr);
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    for (uint32_t i = 0; i < QN_EVENT_SLOTS; ++i)
    {
        QN_EVENT_PushEvent(m_pHandle, static_cast<QN_EVENT_E>(5), nullptr);
    }
    Send("add");
    ASSERT_TRUE(TEST_WaitFor([this] { return m_out.Has("] add@/devices/virtual/block/" + m_strName + "\n"); }));
    std::atomic<bool> bEnded{false};
    std::thread host(
        [this, &bEnded]
        {
            EXPECT_EQ(0u, QN_Destroy(m_pHandle));
            bEnded = true;
        });
    EXPECT_FALSE(TEST_WaitFor([&bEnded] { return bEnded.load(); }, 1200)); // its second is over: it waits for room
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(TEST_WaitFor([&bEnded] { return bEnded.load(); }));
    host.join();
}

TEST_F(Hotplug, KernelsOwnEventsOfALoopDeviceDriveTheHandle)
{
    if (!LOOP_DEVICE::IsAvailable() || !TEST_MaySendUevents())
    {
        GTEST_SKIP() << "adding and removing loop devices needs root and a loop control device";
    }
    LOOP_DEVICE loop;
    m_strDevice = loop.strDevice;
    m_strPartition = loop.strDevice + "p1";
    m_stParam.strDevice = m_strDevice;
    Init();
    // A second handle that is after the partition alone: its events are not the device's.
    tagQN_STORAGE_PARAM_S stOther = m_stParam;
    stOther.strDevice = m_strPartition;
    stOther.pszMountPoint = m_strMount + "-other";
    tagQN_HANDLER_S *pOther = nullptr;
    ASSERT_EQ(0u, QN_Init(&stOther, pOther));
    EXPECT_TRUE(WaitListening(2));
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, m_pHandle->enState.load());

    EXPECT_TRUE(loop.Add());
    EXPECT_TRUE(loop.Attach(TEST_CardImage(m_dir.strPath + "/image"), true));
    EXPECT_TRUE(loop.AddFirstPartition());
    EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    EXPECT_TRUE(TEST_WaitFor([pOther] { return pOther->enState.load() == QN_STATE_E_PLUGIN; })); // it has no partition

    loop.Detach();
    EXPECT_TRUE(loop.Remove());
    EXPECT_FALSE(TEST_Exists(m_strDevice));
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_TRUE(TEST_WaitFor([pOther] { return pOther->enState.load() == QN_STATE_E_UNPLUGIN; }));
    EXPECT_EQ(1, Mounts());
    EXPECT_EQ(1, Unmounts());
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("umount " + stOther.pszMountPoint));
    QN_Destroy(pOther);
}
