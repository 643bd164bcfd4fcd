// Uevents that came while a broken socket was replaced are made up for by a look at the device.

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "storage/failing_calls.h"
#include "storage/hotplug_rig.h"

using namespace libquarrin;

namespace
{

class HotplugReopen : public ::testing::Test
{
protected:
    HotplugReopen()
    {
        FAKE_PLATFORM_Reset();
    }

    /// Breaks the socket, so that the next pass opens a new one.
    static void Break(const HOTPLUG_RIG &rig)
    {
        rig.Pass(); // has listened
        QN_STORAGE_HotplugNetlinkClose(rig.pHandle->s32NetlinkFd);
    }

    /// Lets the event thread wait in a hot-unplug's umount, as it would in any command of a slow card.
    static void StallEvents(const HOTPLUG_RIG &rig)
    {
        FAKE_PLATFORM_Stall("umount " + rig.strMount + ";");
        QN_EVENT_PushEvent(rig.pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
        EXPECT_TRUE(FAKE_PLATFORM_WaitStalled());
    }

    /// Runs passes for longer than a look waits.
    static void PassPastALook(const HOTPLUG_RIG &rig)
    {
        const double dBegin = TEST_Seconds();
        while (TEST_Seconds() - dBegin < 1.5)
        {
            rig.Pass();
        }
    }

    /// Runs passes until the device has been looked at again; the seconds that it took.
    static double PassUntil(const HOTPLUG_RIG &rig, QN_STATE_E enState)
    {
        const double dBegin = TEST_Seconds();
        while (rig.pHandle->enState.load() != enState && TEST_Seconds() - dBegin < 20.0)
        {
            rig.Pass();
        }
        return TEST_Seconds() - dBegin;
    }

    TEMP_DIR m_dir;
    STDOUT_CAPTURE m_out;
};

} // namespace

TEST_F(HotplugReopen, CardThatCameOrWentMeanwhileIsNoticedASecondLater)
{
    const HOTPLUG_RIG came(m_dir.strPath, "came");
    TEST_Touch(m_dir.strPath + "/went");
    const HOTPLUG_RIG went(m_dir.strPath, "went");
    EXPECT_TRUE(TEST_WaitFor([&went] { return went.pHandle->enState.load() == QN_STATE_E_PLUGIN; }));
    Break(came);
    Break(went);
    TEST_Touch(came.strDevice);
    unlink(went.strDevice.c_str());
    std::thread other([&came] { EXPECT_GE(PassUntil(came, QN_STATE_E_PLUGIN), 0.9); });
    EXPECT_GE(PassUntil(went, QN_STATE_E_UNPLUGIN), 0.9);
    other.join();
    EXPECT_TRUE(came.WaitForIdle());
    EXPECT_TRUE(went.WaitForIdle());
    EXPECT_EQ(QN_STATE_E_PLUGIN, came.pHandle->enState.load()); // it has no partition
    EXPECT_EQ(0, came.Outs());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, went.pHandle->enState.load());
    EXPECT_EQ(1, went.Outs());
}

TEST_F(HotplugReopen, FirstSocketIsNoReasonToLook)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "first");
    // A monitor of its own, whose thread finds the device changed before it listens.
    tagQN_STORAGE_PARAM_S stParam;
    stParam.strDevice = m_dir.strPath + "/new";
    stParam.pszMountPoint = m_dir.strPath + "/mnt-new";
    tagQN_HANDLER_S *pHandle = nullptr;
    ASSERT_EQ(0u, QN_Init(&stParam, pHandle));
    TEST_Touch(stParam.strDevice);
    const double dBegin = TEST_Seconds();
    while (TEST_Seconds() - dBegin < 1.5)
    {
        rig.Pass(); // the time of a look and more
    }
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, pHandle->enState.load());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("partition not found!"));
    QN_Destroy(pHandle);
}

TEST_F(HotplugReopen, NothingIsPostedWhenNothingChanged)
{
    const HOTPLUG_RIG absent(m_dir.strPath, "absent");
    TEST_Touch(m_dir.strPath + "/present");
    const HOTPLUG_RIG present(m_dir.strPath, "present");
    EXPECT_TRUE(present.WaitForIdle());
    FAKE_PLATFORM_Reset();
    Break(absent);
    Break(present);
    std::thread other([&absent] { absent.Pass(); });
    present.Pass();
    other.join();
    EXPECT_TRUE(absent.WaitForIdle());
    EXPECT_TRUE(present.WaitForIdle());
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
}

TEST_F(HotplugReopen, PassIsNoLongerForTheLook)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "stopped");
    Break(rig);
    TEST_Touch(rig.strDevice);
    rig.Pass(); // a stop comes between two passes
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, rig.pHandle->enState.load());
}

TEST_F(HotplugReopen, UeventThatComesMeanwhileTakesThePlaceOfTheLook)
{
    HOTPLUG_RIG rig(m_dir.strPath, "both");
    rig.Pass(); // has listened: the look is planned
    TEST_Touch(rig.strDevice);
    TEST_Touch(rig.strDevice + "p1");
    int32_t s32Pair = rig.pHandle->s32NetlinkFd; // the rig's own end; the new socket gives way to it
    rig.pHandle->s32NetlinkFd = -1;
    rig.Pass();
    QN_STORAGE_HotplugNetlinkClose(rig.pHandle->s32NetlinkFd);
    rig.pHandle->s32NetlinkFd = s32Pair;
    rig.Send("add@/devices/both");
    EXPECT_GE(PassUntil(rig, QN_STATE_E_MOUNTED), 0.9);
    for (int32_t i = 0; i < 8; ++i) // longer than a look would wait
    {
        rig.Pass();
    }
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("; mount "));
}

TEST_F(HotplugReopen, CardWhoseEventIsStillQueuedIsNotToldOfTwice)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "busy");
    StallEvents(rig);
    TEST_Touch(rig.strDevice);
    TEST_Touch(rig.strDevice + "p1");
    rig.Send("add@/devices/busy");
    rig.Pass(); // queued behind the command
    Break(rig);
    PassPastALook(rig);
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_TRUE(TEST_WaitFor([&rig] { return rig.pHandle->enState.load() == QN_STATE_E_MOUNTED; }));
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("; mount ")); // a second one would fail, and end in QN_STATE_E_PLUGIN
}

TEST_F(HotplugReopen, PullThatIsStillQueuedIsNotToldOfTwice)
{
    TEST_Touch(m_dir.strPath + "/pulled");
    const HOTPLUG_RIG rig(m_dir.strPath, "pulled");
    EXPECT_TRUE(TEST_WaitFor([&rig] { return rig.pHandle->enState.load() == QN_STATE_E_PLUGIN; }));
    TEST_Touch(rig.strDevice + "p1");
    FAKE_PLATFORM_Stall("; mount ");
    QN_EVENT_PushEvent(rig.pHandle, QN_EVENT_E_HOTPLUG_IN, nullptr);
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    unlink(rig.strDevice.c_str());
    rig.Send("remove@/devices/pulled");
    rig.Pass();
    Break(rig);
    PassPastALook(rig);
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_TRUE(TEST_WaitFor([&rig] { return rig.Outs() > 0; }));
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_EQ(1, rig.Outs());
}

TEST_F(HotplugReopen, HandlerOfAnOlderEventDoesNotForgetTheNewerOne)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "older");
    std::atomic<int32_t> s32Allowed{0};
    std::atomic<int32_t> s32Unmounts{0};
    FAKE_PLATFORM_OnCommand(
        [&](const std::string &strCommand)
        {
            if (strCommand.rfind("umount ", 0) == 0)
            {
                const int32_t s32Own = ++s32Unmounts;
                (void)TEST_WaitFor([&, s32Own] { return s32Allowed >= s32Own; }, 60000);
            }
            return 0;
        });
    QN_EVENT_PushEvent(rig.pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
    EXPECT_TRUE(TEST_WaitFor([&] { return s32Unmounts == 1; }));
    TEST_Touch(rig.strDevice);
    TEST_Touch(rig.strDevice + "p1");
    QN_EVENT_PushEvent(rig.pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
    QN_EVENT_PushEvent(rig.pHandle, QN_EVENT_E_HOTPLUG_IN, nullptr);
    s32Allowed = 1;
    EXPECT_TRUE(TEST_WaitFor([&] { return s32Unmounts == 2; })); // the second one's handler runs, the third waits
    Break(rig);
    PassPastALook(rig);
    s32Allowed = 2;
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_TRUE(TEST_WaitFor([&rig] { return rig.pHandle->enState.load() == QN_STATE_E_MOUNTED; }));
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("; mount "));
    FAKE_PLATFORM_OnCommand(nullptr);
}

TEST_F(HotplugReopen, LookIsTakenOnce)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "once");
    Break(rig);
    TEST_Touch(rig.strDevice);
    PassUntil(rig, QN_STATE_E_PLUGIN); // it has no partition
    EXPECT_EQ(QN_STATE_E_PLUGIN, rig.pHandle->enState.load());
    EXPECT_TRUE(rig.WaitForIdle());
    unlink(rig.strDevice.c_str()); // the socket is whole: its uevent would tell
    rig.Pass();
    rig.Pass();
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_EQ(0, rig.Outs());
}

TEST_F(HotplugReopen, LookWhosePlaceAUeventTookIsNotTakenLater)
{
    HOTPLUG_RIG rig(m_dir.strPath, "instead");
    rig.Pass(); // has listened
    TEST_Touch(rig.strDevice);
    int32_t s32Pair = rig.pHandle->s32NetlinkFd; // the rig's own end; the new socket gives way to it
    rig.pHandle->s32NetlinkFd = -1;
    rig.Pass(); // plans the look
    QN_STORAGE_HotplugNetlinkClose(rig.pHandle->s32NetlinkFd);
    rig.pHandle->s32NetlinkFd = s32Pair;
    rig.Send("add@/devices/instead");
    rig.Pass(); // tells it, before the look is due
    EXPECT_TRUE(TEST_WaitFor([&rig] { return rig.pHandle->enState.load() == QN_STATE_E_PLUGIN; }));
    unlink(rig.strDevice.c_str());
    PassPastALook(rig);
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_EQ(0, rig.Outs());
}

TEST_F(HotplugReopen, CardThatIsBackBeforeItsPullWasHandledIsNoticed)
{
    TEST_Touch(m_dir.strPath + "/back");
    const HOTPLUG_RIG rig(m_dir.strPath, "back");
    EXPECT_TRUE(TEST_WaitFor([&rig] { return rig.pHandle->enState.load() == QN_STATE_E_PLUGIN; }));
    rig.Send("remove@/devices/back"); // the add is lost with the socket
    rig.Pass();
    EXPECT_TRUE(TEST_WaitFor([&rig] { return rig.pHandle->enState.load() == QN_STATE_E_UNPLUGIN; }));
    Break(rig);
    EXPECT_GE(PassUntil(rig, QN_STATE_E_PLUGIN), 0.9);
    EXPECT_EQ(QN_STATE_E_PLUGIN, rig.pHandle->enState.load());
}

TEST_F(HotplugReopen, PullThatAHostHandledItselfIsNotToldOfAgain)
{
    TEST_Touch(m_dir.strPath + "/handled");
    const HOTPLUG_RIG rig(m_dir.strPath, "handled");
    EXPECT_TRUE(TEST_WaitFor([&rig] { return rig.pHandle->enState.load() == QN_STATE_E_PLUGIN; }));
    EXPECT_TRUE(rig.WaitForIdle());
    unlink(rig.strDevice.c_str());
    EXPECT_EQ(0, QN_EVENT_HandleHotplugOut(rig.pHandle));
    Break(rig);
    PassPastALook(rig);
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_EQ(1, rig.Outs()); // of the host's own call
}

TEST_F(HotplugReopen, FirstSocketIsAReasonToLookAtADeviceOfTheKernels)
{
    const auto fnMakeNode = [](const std::string &strPath)
    {
        return mknod(strPath.c_str(), S_IFBLK | 0600, makedev(7, 4095)); // nobody opens it
    };
    if (fnMakeNode(m_dir.strPath + "/went") != 0)
    {
        ASSERT_EQ(EPERM, errno);
        GTEST_SKIP() << "making a node takes root's rights";
    }
    std::unique_ptr<HOTPLUG_RIG> spWent;
    std::unique_ptr<HOTPLUG_RIG> spCame;
    TEST_WithFailingCall(TEST_CALL_SOCKET, EMFILE,
                         [&]
                         {
                             spWent.reset(new HOTPLUG_RIG(m_dir.strPath, "went"));
                             spCame.reset(new HOTPLUG_RIG(m_dir.strPath, "came"));
                             EXPECT_EQ(-1, QN_STORAGE_HotplugNetlinkOpen());
                         });
    EXPECT_TRUE(TEST_WaitFor([&] { return spWent->pHandle->enState.load() == QN_STATE_E_PLUGIN; }));
    for (HOTPLUG_RIG *pRig : {spWent.get(), spCame.get()})
    {
        EXPECT_TRUE(pRig->WaitForIdle());
        QN_STORAGE_HotplugNetlinkClose(pRig->pHandle->s32NetlinkFd); // the rig's own: the next pass opens the first
    }
    unlink(spWent->strDevice.c_str());
    EXPECT_EQ(0, fnMakeNode(spCame->strDevice));
    std::thread other([&] { PassUntil(*spCame, QN_STATE_E_PLUGIN); }); // it has no partition
    EXPECT_GE(PassUntil(*spWent, QN_STATE_E_UNPLUGIN), 0.9);
    other.join();
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, spWent->pHandle->enState.load());
    EXPECT_EQ(QN_STATE_E_PLUGIN, spCame->pHandle->enState.load());
}
