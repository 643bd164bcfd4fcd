// A full event ring: producers wait, handlers do not, and nobody waits with a lock that a handler wants.

#include <sys/stat.h>
#include <unistd.h>

#include "core/core_test.h"

using namespace libquarrin;

using RingRoom = CORE_TEST;

namespace
{

// The names of the events that were dispatched, in order.
std::vector<std::string> Dispatched()
{
    std::vector<std::string> vecNames;
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        if (stLog.strPrefix.rfind("QN_EVENT_ProcessThread[", 0) == 0)
        {
            vecNames.push_back(stLog.strText);
        }
    }
    return vecNames;
}

} // namespace

TEST_F(RingRoom, IsForFourEventsAndTheFifthWaitsUntilOneWasTakenOut)
{
    ASSERT_NO_FATAL_FAILURE(InitWithoutEventThread());
    for (uint32_t i = 0; i < 4; ++i)
    {
        EXPECT_EQ(0, Push(QN_EVENT_E_FORMAT_FAILED)); // returns at once
        EXPECT_EQ(i + 1, Queued());
    }
    BACKGROUND fifth([this] { EXPECT_EQ(0, Push(QN_EVENT_E_FORMAT_SUCCESS)); });
    EXPECT_TRUE(fifth.StaysBusy());
    EXPECT_EQ(4u, Queued());
    QN_EVENT_ProcessThread(m_pHandle);
    EXPECT_TRUE(fifth.WaitDone());
    EXPECT_EQ(4u, Queued());
    for (int32_t i = 0; i < 4; ++i)
    {
        QN_EVENT_ProcessThread(m_pHandle);
    }
    const std::vector<std::string> vecExpected = {"QN_EVENT_E_FORMAT_FAILED", "QN_EVENT_E_FORMAT_FAILED",
                                                  "QN_EVENT_E_FORMAT_FAILED", "QN_EVENT_E_FORMAT_FAILED",
                                                  "QN_EVENT_E_FORMAT_SUCCESS"};
    EXPECT_EQ(vecExpected, Dispatched()); // equal events stay as many
}

TEST_F(RingRoom, IsMadeByTheEventThreadAsSoonAsItTakesAnEvent)
{
    InitUnplugged();
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    FillRing();
    BACKGROUND fifth([this] { Push(5); });
    BACKGROUND sixth([this] { Push(5); });
    EXPECT_TRUE(fifth.StaysBusy());
    EXPECT_TRUE(sixth.StaysBusy());
    ReleaseDispatcher();
    EXPECT_TRUE(fifth.WaitDone());
    EXPECT_TRUE(sixth.WaitDone());
}

TEST_F(RingRoom, IsNotWaitedForByAHandler)
{
    for (const int32_t s32Event : {QN_EVENT_E_HOTPLUG_IN, QN_EVENT_E_FORMAT_SUCCESS})
    {
        FAKE_PLATFORM_Reset();
        InitUnplugged();
        TEST_Touch(m_strDevice);
        TEST_Touch(m_strPartition);
        SetState(QN_STATE_E_FORMATING);
        FAKE_PLATFORM_Stall("; mount ");
        Push(s32Event);
        ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
        for (int32_t i = 0; i < 4; ++i)
        {
            Push(QN_EVENT_E_FORMAT_FAILED);
        }
        {
            BACKGROUND producer([this] { Push(QN_EVENT_E_QUOTA_UPDATE, std::make_shared<QN_VOLUME_ID_E>()); });
            EXPECT_TRUE(producer.StaysBusy());
            FAKE_PLATFORM_Release(); // the handler posts MOUNT_DONE into a full ring
        }
        ASSERT_TRUE(Settle());
        EXPECT_EQ(QN_STATE_E_MOUNTED, State());
        std::vector<std::string> vecNames = Dispatched();
        vecNames.erase(vecNames.begin());
        const std::vector<std::string> vecExpected = {"QN_EVENT_E_FORMAT_FAILED", "QN_EVENT_E_FORMAT_FAILED",
                                                      "QN_EVENT_E_FORMAT_FAILED", "QN_EVENT_E_FORMAT_FAILED",
                                                      "QN_EVENT_E_MOUNT_DONE", // before the producer that waited
                                                      "QN_EVENT_E_QUOTA_UPDATE"};
        EXPECT_EQ(vecExpected, vecNames);
        QN_Destroy(m_pHandle);
    }
}

TEST_F(RingRoom, IsNotWaitedForByAHandlerHoweverManyItPosts)
{
    InitUnplugged();
    SetState(QN_STATE_E_FORMATING);
    TEST_Touch(m_strDevice);
    TEST_Touch(m_strPartition);
    FAKE_PLATFORM_OnCommand(
        [this](const std::string &strCommand)
        {
            if (strCommand == MountLine()) // the event thread runs it, in a handler
            {
                FillRing();
                for (int32_t i = 0; i < 4; ++i)
                {
                    Push(QN_EVENT_E_FORMAT_FAILED);
                }
            }
            return 0;
        });
    Push(QN_EVENT_E_HOTPLUG_IN);
    ASSERT_TRUE(Settle());
    FAKE_PLATFORM_OnCommand(nullptr);
    std::vector<std::string> vecExpected(4, "QN_EVENT_E_FORMAT_FAILED");
    vecExpected.insert(vecExpected.begin(), "QN_EVENT_E_HOTPLUG_IN");
    vecExpected.push_back("QN_EVENT_E_MOUNT_DONE");
    EXPECT_EQ(vecExpected, Dispatched());
}

TEST_F(RingRoom, IsWaitedForByAThreadWhoseHandlerHasReturned)
{
    InitUnplugged();
    EXPECT_EQ(0, UTIL_THREAD_Destory(&m_pHandle->stEventThread, 1)); // the steps are taken by other threads now
    BACKGROUND fifth(
        [this]
        {
            Push(5);
            QN_EVENT_ProcessThread(m_pHandle);
            FillRing();
            Push(5);
        });
    EXPECT_TRUE(TEST_WaitFor([this] { return Queued() == QN_EVENT_SLOTS; }));
    EXPECT_TRUE(fifth.StaysBusy());
    QN_EVENT_ProcessThread(m_pHandle);
    EXPECT_TRUE(fifth.WaitDone());
    EXPECT_EQ(QN_EVENT_SLOTS, Queued());
}

TEST_F(RingRoom, IsGivenUpByProducersWhenTheQueueIsShutDown)
{
    InitUnplugged();
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    FillRing();
    const auto spPayload = std::make_shared<int>(1);
    BACKGROUND first([&] { EXPECT_EQ(0, Push(QN_EVENT_E_HOTPLUG_OUT, spPayload)); });
    BACKGROUND second([&] { EXPECT_EQ(0, Push(QN_EVENT_E_HOTPLUG_OUT, spPayload)); });
    BACKGROUND third([&] { EXPECT_EQ(0, Push(QN_EVENT_E_HOTPLUG_OUT, spPayload)); });
    EXPECT_TRUE(third.StaysBusy());
    BACKGROUND shutDown([this] { QN_EVENT_Destroy(m_pHandle); });
    EXPECT_TRUE(first.WaitDone()); // while the handler still runs
    EXPECT_TRUE(second.WaitDone());
    EXPECT_TRUE(third.WaitDone());
    EXPECT_FALSE(shutDown.IsDone());
    EXPECT_EQ(1, spPayload.use_count()); // nothing was queued
    ReleaseDispatcher();
    EXPECT_TRUE(shutDown.WaitDone());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_HOTPLUG_OUT"));
}

TEST_F(RingRoom, IsGivenUpAlsoByProducersThatAreJustFallingAsleep)
{
    InitUnplugged();
    for (int32_t i = 0; i < 100; ++i)
    {
        const auto fnProduce = [this]
        {
            while (!m_pHandle->bEventExit)
            {
                Push(5);
            }
        };
        std::thread first(fnProduce);
        std::thread second(fnProduce);
        std::thread third(fnProduce);
        ASSERT_TRUE(TEST_WaitFor([this] { return Queued() > 0; }));
        QN_EVENT_Destroy(m_pHandle);
        first.join();
        second.join();
        third.join();
        QN_EVENT_Init(m_pHandle);
    }
}

TEST_F(RingRoom, IsWaitedForByAMountWithoutTheStateMutex)
{
    InitMounted();
    ASSERT_EQ(0u, QN_StorageUnMount(m_pHandle));
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    Push(QN_EVENT_E_HOTPLUG_OUT); // its handler wants the state mutex
    FillRing();
    BACKGROUND mount([this] { EXPECT_EQ(0u, QN_StorageMount(m_pHandle)); });
    EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    EXPECT_TRUE(mount.StaysBusy());
    QN_STATE_E enState = QN_STATE_E_UNPLUGIN;
    EXPECT_EQ(0u, QN_GetState(m_pHandle, &enState)); // nobody holds it
    EXPECT_EQ(QN_STATE_E_MOUNTED, enState);
    ReleaseDispatcher();
    EXPECT_TRUE(mount.WaitDone());
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_UNPLUGIN, State());
    EXPECT_EQ("QN_EVENT_E_MOUNT_DONE", Dispatched().back()); // behind the hot-unplug, nothing is dropped
}

TEST_F(RingRoom, IsWaitedForByAFrameWithoutTheSessionMutex)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a");
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    Push(QN_EVENT_E_HOTPLUG_OUT); // its handler wants the session mutex
    FillRing();
    const int32_t s32Frames = FAKE_BACKEND_Frames();
    BACKGROUND writer([&] { EXPECT_EQ(0u, WriteKeyFrame(pSession)); });
    EXPECT_TRUE(writer.StaysBusy()); // back-pressure stays
    EXPECT_EQ(s32Frames + 1, FAKE_BACKEND_Frames());
    EXPECT_EQ(0, pthread_mutex_trylock(&pSession->stMutex));
    pthread_mutex_unlock(&pSession->stMutex);
    EXPECT_LE(0, QN_REcordGetWriteBytes(pSession)); // nor does it hold what this needs
    ReleaseDispatcher();
    EXPECT_TRUE(writer.WaitDone());
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, pSession->enRecordState.load());
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}

TEST_F(RingRoom, IsWaitedForByASplitWhichThenLooksAtTheSessionAnew)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a", true);
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    FillRing();
    Age(pSession, 4000);
    const int32_t s32Frames = FAKE_BACKEND_Frames();
    BACKGROUND writer([&] { EXPECT_EQ(0u, WriteKeyFrame(pSession)); });
    EXPECT_TRUE(writer.StaysBusy());
    EXPECT_EQ(2, FAKE_BACKEND_Opens()); // the stall's and the first: nothing was split yet
    BACKGROUND stop([&] { EXPECT_EQ(0u, QN_RecordStop(pSession)); });
    EXPECT_TRUE(stop.WaitDone()); // not held up by the frame
    EXPECT_EQ(1, FAKE_BACKEND_Closes());
    ReleaseDispatcher();
    EXPECT_TRUE(writer.WaitDone());
    ASSERT_TRUE(Settle());
    EXPECT_EQ(s32Frames, FAKE_BACKEND_Frames()); // the session was stopped meanwhile
    EXPECT_EQ(2, FAKE_BACKEND_Opens());
    EXPECT_EQ(2, FAKE_BACKEND_Closes()); // one closer for each
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_RECORD_AUTO_SPLIT_"));
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}

TEST_F(RingRoom, IsWaitedForByADestroyWithoutTheSessionMutex)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a");
    pthread_mutex_t *pMutex = &pSession->stMutex;
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    Push(QN_EVENT_E_HOTPLUG_OUT);
    FillRing();
    BACKGROUND destroy([&] { EXPECT_EQ(0u, QN_RecordDestroy(pSession)); });
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_BACKEND_Closes() == 1; })); // stopped and finished first
    EXPECT_TRUE(destroy.StaysBusy());
    EXPECT_EQ(0, pthread_mutex_trylock(pMutex));
    pthread_mutex_unlock(pMutex);
    ReleaseDispatcher();
    EXPECT_TRUE(destroy.WaitDone());
    EXPECT_EQ(nullptr, pSession);
    ASSERT_TRUE(Settle());
    EXPECT_TRUE(m_pHandle->lstRecord.empty());
    EXPECT_EQ(2, FAKE_BACKEND_Closes());
}

TEST_F(RingRoom, IsWaitedForByADestroyUntilTheFramesThatWaitAreGone)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a", true);
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    FillRing();
    Age(pSession, 4000);
    tagQN_RECORD_HANDLER_S *pWritten = pSession;
    BACKGROUND writer([&, pWritten] { EXPECT_EQ(0u, WriteKeyFrame(pWritten)); }); // waits in the split
    EXPECT_TRUE(writer.StaysBusy());
    BACKGROUND destroy([&] { EXPECT_EQ(0u, QN_RecordDestroy(pSession)); });
    EXPECT_TRUE(destroy.StaysBusy());
    ReleaseDispatcher();
    EXPECT_TRUE(writer.WaitDone());
    EXPECT_TRUE(destroy.WaitDone());
}

TEST_F(RingRoom, IsWaitedForByAStorageUpdate)
{
    InitMounted();
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    FillRing();
    BACKGROUND update([this] { EXPECT_EQ(0u, QN_RecordStorageUpdate(m_pHandle, QN_VOLUME_ID_E_1, 0)); });
    EXPECT_TRUE(update.StaysBusy());
    EXPECT_FALSE(m_pHandle->astVolume[2].bAutoDelete == false);
    ReleaseDispatcher();
    EXPECT_TRUE(update.WaitDone());
    ASSERT_TRUE(Settle());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("Quota[1] quota:0 "));
}

TEST_F(RingRoom, NeverHangsTwoSessionsAtFullSpeedAndAPulledCard)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *apSessions[] = {MakeSession(true, 0), MakeSession(true, 0)};
    std::atomic<bool> bStop{false};
    const auto fnWrite = [&](tagQN_RECORD_HANDLER_S *pSession, const char *pszTag)
    {
        while (!bStop)
        {
            if (pSession->enRecordState.load() == QN_RECORD_STATE_STOPPING)
            {
                QN_RecordStop(pSession);
            }
            if (pSession->enRecordState.load() == QN_RECORD_STATE_IDLE)
            {
                QN_RecordStart(pSession, pszTag);
            }
            WriteKeyFrame(pSession);
            QN_REcordGetWriteBytes(pSession);
        }
    };
    BACKGROUND first([&] { fnWrite(apSessions[0], "a"); });
    BACKGROUND second([&] { fnWrite(apSessions[1], "b"); });
    for (int32_t i = 0; i < 30; ++i)
    {
        const int32_t s32Frames = FAKE_BACKEND_Frames();
        EXPECT_TRUE(TEST_WaitFor([s32Frames] { return FAKE_BACKEND_Frames() > s32Frames + 5; }, 20000));
        Push(QN_EVENT_E_HOTPLUG_OUT);
        EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN, 20000));
        Push(QN_EVENT_E_HOTPLUG_IN);
        EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED, 20000));
    }
    bStop = true;
    EXPECT_TRUE(first.WaitDone());
    EXPECT_TRUE(second.WaitDone());
    for (tagQN_RECORD_HANDLER_S *pSession : apSessions)
    {
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    }
    EXPECT_EQ(FAKE_BACKEND_Opens(), FAKE_BACKEND_Closes()); // every writer had one closer
}

TEST_F(RingRoom, NeverHangsSessionsThatComeAndGoWhileTheCardDoes)
{
    InitMounted();
    std::atomic<bool> bStop{false};
    const auto fnSessions = [&](const char *pszTag)
    {
        while (!bStop)
        {
            tagQN_RECORD_PARAM_S stParam = {};
            stParam.stVideo.bEnable = 1;
            tagQN_RECORD_HANDLER_S *pSession = nullptr;
            if (QN_RecordInit(m_pHandle, &stParam, pSession) == 0)
            {
                pSession->pstMediaApi = &g_stFakeBackend;
                QN_RecordStart(pSession, pszTag);
                WriteKeyFrame(pSession);
                QN_RecordDestroy(pSession);
            }
        }
    };
    const auto fnReplays = [&]
    {
        while (!bStop)
        {
            // A reader without slots: there is none to be opened, but the gate and the list are passed.
            tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
            std::vector<tagQN_FILE_INFO_S> vecFiles;
            QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles);
            for (const tagQN_FILE_INFO_S &stFile : vecFiles)
            {
                QN_ReplayOpen(m_pHandle, stFile, tagQN_REPLAY_PARAM_S{}, pReplay);
                QN_ReplayClose(pReplay);
            }
        }
    };
    BACKGROUND first([&] { fnSessions("a"); });
    BACKGROUND second([&] { fnSessions("b"); });
    BACKGROUND third(fnReplays);
    for (int32_t i = 0; i < 30; ++i)
    {
        Push(QN_EVENT_E_HOTPLUG_OUT);
        EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN, 20000));
        QN_StorageMount(m_pHandle);
        Push(QN_EVENT_E_HOTPLUG_IN);
        EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED, 20000));
        QN_StorageUnMount(m_pHandle);
        QN_StorageMount(m_pHandle);
    }
    bStop = true;
    EXPECT_TRUE(first.WaitDone());
    EXPECT_TRUE(second.WaitDone());
    EXPECT_TRUE(third.WaitDone());
    ASSERT_TRUE(Settle());
    EXPECT_EQ(FAKE_BACKEND_Opens(), FAKE_BACKEND_Closes());
}
