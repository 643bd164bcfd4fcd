// Formats of cards that are pulled meanwhile: what an old worker still does must not meet the next format.

#include <unistd.h>

#include "core/core_test.h"
#include "support/mutex_hold.h"

using namespace libquarrin;

namespace
{

class FormatPulled : public CORE_TEST
{
protected:
    /// The card without a partition: state PLUGIN.
    void InitPlugged()
    {
        unlink(m_strPartition.c_str());
        Init();
        ASSERT_TRUE(WaitForState(QN_STATE_E_PLUGIN));
        ASSERT_TRUE(Settle());
    }

    /// Begins a format, and waits until its worker is held up in its command.
    void BeginFormat()
    {
        const int32_t s32Nth = ++m_s32Formats;
        ASSERT_EQ(0u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4));
        ASSERT_TRUE(TEST_WaitFor([this, s32Nth] { return m_s32Held >= s32Nth; }));
    }

    /// The card goes, and another one comes.
    void Exchange()
    {
        Push(QN_EVENT_E_HOTPLUG_OUT);
        ASSERT_TRUE(Settle());
        ASSERT_EQ(QN_STATE_E_UNPLUGIN, State());
        Push(QN_EVENT_E_HOTPLUG_IN);
        ASSERT_TRUE(Settle());
        ASSERT_EQ(QN_STATE_E_PLUGIN, State());
    }

    /// Holds up every command that contains strPart: the n-th goes on once n of them may, with the result s32Result.
    void HoldCommands(const std::string &strPart, int32_t s32Result)
    {
        FAKE_PLATFORM_OnCommand(
            [this, strPart, s32Result](const std::string &strCommand)
            {
                if (strCommand.find(strPart) == std::string::npos)
                {
                    return 0;
                }
                const int32_t s32Nth = ++m_s32Held;
                (void)TEST_WaitFor([this, s32Nth] { return m_s32Allowed >= s32Nth; }, 60000);
                return s32Result;
            });
    }

    void SetUp() override
    {
        CORE_TEST::SetUp();
        m_s32Before = PROCESS_ThreadCount();
    }

    void TearDown() override
    {
        m_s32Allowed = 1000;
        EXPECT_TRUE(WorkersEnd());
        CORE_TEST::TearDown();
    }

    /// No worker is left: the two threads of the handle alone.
    bool WorkersEnd()
    {
        const int32_t s32Handle = m_pHandle == nullptr ? 0 : 2;
        return TEST_WaitFor([this, s32Handle] { return PROCESS_ThreadCount() <= m_s32Before + s32Handle; }, 30000);
    }

    int32_t m_s32Before = 0;
    std::atomic<int32_t> m_s32Held{0};
    std::atomic<int32_t> m_s32Allowed{0};
    int32_t m_s32Formats = 0;
};

} // namespace

TEST_F(FormatPulled, DoesNotEndTheNextFormatWhenItFails)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    HoldCommands("fdisk", 1);
    ASSERT_NO_FATAL_FAILURE(BeginFormat());
    ASSERT_NO_FATAL_FAILURE(Exchange());
    ASSERT_NO_FATAL_FAILURE(BeginFormat());
    m_s32Allowed = 1; // the old worker learns that its card is gone
    ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("make partition table failed"));
    ASSERT_TRUE(TEST_WaitFor([this] { return PROCESS_ThreadCount() <= m_s32Before + 3; }, 30000)); // it has ended
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_FORMATING, State());
    EXPECT_EQ(3u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4)); // not a third one on the same device
    m_s32Allowed = 2;
    EXPECT_TRUE(WaitForState(QN_STATE_E_PLUGIN)); // by its own worker
}

TEST_F(FormatPulled, DoesNotMountForTheNextFormatWhenItSucceeds)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    HoldCommands("mkfs", 0);
    TEST_Touch(m_strPartition);
    ASSERT_NO_FATAL_FAILURE(BeginFormat());
    unlink(m_strPartition.c_str());
    ASSERT_NO_FATAL_FAILURE(Exchange());
    TEST_Touch(m_strPartition);
    ASSERT_NO_FATAL_FAILURE(BeginFormat());
    m_s32Allowed = 1;
    ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("make partition fs success"));
    ASSERT_TRUE(TEST_WaitFor([this] { return PROCESS_ThreadCount() <= m_s32Before + 3; }, 30000));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_FORMATING, State());
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount(MountLine())); // the new file system is not there yet
    m_s32Allowed = 2;
    EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount(MountLine()));
}

TEST_F(FormatPulled, MakesNoFileSystemBesideTheNextFormat)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    HoldCommands("fdisk", 0);
    ASSERT_NO_FATAL_FAILURE(BeginFormat());
    ASSERT_NO_FATAL_FAILURE(Exchange());
    TEST_Touch(m_strPartition);
    ASSERT_NO_FATAL_FAILURE(BeginFormat());
    m_pHandle->s32PartitionNo = 7;
    m_s32Allowed = 1;
    ASSERT_TRUE(TEST_WaitFor([this] { return PROCESS_ThreadCount() <= m_s32Before + 3; }, 30000));
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("mkfs")); // the other worker is still writing the table
    EXPECT_EQ(7, m_pHandle->s32PartitionNo);
    m_s32Allowed = 2;
    EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("mkfs"));
    EXPECT_EQ(1, m_pHandle->s32PartitionNo);
}

TEST_F(FormatPulled, DoesNotEndTheNextFormatWithAnOutcomeThatIsQueuedAlready)
{
    for (const QN_EVENT_E enOutcome : {QN_EVENT_E_FORMAT_FAILED, QN_EVENT_E_FORMAT_SUCCESS})
    {
        m_s32Held = 0;
        m_s32Allowed = 0;
        m_s32Formats = 0;
        TEST_Touch(m_strPartition);
        FAKE_PLATFORM_Reset();
        ASSERT_NO_FATAL_FAILURE(InitPlugged());
        HoldCommands("fdisk", enOutcome == QN_EVENT_E_FORMAT_FAILED ? 1 : 0);
        ASSERT_NO_FATAL_FAILURE(BeginFormat());
        ASSERT_NO_FATAL_FAILURE(Exchange());
        TEST_Touch(m_strPartition);
        ASSERT_NO_FATAL_FAILURE(StallDispatcher());
        m_s32Allowed = 1;
        ASSERT_TRUE(TEST_WaitFor([this] { return Queued() == 1; }, 30000)); // behind the stall
        ASSERT_NO_FATAL_FAILURE(BeginFormat());
        ReleaseDispatcher();
        ASSERT_TRUE(Settle());
        EXPECT_TRUE(FAKE_PLATFORM_Logged("event but not in FORMATING!"));
        EXPECT_EQ(QN_STATE_E_FORMATING, State());
        EXPECT_EQ(3u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4));
        EXPECT_EQ(0, FAKE_PLATFORM_CommandCount(MountLine()));
        m_s32Allowed = 2;
        EXPECT_TRUE(WaitForState(enOutcome == QN_EVENT_E_FORMAT_FAILED ? QN_STATE_E_PLUGIN : QN_STATE_E_MOUNTED));
        ASSERT_TRUE(WorkersEnd());
        EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    }
}

TEST_F(FormatPulled, DoesNotEndTheNextFormatWhenItWaitsForRoom)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    HoldCommands("fdisk", 1);
    ASSERT_NO_FATAL_FAILURE(BeginFormat());
    ASSERT_NO_FATAL_FAILURE(Exchange());
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    FillRing();
    m_s32Allowed = 1;
    ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("make partition table failed"));
    EXPECT_FALSE(TEST_WaitFor([this] { return Queued() != QN_EVENT_SLOTS; }, 50)); // it waits
    {
        BACKGROUND format([this] { BeginFormat(); }); // nor does the call wait for the worker that waits
        EXPECT_TRUE(format.WaitDone(5000));
    }
    ReleaseDispatcher();
    ASSERT_TRUE(TEST_WaitFor([this] { return PROCESS_ThreadCount() <= m_s32Before + 3; }, 30000));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_FORMATING, State());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_FORMAT_FAILED"));
    m_s32Allowed = 2;
    EXPECT_TRUE(WaitForState(QN_STATE_E_PLUGIN));
}

TEST_F(FormatPulled, StillTellsItsEndWhileNoOtherFormatHasBegun)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    HoldCommands("fdisk", 1);
    ASSERT_NO_FATAL_FAILURE(BeginFormat());
    ASSERT_NO_FATAL_FAILURE(Exchange());
    m_s32Allowed = 1;
    EXPECT_TRUE(FAKE_PLATFORM_WaitLogged("OOPs, trigger format-failed event but not in FORMATING!"));
    EXPECT_EQ(QN_STATE_E_PLUGIN, State());
}

TEST_F(FormatPulled, WaitsForRoomWithoutAskingForItAgainAndAgain)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    HoldCommands("fdisk", 1);
    ASSERT_NO_FATAL_FAILURE(BeginFormat());
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    FillRing();
    m_s32Allowed = 1;
    ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("make partition table failed"));
    MUTEX_HOLD_Watch(&m_pHandle->mutexEvent);
    EXPECT_FALSE(TEST_WaitFor([] { return MUTEX_HOLD_Watched() > 10; }, 100)); // the begin of the post takes three
    ReleaseDispatcher();
    EXPECT_TRUE(WaitForState(QN_STATE_E_PLUGIN));
}

TEST_F(FormatPulled, WaitsForRoomWithoutHoldingUpTheEndOfTheHandle)
{
    ASSERT_NO_FATAL_FAILURE(InitPlugged());
    HoldCommands("fdisk", 1);
    ASSERT_NO_FATAL_FAILURE(BeginFormat());
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    FillRing();
    m_s32Allowed = 1;
    ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("make partition table failed"));
    BACKGROUND destroy([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
    EXPECT_TRUE(destroy.StaysBusy()); // for the handler
    ReleaseDispatcher();
    EXPECT_TRUE(destroy.WaitDone());
}
