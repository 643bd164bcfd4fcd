// Mounts and unmounts that overtake each other: a handler that mounts while the handle ends, and folders that a mount
// was to get after the card is gone again.

#include <filesystem>

#include "core/core_test.h"

using namespace libquarrin;

namespace
{

class LateMount : public CORE_TEST
{
protected:
    void TearDown() override
    {
        SYSTEM_CALLS_ReleaseSelect();
        CORE_TEST::TearDown();
    }

    /// A device that is not mounted: state PLUGIN, since its partition is missing; the partition comes afterwards.
    void InitPlugged()
    {
        std::filesystem::remove(m_strPartition);
        Init();
        ASSERT_TRUE(WaitForState(QN_STATE_E_PLUGIN));
        ASSERT_TRUE(Settle());
        TEST_Touch(m_strPartition);
    }

    /// The shell lines do to the mount directory what they would do to it on the device.
    void ObeyCommands()
    {
        const std::string strMount = m_strMount;
        FAKE_PLATFORM_OnCommand(
            [strMount](const std::string &strCommand)
            {
                std::error_code error;
                if (strCommand.rfind("umount ", 0) == 0)
                {
                    std::filesystem::remove_all(strMount, error);
                }
                else if (strCommand.rfind("mkdir -p ", 0) == 0)
                {
                    const size_t uBegin = std::string("mkdir -p ").size();
                    std::filesystem::create_directories(strCommand.substr(uBegin, strCommand.find(';') - uBegin),
                                                        error);
                }
                return 0;
            });
    }

    /// Destroys the handle; events are held up until its unmount step is behind it, and are handled before it goes on.
    void DestroyAround(const std::function<void()> &fnQueue)
    {
        ASSERT_NO_FATAL_FAILURE(StallDispatcher());
        fnQueue();
        const int32_t s32Selects = SYSTEM_CALLS_Selects();
        SYSTEM_CALLS_HoldSelect(); // the monitor is joined behind the unmount step
        ASSERT_TRUE(TEST_WaitFor([s32Selects] { return SYSTEM_CALLS_Selects() > s32Selects; }));
        tagQN_HANDLER_S *pHandle = m_pHandle;
        BACKGROUND destroy([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
        EXPECT_TRUE(TEST_WaitFor([pHandle] { return pHandle->stHotplugThread.s32Run.load() == 0; }));
        ReleaseDispatcher();
        EXPECT_TRUE(TEST_WaitFor(
            [pHandle]
            {
                pthread_mutex_lock(&pHandle->mutexEvent);
                const bool bEmpty = pHandle->u32EventCount == 0;
                pthread_mutex_unlock(&pHandle->mutexEvent);
                return bEmpty;
            }));
        SYSTEM_CALLS_ReleaseSelect();
        EXPECT_TRUE(destroy.WaitDone());
    }

    /// The last of the mount and unmount lines was an unmount, or there was none.
    bool EndsUnmounted() const
    {
        bool bMounted = false;
        for (const std::string &strCommand : FAKE_PLATFORM_Commands())
        {
            bMounted = strCommand == MountLine() || (bMounted && strCommand != UnmountLine());
        }
        return !bMounted;
    }
};

} // namespace

TEST_F(LateMount, OfAQueuedHotplugInIsTakenOffAtTheEndOfTheHandle)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    DestroyAround([this] { Push(QN_EVENT_E_HOTPLUG_IN); });
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(MountLine()));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(UnmountLine()));
    EXPECT_EQ(UnmountLine(), FAKE_PLATFORM_Commands().back());
}

TEST_F(LateMount, OfAQueuedFormatSuccessIsTakenOffAtTheEndOfTheHandle)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    SetState(QN_STATE_E_FORMATING);
    DestroyAround([this] { Push(QN_EVENT_E_FORMAT_SUCCESS); });
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(MountLine()));
    EXPECT_EQ(UnmountLine(), FAKE_PLATFORM_Commands().back());
}

TEST_F(LateMount, OfACardThatWasMountedAlreadyIsTakenOffOnceMore)
{
    InitMounted();
    DestroyAround([this] { Push(QN_EVENT_E_HOTPLUG_IN); });
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(MountLine()));
    EXPECT_EQ(2, FAKE_PLATFORM_CommandCount(UnmountLine()));
    EXPECT_EQ(UnmountLine(), FAKE_PLATFORM_Commands().back());
}

TEST_F(LateMount, ThatALaterHotplugInLosesSightOfIsTakenOffAtTheEndOfTheHandle)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    Push(QN_EVENT_E_HOTPLUG_IN);
    ASSERT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    std::filesystem::remove(m_strDevice); // pulled, and nobody has told yet
    Push(QN_EVENT_E_HOTPLUG_IN);
    ASSERT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount(UnmountLine()));
    EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(UnmountLine()));
}

TEST_F(LateMount, ThatCannotBeMadeTwiceIsTakenOffAtTheEndOfTheHandle)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    Push(QN_EVENT_E_HOTPLUG_IN);
    ASSERT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    FAKE_PLATFORM_Answer("; mount ", 32);
    Push(QN_EVENT_E_HOTPLUG_IN);
    ASSERT_TRUE(WaitForState(QN_STATE_E_PLUGIN));
    EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(UnmountLine()));
}

TEST_F(LateMount, ThatAHotplugOutTakesOffIsNotTakenOffTwice)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    DestroyAround(
        [this]
        {
            Push(QN_EVENT_E_HOTPLUG_IN);
            Push(QN_EVENT_E_HOTPLUG_OUT);
        });
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(MountLine()));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(UnmountLine()));
}

TEST_F(LateMount, ThatFailsNeedsNoUnmount)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    FAKE_PLATFORM_Answer("; mount ", 32);
    DestroyAround([this] { Push(QN_EVENT_E_HOTPLUG_IN); });
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(MountLine()));
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount(UnmountLine()));
}

TEST_F(LateMount, NeverOutlivesAHandleThatIsDestroyedAtOnce)
{
    ObeyCommands();
    for (int32_t i = 0; i < 20; ++i)
    {
        Init();
        if (i % 2 == 1)
        {
            (void)TEST_WaitFor([] { return FAKE_PLATFORM_Logged("QN_EVENT_E_HOTPLUG_IN"); }, 1);
        }
        EXPECT_EQ(0u, QN_Destroy(m_pHandle));
        EXPECT_TRUE(EndsUnmounted()) << i;
        EXPECT_FALSE(TEST_Exists(m_strMount)) << i;
    }
}

TEST_F(LateMount, LeavesNoFoldersBehindWhenTheHostUnmountsFirst)
{
    InitMounted();
    ObeyCommands();
    ASSERT_EQ(0u, QN_StorageUnMount(m_pHandle));
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    ASSERT_EQ(0u, QN_StorageMount(m_pHandle)); // its folders are queued
    ASSERT_TRUE(TEST_Exists(m_strMount));
    ASSERT_EQ(0u, QN_StorageUnMount(m_pHandle));
    ReleaseDispatcher();
    ASSERT_TRUE(Settle());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("QN_EVENT_E_MOUNT_DONE"));
    EXPECT_FALSE(TEST_Exists(m_strMount)); // the next start would take it for a mounted card
    // The next mount gets its folders.
    ASSERT_EQ(0u, QN_StorageMount(m_pHandle));
    ASSERT_TRUE(Settle());
    EXPECT_TRUE(TEST_Exists(Folder(2)));
}

TEST_F(LateMount, LeavesNoFoldersBehindWhenTheCardIsPulledFirst)
{
    InitMounted();
    ObeyCommands();
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    Push(QN_EVENT_E_HOTPLUG_OUT);
    Push(QN_EVENT_E_MOUNT_DONE);
    ReleaseDispatcher();
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State());
    EXPECT_FALSE(TEST_Exists(m_strMount));
}

TEST_F(LateMount, LeavesNoFoldersBehindWhenTheHandleEndsFirst)
{
    InitMounted();
    ObeyCommands();
    DestroyAround([this] { Push(QN_EVENT_E_MOUNT_DONE); });
    EXPECT_FALSE(TEST_Exists(m_strMount));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(UnmountLine()));
}

TEST_F(LateMount, GetsItsFoldersAlsoWhenAnUnmountCameBetweenTwoOfThem)
{
    InitMounted();
    ObeyCommands();
    ASSERT_EQ(0u, QN_StorageUnMount(m_pHandle));
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    ASSERT_EQ(0u, QN_StorageMount(m_pHandle));
    ASSERT_EQ(0u, QN_StorageUnMount(m_pHandle));
    ASSERT_EQ(0u, QN_StorageMount(m_pHandle));
    ReleaseDispatcher();
    ASSERT_TRUE(Settle());
    EXPECT_TRUE(TEST_Exists(Folder(0)));
    EXPECT_TRUE(TEST_Exists(Folder(2)));
}
