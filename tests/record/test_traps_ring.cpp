// Frame calls that wait for room in the event ring: they hold nothing that a handler wants, and look at everything
// anew.

#include "session_fixture.h"

#include <atomic>

#include "reliability/virtual_clock.h"
#include "support/mutex_hold.h"
#include "support/process.h"

using namespace libquarrin;

class TrapsRing : public SESSION_TEST
{
protected:
    void TearDown() override
    {
        CLOCK_Release();
        MUTEX_HOLD_Release();
        FAKE_PLATFORM_Release();
        Join();
        SESSION_TEST::TearDown();
    }

    // A session that is due for a split, behind a full ring. The oldest queued event is enOldest.
    void Prepare(QN_EVENT_E enOldest = static_cast<QN_EVENT_E>(5))
    {
        m_pSession = Run(60);
        Age(m_pSession, 60);
        StallDispatcher();
        QN_EVENT_PushEvent(m_pHandle, enOldest, nullptr);
        FillRing();
    }

    // Writes a key frame on a thread of its own.
    void WriteKeyFrame()
    {
        m_thread = std::thread(
            [this]
            {
                EXPECT_EQ(0u, Video(m_pSession, "late", true));
                m_bReturned = true;
            });
    }

    // Waits until the frame call waits for room: it has let go of the session, which it had taken before.
    void WaitUntilItWaits()
    {
        // The split line is not printed before there is room, so nothing tells but the time. A call that has not come
        // that far yet looks at the state in the same way.
        TEST_SleepMs(20);
        ASSERT_FALSE(m_bReturned.load());
        ASSERT_TRUE(TEST_WaitFor(
            [this]
            {
                const bool bFree = pthread_mutex_trylock(&m_pSession->stMutex) == 0;
                if (bFree)
                {
                    pthread_mutex_unlock(&m_pSession->stMutex);
                }
                return bFree;
            }))
            << "a frame call that waits for room keeps the session's mutex";
    }

    void Join()
    {
        if (m_thread.joinable())
        {
            m_thread.join();
        }
    }

    PROCESS_LIMIT m_limit{120};
    tagQN_RECORD_HANDLER_S *m_pSession = nullptr;
    std::atomic<bool> m_bReturned{false};
    std::thread m_thread;
};

TEST_F(TrapsRing, AFrameWaitsForRoomAndNothingIsDropped)
{
    Prepare();
    const time_t tStart = m_pSession->tFileStart;
    WriteKeyFrame();
    WaitUntilItWaits();
    EXPECT_EQ(4u, Ring().size()) << "the ring stays at 4";
    FAKE_PLATFORM_Release();
    Join();
    ASSERT_EQ(2u, FAKE_MEDIA_Writers().size());
    EXPECT_EQ("late", FAKE_MEDIA_Writers()[1].vecFrames.at(0).strBytes);
    EXPECT_TRUE(TEST_WaitFor([&] { return TEST_Exists(FinalPath(tStart, m_pSession->tFileStart)); }));
}

TEST_F(TrapsRing, AFrameWithoutASplitWaitsAfterItsWrite)
{
    m_pSession = Run();
    StallDispatcher();
    FillRing();
    WriteKeyFrame();
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_Writers()[0].vecFrames.size() == 2; }));
    WaitUntilItWaits();
    EXPECT_EQ(0u, QN_RecordStop(m_pSession)) << "the session is not held";
    FAKE_PLATFORM_Release();
    Join();
    EXPECT_EQ(1, FAKE_MEDIA_Writers()[0].s32Closes);
}

TEST_F(TrapsRing, AnUnplugInTheRingIsHandledWhileAFrameWaits)
{
    m_pSession = Run();
    StallDispatcher();
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
    FillRing();
    WriteKeyFrame();
    ASSERT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_Writers()[0].vecFrames.size() == 2; })); // then its event waits
    WaitUntilItWaits();
    FAKE_PLATFORM_Release();
    Join();
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, m_pSession->enRecordState.load());
    EXPECT_EQ(0u, Video(m_pSession, "dropped", true));
    EXPECT_EQ(2u, FAKE_MEDIA_Writers()[0].vecFrames.size());
    EXPECT_EQ(0u, QN_RecordStop(m_pSession));
    EXPECT_EQ(1, FAKE_MEDIA_Writers()[0].s32Closes);
}

TEST_F(TrapsRing, AnUnplugWhileAFrameWaitsForASplitLeavesOneCloserPerWriter)
{
    Prepare(QN_EVENT_E_HOTPLUG_OUT);
    WriteKeyFrame();
    WaitUntilItWaits();
    FAKE_PLATFORM_Release();
    Join();
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, m_pSession->enRecordState.load());
    EXPECT_LE(FAKE_MEDIA_OpenWriters(), 1) << "the running file alone, whether it was split in time or not";
    EXPECT_EQ(0u, QN_RecordStop(m_pSession));
    ASSERT_TRUE(WaitForIdle());
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
}

TEST_F(TrapsRing, AStopWhileAFrameWaitsForASplitEndsTheSession)
{
    Prepare();
    WriteKeyFrame();
    WaitUntilItWaits();
    EXPECT_EQ(0u, QN_RecordStop(m_pSession));
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
    FAKE_PLATFORM_Release();
    Join();
    ASSERT_TRUE(WaitForIdle());
    ASSERT_EQ(1u, FAKE_MEDIA_Writers().size()) << "no new file";
    EXPECT_EQ(1u, FAKE_MEDIA_Writers()[0].vecFrames.size());
    EXPECT_EQ(QN_RECORD_STATE_IDLE, m_pSession->enRecordState.load());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_RECORD_AUTO_SPLIT"));
    EXPECT_EQ(1u, Names().size());
}

TEST_F(TrapsRing, AStopAndANewStartWhileAFrameWaitsGiveTheFrameToTheNewFile)
{
    Prepare();
    WriteKeyFrame();
    WaitUntilItWaits();
    EXPECT_EQ(0u, QN_RecordStop(m_pSession));
    EXPECT_EQ(0u, QN_RecordStart(m_pSession, "new"));
    FAKE_PLATFORM_Release();
    Join();
    ASSERT_EQ(2u, FAKE_MEDIA_Writers().size()) << "the new file is too young to be split";
    EXPECT_EQ("late", FAKE_MEDIA_Writers()[1].vecFrames.at(0).strBytes);
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, m_pSession->enRecordState.load());
}

TEST_F(TrapsRing, APauseWhileAFrameWaitsForASplitDropsTheFrame)
{
    Prepare();
    WriteKeyFrame();
    WaitUntilItWaits();
    EXPECT_EQ(0u, QN_RecordPause(m_pSession));
    FAKE_PLATFORM_Release();
    Join();
    ASSERT_EQ(1u, FAKE_MEDIA_Writers().size());
    EXPECT_EQ(1u, FAKE_MEDIA_Writers()[0].vecFrames.size());
    EXPECT_EQ(0u, QN_RecordResume(m_pSession));
    EXPECT_EQ(0u, Video(m_pSession, "key", true));
    ASSERT_EQ(2u, FAKE_MEDIA_Writers().size()) << "the split comes with the next key frame";
}

TEST_F(TrapsRing, AFullStorageWhileAFrameWaitsForASplitDropsTheFrame)
{
    Prepare();
    WriteKeyFrame();
    WaitUntilItWaits();
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    FAKE_PLATFORM_Release();
    Join();
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size());
    EXPECT_EQ(1u, FAKE_MEDIA_Writers()[0].vecFrames.size());
}

TEST_F(TrapsRing, ADestroyWhileAFrameWaitsWaitsForTheFrame)
{
    Prepare();
    WriteKeyFrame();
    WaitUntilItWaits();
    std::thread destroyer(
        [this]
        {
            tagQN_RECORD_HANDLER_S *pSession = m_pSession;
            EXPECT_EQ(0u, QN_RecordDestroy(pSession));
        });
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_OpenWriters() == 0; })) << "stopped first";
    FAKE_PLATFORM_Release();
    destroyer.join();
    Join();
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size());
    EXPECT_TRUE(m_pHandle->lstRecord.empty());
}

TEST_F(TrapsRing, ADestroyBehindAFullRingWithAnUnplugInItReturns)
{
    m_pSession = Run();
    tagQN_RECORD_HANDLER_S *pIdle = Make();
    StallDispatcher();
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
    FillRing();
    std::thread running([this] { EXPECT_EQ(0u, QN_RecordDestroy(m_pSession)); });
    std::thread idle([&] { EXPECT_EQ(0u, QN_RecordDestroy(pIdle)); });
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_OpenWriters() == 0; }));
    FAKE_PLATFORM_Release();
    running.join();
    idle.join();
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    EXPECT_TRUE(m_pHandle->lstRecord.empty());
}

TEST_F(TrapsRing, TwoSessionsAtFullSpeedSurviveAPulledCard)
{
    std::atomic<bool> bEnd{false};
    std::vector<tagQN_RECORD_HANDLER_S *> vecSessions = {Run(0, "a"), Run(0, "b")};
    std::vector<std::thread> vecThreads;
    for (tagQN_RECORD_HANDLER_S *pSession : vecSessions)
    {
        for (const bool bVideo : {true, false})
        {
            vecThreads.emplace_back(
                [&bEnd, pSession, bVideo]
                {
                    for (int32_t i = 0; !bEnd; ++i)
                    {
                        bVideo ? Video(pSession, "v", i % 4 == 0) : Audio(pSession, "a");
                    }
                });
        }
    }
    for (int32_t i = 0; i < 10; ++i)
    {
        const int32_t s32Before = FAKE_MEDIA_Opens();
        EXPECT_TRUE(TEST_WaitFor([s32Before] { return FAKE_MEDIA_Opens() > s32Before + 3; }));
        QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
        EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
        QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_IN, nullptr);
        EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
        for (tagQN_RECORD_HANDLER_S *pSession : vecSessions)
        {
            EXPECT_EQ(QN_RECORD_STATE_STOPPING, pSession->enRecordState.load());
            EXPECT_EQ(0u, QN_RecordStop(pSession));
            EXPECT_EQ(0u, QN_RecordStart(pSession, pSession == vecSessions[0] ? "a" : "b"));
        }
    }
    bEnd = true;
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    for (tagQN_RECORD_HANDLER_S *pSession : vecSessions)
    {
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    }
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
}

TEST_F(TrapsRing, DestroysAgainstUnplugsInALoopReturn)
{
    std::atomic<bool> bEnd{false};
    std::thread plugger(
        [&]
        {
            while (!bEnd)
            {
                QN_EVENT_HandleHotplugOut(m_pHandle);
                QN_EVENT_HandleHotplugIn(m_pHandle);
            }
        });
    for (int32_t i = 0; i < 100; ++i)
    {
        tagQN_RECORD_PARAM_S stParam = Param();
        tagQN_RECORD_HANDLER_S *pSession = nullptr;
        if (QN_RecordInit(m_pHandle, &stParam, pSession) == 0 && pSession != nullptr)
        {
            pSession->pstMediaApi = FAKE_MEDIA_Api();
            QN_RecordStart(pSession, std::to_string(i).c_str());
            Video(pSession, "key", true);
            EXPECT_EQ(0u, QN_RecordDestroy(pSession));
        }
    }
    bEnd = true;
    plugger.join();
    EXPECT_TRUE(m_pHandle->lstRecord.empty());
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
}

// The ring had room when the split began, and has none when it posts: nothing is done, and the new name is given back. The
// clock stands, so that the split which comes at last wants the same name again.
TEST_F(TrapsRing, ASplitThatLosesItsRoomInTheLastMomentGivesItsNameBack)
{
    for (const bool bSamePath : {false, true})
    {
        CLOCK_Set(1700049600000);
        m_pSession = Run(bSamePath ? 0 : 60, "same");
        CLOCK_Step(bSamePath ? 0 : 60000);
        StallDispatcher();
        const int32_t s32Opens = FAKE_MEDIA_Opens();
        m_bReturned = false;
        m_thread = std::thread(
            [this]
            {
                MUTEX_HOLD_BeforeLock(2, &m_pHandle->mutexEvent); // it has looked for room, and is about to post
                EXPECT_EQ(0u, Video(m_pSession, "late", true));
                m_bReturned = true;
            });
        ASSERT_TRUE(MUTEX_HOLD_WaitHeld());
        FillRing();
        MUTEX_HOLD_Release();
        ASSERT_NO_FATAL_FAILURE(WaitUntilItWaits());
        EXPECT_EQ(s32Opens, FAKE_MEDIA_Opens());
        FAKE_PLATFORM_Release();
        Join();
        EXPECT_EQ(s32Opens + 1, FAKE_MEDIA_Opens());
        if (bSamePath) // its own name was never given back
        {
            tagQN_RECORD_HANDLER_S *pOther = Make();
            EXPECT_EQ(7u, QN_RecordStart(pOther, "same"));
        }
        EXPECT_EQ(0u, QN_RecordDestroy(m_pSession));
    }
}
