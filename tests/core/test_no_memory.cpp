// Memory that runs out in the handle's calls: they say so, and the handle is as it was.

#include "core/core_test.h"
#include "support/failing_new.h"

using namespace libquarrin;

using CoreNoMemory = CORE_TEST;

TEST_F(CoreNoMemory, ForAHandleMakesNone)
{
    int32_t s32Nth = 1;
    for (; THREAD_CREATION_Count() == 0; ++s32Nth)
    {
        uint32_t u32Result = 0;
        const bool bFailed = TEST_WithFailingNew(s32Nth, [&] { u32Result = QN_Init(&m_stParam, m_pHandle); });
        EXPECT_EQ(bFailed && m_pHandle == nullptr ? 6u : 0u, u32Result);
        EXPECT_EQ(THREAD_CREATION_Count() == 0, m_pHandle == nullptr);
    }
    EXPECT_LT(5, s32Nth);
}

TEST_F(CoreNoMemory, ForAFormatBeginsNone)
{
    InitUnplugged();
    SetState(QN_STATE_E_UNMOUNTED);
    int32_t s32Nth = 1;
    uint32_t u32Result = 6;
    bool bFailed = true;
    for (; u32Result == 6; ++s32Nth)
    {
        EXPECT_EQ(QN_STATE_E_UNMOUNTED, State());
        bFailed = TEST_WithFailingNew(s32Nth, [&] { u32Result = QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4); });
    }
    EXPECT_LT(2, s32Nth);
    EXPECT_EQ(0u, u32Result);
    if (bFailed) // memory for all but the thread: as without a thread, the state stays until the card is pulled
    {
        EXPECT_TRUE(FAKE_PLATFORM_Logged("Create thread failed"));
        EXPECT_EQ(QN_STATE_E_FORMATING, State());
        EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
    }
}

TEST_F(CoreNoMemory, ForTheNoteOfASplitOffFilePostsNothing)
{
    InitUnplugged();
    const auto spEvent = std::make_shared<tagQN_AUTO_SPLIT_EVENT_S>();
    const auto spPayload = std::static_pointer_cast<void>(spEvent);
    int32_t s32Result = 0;
    EXPECT_TRUE(TEST_WithFailingNew(
        1, [&] { s32Result = QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_RECORD_AUTO_SPLIT, spPayload); }));
    EXPECT_EQ(6, s32Result);
    ASSERT_TRUE(Settle());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_RECORD_AUTO_SPLIT"));
    EXPECT_EQ(0, spEvent->s32Finish);
}
