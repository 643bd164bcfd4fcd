// A machine that starts no event thread: nothing waits for it, and what it would have done is told or done elsewhere.

#include <cerrno>

#include "core/core_test.h"

using namespace libquarrin;

class NoEventThread : public CORE_TEST
{
protected:
    void InitMountedWithoutIt(int32_t s32Result = EAGAIN)
    {
        THREAD_CREATION_Fail(s32Result); // the first start is the event thread's
        InitMounted();
    }

    // A session whose file is as old as its split wants it.
    tagQN_RECORD_HANDLER_S *MakeOldSession()
    {
        tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a", true);
        Age(pSession, 4000);
        return pSession;
    }
};

TEST_F(NoEventThread, IsToldAsAnErrorAndClosesTheQueue)
{
    for (const int32_t s32Result : {EAGAIN, -1})
    {
        FAKE_PLATFORM_Reset();
        THREAD_CREATION_Fail(s32Result);
        InitUnplugged();
        bool bTold = false;
        for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
        {
            bTold = bTold || (stLog.s32Level == 3 && stLog.strPrefix.rfind("QN_EVENT_Init[", 0) == 0);
        }
        EXPECT_TRUE(bTold);
        EXPECT_TRUE(m_pHandle->bEventExit);
        for (int32_t i = 0; i < 10; ++i)
        {
            EXPECT_EQ(0, Push(QN_EVENT_E_HOTPLUG_IN)); // dropped
        }
        EXPECT_EQ(0u, Queued());
        EXPECT_EQ(QN_STATE_E_UNPLUGIN, State());
        EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    }
}

TEST_F(NoEventThread, HoldsUpNoCall)
{
    InitMountedWithoutIt();
    BACKGROUND host(
        [this]
        {
            tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a");
            for (int32_t i = 0; i < 20; ++i)
            {
                EXPECT_EQ(0u, WriteKeyFrame(pSession));
                EXPECT_EQ(0u, QN_RecordStorageUpdate(m_pHandle, QN_VOLUME_ID_E_0, 0));
            }
            EXPECT_EQ(0u, QN_RecordStop(pSession));
            EXPECT_EQ(0u, QN_RecordDestroy(pSession));
            EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
            EXPECT_EQ(0u, QN_StorageMount(m_pHandle));
        });
    EXPECT_TRUE(host.WaitDone());
    EXPECT_EQ(21, FAKE_BACKEND_Frames());
}

TEST_F(NoEventThread, FinishesASplitOffFileInTheFrameCall)
{
    InitMountedWithoutIt();
    tagQN_RECORD_HANDLER_S *pSession = MakeOldSession();
    for (int32_t i = 1; i < 4; ++i)
    {
        const std::string strOld = pSession->strFilePath;
        pthread_mutex_lock(&pSession->stMutex);
        pSession->strNameTag += "+"; // another name also in this second
        pthread_mutex_unlock(&pSession->stMutex);
        EXPECT_EQ(0u, WriteKeyFrame(pSession));
        EXPECT_EQ(i, FAKE_BACKEND_Closes());
        EXPECT_EQ(1, FAKE_BACKEND_OpenNow());
        EXPECT_NE(strOld, pSession->strFilePath);
        EXPECT_FALSE(TEST_Exists(strOld));
        Age(pSession, 4000);
    }
    EXPECT_EQ(3u, TEST_List(Folder(0)).size() - 1) << "three finished files and the running one";
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}

// The file that the frame call is finishing belongs to the session: a destroy waits for it.
TEST_F(NoEventThread, KeepsADestroyWaitingForTheFileThatIsBeingFinished)
{
    InitMountedWithoutIt();
    tagQN_RECORD_HANDLER_S *pSession = MakeOldSession();
    FAKE_BACKEND_HoldClose(pSession->pWriter);
    BACKGROUND writer([&, pSession] { EXPECT_EQ(0u, WriteKeyFrame(pSession)); });
    ASSERT_TRUE(FAKE_BACKEND_WaitHeld());
    {
        EXPECT_EQ(0, pthread_mutex_trylock(&pSession->stMutex)) << "other frames go on";
        pthread_mutex_unlock(&pSession->stMutex);
        tagQN_RECORD_HANDLER_S *pDestroyed = pSession;
        BACKGROUND destroy([&] { EXPECT_EQ(0u, QN_RecordDestroy(pDestroyed)); });
        EXPECT_TRUE(destroy.StaysBusy());
        FAKE_BACKEND_ReleaseClose();
    }
    EXPECT_TRUE(writer.WaitDone());
    EXPECT_EQ(FAKE_BACKEND_Opens(), FAKE_BACKEND_Closes());
}
