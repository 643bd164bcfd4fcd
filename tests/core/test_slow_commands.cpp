// Commands of ours that take their time below the mount point: a card that is slow is waited for, one that is gone is
// not.

#include <chrono>

#include <unistd.h>

#include "core/core_test.h"

using namespace libquarrin;

namespace
{

class SlowCommands : public CORE_TEST
{
protected:
    /// The card is mounted, and the event thread is held up in making the first volume's folder.
    void InitWithSlowFolder()
    {
        InitMounted();
        ASSERT_TRUE(Settle());
        FAKE_PLATFORM_Stall("mkdir -p " + Folder(0));
        Push(QN_EVENT_E_MOUNT_DONE);
        ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    }

    static double Seconds()
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    }

    /// fnUnmount waits beyond the two seconds of a pulled card, and gets its line out two seconds after fnPull.
    void ExpectTwoSecondsFrom(const std::function<void()> &fnUnmount, const std::function<void()> &fnPull)
    {
        BACKGROUND unmount(fnUnmount);
        EXPECT_FALSE(unmount.IsDone(2500));
        EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("umount"));
        const double dBegin = Seconds();
        fnPull();
        EXPECT_TRUE(TEST_WaitFor([] { return FAKE_PLATFORM_CommandCount("umount") > 0; }, 30000));
        EXPECT_GE(Seconds() - dBegin, 1.9);
        EXPECT_LT(Seconds() - dBegin, 2.0 * TEST_SLOW + 3.0);
        FAKE_PLATFORM_Release(); // the event thread goes on
        EXPECT_TRUE(unmount.WaitDone());
    }
};

} // namespace

TEST_F(SlowCommands, AreWaitedForByAHostsUnmountAsLongAsTheyRun)
{
    ASSERT_NO_FATAL_FAILURE(InitWithSlowFolder());
    BACKGROUND unmount([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); });
    EXPECT_FALSE(unmount.IsDone(2500)); // the line would delete the recordings of a card that is only slow
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("umount"));
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(unmount.WaitDone());
    EXPECT_EQ(UnmountLine(), FAKE_PLATFORM_Commands().back());
    EXPECT_EQ(QN_STATE_E_UNMOUNTED, State());
}

TEST_F(SlowCommands, AreWaitedForByTheEndOfTheHandleAsLongAsTheyRun)
{
    ASSERT_NO_FATAL_FAILURE(InitWithSlowFolder());
    BACKGROUND destroy([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
    EXPECT_FALSE(destroy.IsDone(2500));
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("umount"));
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(destroy.WaitDone());
    EXPECT_EQ(UnmountLine(), FAKE_PLATFORM_Commands().back());
}

TEST_F(SlowCommands, GetTwoSecondsMoreFromAHostsUnmountOnceThePullIsSeen)
{
    ASSERT_NO_FATAL_FAILURE(InitWithSlowFolder());
    ExpectTwoSecondsFrom([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); },
                         [this] { Push(QN_EVENT_E_HOTPLUG_OUT); }); // queued behind the command, as the monitor does
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
}

TEST_F(SlowCommands, GetTwoSecondsMoreAlsoWhenThePullFindsTheRingFull)
{
    ASSERT_NO_FATAL_FAILURE(InitWithSlowFolder());
    FillRing();
    std::thread monitor;
    ExpectTwoSecondsFrom([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); },
                         [&] { monitor = std::thread([this] { Push(QN_EVENT_E_HOTPLUG_OUT); }); });
    monitor.join();
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
}

TEST_F(SlowCommands, GetTwoSecondsMoreFromTheEndOfTheHandleOnceTheNodeIsGone)
{
    ASSERT_NO_FATAL_FAILURE(InitWithSlowFolder());
    ExpectTwoSecondsFrom([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); }, [this] { unlink(m_strDevice.c_str()); });
}

TEST_F(SlowCommands, MakeNoFurtherFoldersWhenTheyWereGivenUp)
{
    ASSERT_NO_FATAL_FAILURE(InitWithSlowFolder());
    ExpectTwoSecondsFrom([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); },
                         [this] { Push(QN_EVENT_E_HOTPLUG_OUT); });
    ASSERT_TRUE(Settle());
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("mkdir -p " + Folder(1))); // of the mount before alone
}

TEST_F(SlowCommands, GetTwoSecondsFromAHotUnplug)
{
    InitMounted();
    ASSERT_TRUE(Settle());
    FAKE_PLATFORM_Stall("mv ");
    BACKGROUND clear([this] { QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "2024-01-01-00-00-00.ts"); });
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    const double dBegin = Seconds();
    Push(QN_EVENT_E_HOTPLUG_OUT);
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN, 30000));
    EXPECT_GE(Seconds() - dBegin, 1.9);
    EXPECT_FALSE(clear.IsDone());
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(clear.WaitDone());
}

TEST_F(SlowCommands, GetTheirTwoSecondsByAClockThatNobodySets)
{
    InitMounted();
    ASSERT_TRUE(Settle());
    FAKE_PLATFORM_Stall("mv ");
    BACKGROUND clear([this] { QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "2024-01-01-00-00-00.ts"); });
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    SYSTEM_CALLS_SetClockAhead(3600); // the wall clock, when the wait begins; it is right again afterwards
    Push(QN_EVENT_E_HOTPLUG_OUT);
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_PLATFORM_CommandCount("umount") > 0; }, 20000));
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(clear.WaitDone());
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
}
