// A session that goes while its split-off files are still queued: they are finished once, and nothing freed is touched.

#include "session_fixture.h"

#include <atomic>

#include "support/process.h"

using namespace libquarrin;

class TrapsShutdown : public SESSION_TEST
{
protected:
    PROCESS_LIMIT m_limit{120};
};

TEST_F(TrapsShutdown, SplitStopAndDestroyFinishesTheQueuedFileFirst)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60, "t");
    StallDispatcher();
    const std::string strFinal = SplitOff(pSession);
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_FALSE(TEST_Exists(strFinal)) << "the event thread is still held up";
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    EXPECT_TRUE(TEST_Exists(strFinal));
    EXPECT_EQ("begin\nfirst", TEST_ReadFile(strFinal));
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());

    FAKE_PLATFORM_Release();
    EXPECT_TRUE(FAKE_PLATFORM_WaitLogged("QN_EVENT_E_RECORD_AUTO_SPLIT")) << "the event comes, and finds its work done";
    ASSERT_TRUE(WaitForIdle());
    EXPECT_TRUE(TEST_Exists(strFinal));
    EXPECT_EQ(1, FAKE_MEDIA_Writers()[0].s32Closes);
}

TEST_F(TrapsShutdown, DestroyWithoutAStopDoesTheSame)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60, "t");
    StallDispatcher();
    const std::string strFinal = SplitOff(pSession);
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    EXPECT_TRUE(TEST_Exists(strFinal));
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(FAKE_PLATFORM_WaitLogged("QN_EVENT_E_RECORD_AUTO_SPLIT"));
}

TEST_F(TrapsShutdown, ARestartUnderAnotherTagLeavesTheFileThatIsBeingFinishedItsOwn)
{
    // Longer than what a string holds in itself: a tag that is read while it changes is freed memory.
    tagQN_RECORD_HANDLER_S *pSession = Run(60, "a tag of the time before the restart");
    StallDispatcher();
    const std::string strFinal = SplitOff(pSession);
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    FAKE_MEDIA_Stall(FAKE_CALL_E_CLOSE);
    FAKE_PLATFORM_Release();
    TEST_SleepMs(20); // the event thread closes the old writer by now, most likely; any order will do
    EXPECT_EQ(0u, QN_RecordStart(pSession, "another tag, which is longer than the one before it"));
    FAKE_MEDIA_Release();
    EXPECT_TRUE(TEST_WaitFor([&] { return TEST_Exists(strFinal); })) << strFinal;
    EXPECT_EQ("begin\nfirst", TEST_ReadFile(strFinal));
    EXPECT_EQ("another tag, which is longer than the one before it", pSession->strNameTag);
}

TEST_F(TrapsShutdown, AnEventThreadHeldUpInAMountDoesNotHoldUpTheDestroy)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    ASSERT_TRUE(WaitForIdle());
    FAKE_PLATFORM_Stall("mount");
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_IN, nullptr);
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    const std::string strFinal = SplitOff(pSession);
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    EXPECT_TRUE(TEST_Exists(strFinal));
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(FAKE_PLATFORM_WaitLogged("QN_EVENT_E_RECORD_AUTO_SPLIT"));
    EXPECT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
}

TEST_F(TrapsShutdown, DestroyFinishesEachOfSeveralQueuedFilesOfItsOwnSessionOnly)
{
    tagQN_RECORD_HANDLER_S *pFirst = Run(60, "first");
    tagQN_RECORD_HANDLER_S *pOther = Run(60, "other");
    StallDispatcher();
    const std::string strOne = SplitOff(pFirst);
    const std::string strOther = SplitOff(pOther);
    std::thread destroyer([&] { EXPECT_EQ(0u, QN_RecordDestroy(pFirst)); }); // waits for room in the end
    EXPECT_TRUE(TEST_WaitFor([&] { return TEST_Exists(strOne); }));
    EXPECT_FALSE(TEST_Exists(strOther));
    FAKE_PLATFORM_Release();
    destroyer.join();
    EXPECT_TRUE(TEST_WaitFor([&] { return TEST_Exists(strOther); }));
}

TEST_F(TrapsShutdown, DestroyWaitsForTheFileThatIsJustBeingFinished)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    ASSERT_TRUE(WaitForIdle());
    FAKE_MEDIA_Stall(FAKE_CALL_E_CLOSE, 1); // the event thread's
    const std::string strFinal = SplitOff(pSession);
    ASSERT_TRUE(FAKE_MEDIA_WaitStalled());
    std::atomic<bool> bReturned{false};
    std::thread destroyer(
        [&]
        {
            EXPECT_EQ(0u, QN_RecordDestroy(pSession));
            EXPECT_TRUE(TEST_Exists(strFinal));
            bReturned = true;
        });
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_Writers()[1].s32Closes == 1; })) << "stopped meanwhile";
    TEST_SleepMs(20);
    EXPECT_FALSE(bReturned.load());
    FAKE_MEDIA_Release();
    destroyer.join();
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
}

TEST_F(TrapsShutdown, AnEventDroppedByAClosedQueueIsFinishedByTheDestroy)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60, "t");
    QN_EVENT_Destroy(m_pHandle);
    const std::string strFinal = SplitOff(pSession);
    EXPECT_EQ(2, FAKE_MEDIA_OpenWriters()) << "nobody will take the event";
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
    EXPECT_EQ("begin\nfirst", TEST_ReadFile(strFinal));
}

TEST_F(TrapsShutdown, AnEventThatAHostPostedIsFinishedByTheDestroyToo)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    auto spEvent = std::make_shared<tagQN_AUTO_SPLIT_EVENT_S>();
    spEvent->pstRecord = pSession;
    spEvent->strFilePath = Folder(0) + "/clip.mkv";
    spEvent->pWriter = FAKE_MEDIA_Api()->pfnWriteOpen(&pSession->stParam, spEvent->strFilePath.c_str());
    spEvent->tStart = 1000;
    spEvent->tEnd = 1060;
    StallDispatcher();
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_RECORD_AUTO_SPLIT, spEvent);
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
    EXPECT_TRUE(TEST_Exists(FinalPath(1000, 1060)));
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(FAKE_PLATFORM_WaitLogged("QN_EVENT_E_RECORD_AUTO_SPLIT"));
}

TEST_F(TrapsShutdown, HandleDestroyFinishesWhatIsQueued)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60, "t");
    StallDispatcher();
    const std::string strFinal = SplitOff(pSession);
    const std::weak_ptr<void> wpEvent = Ring()[0].spPayload;
    std::thread destroyer([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
    EXPECT_TRUE(TEST_WaitFor([&] { return TEST_Exists(strFinal); })) << "without the event thread";
    FAKE_PLATFORM_Release();
    destroyer.join();
    EXPECT_EQ(nullptr, m_pHandle);
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
    EXPECT_TRUE(wpEvent.expired());
}

TEST_F(TrapsShutdown, FiveSessionsAFullRingAndASlowHandlerDoNotStopTheHandleDestroy)
{
    std::vector<std::string> vecFinals;
    std::vector<tagQN_RECORD_HANDLER_S *> vecSessions;
    for (int32_t i = 0; i < 5; ++i)
    {
        vecSessions.push_back(Run(60, ("s" + std::to_string(i)).c_str()));
    }
    StallDispatcher();
    vecFinals.push_back(SplitOff(vecSessions[0]));
    vecFinals.push_back(SplitOff(vecSessions[1]));
    ASSERT_EQ(4u, Ring().size());
    std::vector<std::weak_ptr<void>> vecPayloads;
    for (const tagQN_EVENT_SLOT_S &stSlot : Ring())
    {
        vecPayloads.push_back(stSlot.spPayload);
    }
    std::thread destroyer([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
    TEST_SleepMs(20); // it waits for room by now, most likely; any order will do
    FAKE_PLATFORM_Release();
    destroyer.join();
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
    for (const std::string &strFinal : vecFinals)
    {
        EXPECT_TRUE(TEST_Exists(strFinal)) << strFinal;
    }
    for (const std::weak_ptr<void> &wpPayload : vecPayloads)
    {
        EXPECT_TRUE(wpPayload.expired());
    }
    const std::string strName = m_strDevice.substr(m_strDevice.rfind('/') + 1);
    // A thread that was joined is listed a moment longer.
    EXPECT_TRUE(TEST_WaitFor([&] { return !PROCESS_HasThread(strName + ":event"); }));
    EXPECT_TRUE(TEST_WaitFor([&] { return !PROCESS_HasThread(strName + ":hotplug"); }));
}
