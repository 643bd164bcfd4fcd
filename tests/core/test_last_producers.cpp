// The end of a handle whose ring is full: threads that wait for room in it get out before it goes.

#include "core/core_test.h"
#include "support/mutex_hold.h"

using namespace libquarrin;

using LastProducers = CORE_TEST;

TEST_F(LastProducers, AreWokenAndWaitedFor)
{
    for (int32_t i = 0; i < 5; ++i)
    {
        InitUnplugged();
        tagQN_HANDLER_S *pHandle = m_pHandle;
        QN_EVENT_Destroy(pHandle); // nobody takes events out
        pHandle->bEventExit = false;
        FillRing();
        const auto spPayload = std::make_shared<int>(1);
        const auto fnPush = [pHandle, spPayload]
        {
            EXPECT_EQ(0, QN_EVENT_PushEvent(pHandle, QN_EVENT_E_HOTPLUG_OUT, spPayload));
        };
        BACKGROUND first(fnPush);
        BACKGROUND second(fnPush);
        EXPECT_TRUE(second.StaysBusy());
        EXPECT_FALSE(first.IsDone());
        EXPECT_EQ(0u, QN_Destroy(m_pHandle));
        EXPECT_TRUE(first.WaitDone());
        EXPECT_TRUE(second.WaitDone());
    }
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_HOTPLUG_OUT"));
}

TEST_F(LastProducers, MayBeAFormatWorkerAndTheEventThreadHasEnded)
{
    ASSERT_NO_FATAL_FAILURE(InitWithoutEventThread());
    SetState(QN_STATE_E_PLUGIN);
    FillRing();
    FAKE_PLATFORM_Answer("fdisk", 1);
    EXPECT_EQ(0u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4));
    ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("make partition table failed: -1")); // its event finds no room
    EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    EXPECT_EQ(nullptr, m_pHandle);
}

TEST_F(LastProducers, TellTheEndOfTheHandleThatTheyAreOut)
{
    InitUnplugged();
    SetState(QN_STATE_E_PLUGIN);
    const pthread_mutex_t *pRing = &m_pHandle->mutexEvent;
    FAKE_PLATFORM_OnCommand(
        [pRing](const std::string & /*strCommand*/)
        {
            MUTEX_HOLD_BeforeLock(3, pRing); // the worker has come in and posted, and is about to go out
            return 1;
        });
    EXPECT_EQ(0u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4));
    ASSERT_TRUE(MUTEX_HOLD_WaitHeld());
    BACKGROUND destroy([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
    ASSERT_TRUE(TEST_WaitFor([] { return FAKE_PLATFORM_LoggedExactly(6, "QN_EVENT_Destroy", "exit"); }));
    EXPECT_TRUE(destroy.StaysBusy()); // the producer is all that it waits for
    MUTEX_HOLD_Release();
    EXPECT_TRUE(destroy.WaitDone());
}
