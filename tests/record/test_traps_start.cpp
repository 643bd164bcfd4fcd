// A start that waits for a second of its own: it gets one, and it is seen by whoever ends the session meanwhile.

#include "session_fixture.h"

#include <atomic>
#include <csignal>

#include "reliability/virtual_clock.h"
#include "support/mutex_hold.h"
#include "support/process.h"

using namespace libquarrin;

constexpr int64_t NOON_MS = 1700049600000;

class TrapsStart : public SESSION_TEST
{
protected:
    void TearDown() override
    {
        CLOCK_Release();
        MUTEX_HOLD_Release();
        FAKE_PLATFORM_Release();
        FAKE_MEDIA_Release();
        if (m_starter.joinable())
        {
            m_starter.join();
        }
        SESSION_TEST::TearDown();
    }

    // Another session has the name of this second, and the clock stands: m_pSession's start waits, for three seconds.
    void StartThatWaits()
    {
        CLOCK_Set(NOON_MS);
        m_pHolder = Make();
        m_pSession = Make();
        EXPECT_EQ(0u, QN_RecordStart(m_pHolder, "same"));
        StartOnThread([] {});
        ASSERT_TRUE(TEST_WaitFor([] { return Openings() == 2; }));
    }

    static size_t Openings()
    {
        size_t openings = 0;
        for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
        {
            openings += stLog.strText == "record opening..." ? 1 : 0;
        }
        return openings;
    }

    // Starts m_pSession on a thread of its own, which calls fnBefore first.
    void StartOnThread(const std::function<void()> &fnBefore)
    {
        m_starter = std::thread(
            [this, fnBefore, pSession = m_pSession]
            {
                fnBefore();
                const uint32_t u32Result = QN_RecordStart(pSession, "same");
                m_s32Result = static_cast<int32_t>(u32Result);
            });
    }

    // What the start on the thread answered; -1 when it does not return.
    int32_t Result()
    {
        TEST_WaitFor([this] { return m_s32Result >= 0; }, 20000);
        return m_s32Result;
    }

    // The session is idle, and has no file and no name: the next one gets that of the same second.
    void ExpectNothingOfIt()
    {
        CLOCK_Step(1000);
        EXPECT_EQ(3, Result());
        EXPECT_EQ(1, FAKE_MEDIA_Opens()) << "the holder's";
        tagQN_RECORD_HANDLER_S *pNext = Make();
        EXPECT_EQ(0u, QN_RecordStart(pNext, "same"));
        EXPECT_EQ(NOON_MS / 1000 + 1, pNext->tFileStart);
    }

    tagQN_RECORD_HANDLER_S *m_pHolder = nullptr;
    tagQN_RECORD_HANDLER_S *m_pSession = nullptr;
    std::atomic<int32_t> m_s32Result{-1};
    std::thread m_starter;
    PROCESS_LIMIT m_limit{120};
};

TEST_F(TrapsStart, IsEndedByAStop)
{
    ASSERT_NO_FATAL_FAILURE(StartThatWaits());
    EXPECT_EQ(0u, QN_RecordStop(m_pSession));
    ExpectNothingOfIt();
    EXPECT_EQ(QN_RECORD_STATE_IDLE, m_pSession->enRecordState.load());
    EXPECT_EQ(nullptr, m_pSession->pWriter);
    CLOCK_Step(1000);
    EXPECT_EQ(0u, QN_RecordStart(m_pSession, "same")) << "and may be started again";
}

TEST_F(TrapsStart, IsEndedByADestroy)
{
    ASSERT_NO_FATAL_FAILURE(StartThatWaits());
    EXPECT_EQ(0u, QN_RecordDestroy(m_pSession));
    EXPECT_EQ(nullptr, m_pSession);
    ExpectNothingOfIt();
}

TEST_F(TrapsStart, IsEndedByTheEndOfTheHandle)
{
    ASSERT_NO_FATAL_FAILURE(StartThatWaits());
    EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    EXPECT_EQ(3, Result());
    EXPECT_EQ(1, FAKE_MEDIA_Opens());
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
}

TEST_F(TrapsStart, IsEndedByAnUnplugAndTheSessionWaitsForItsStop)
{
    ASSERT_NO_FATAL_FAILURE(StartThatWaits());
    EXPECT_EQ(0, QN_EVENT_HandleHotplugOut(m_pHandle));
    EXPECT_EQ(0, QN_EVENT_HandleHotplugIn(m_pHandle)); // back before the start looks again, most likely
    CLOCK_Step(1000);
    EXPECT_EQ(3, Result());
    EXPECT_EQ(1, FAKE_MEDIA_Opens());
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, m_pSession->enRecordState.load()) << "as every session of a pulled card";
    EXPECT_EQ(3u, QN_RecordStart(m_pSession, "same"));
    EXPECT_EQ(0u, QN_RecordStop(m_pSession));
    EXPECT_EQ(0u, QN_RecordStart(m_pSession, "same"));
}

TEST_F(TrapsStart, MakesItsSessionBusy)
{
    ASSERT_NO_FATAL_FAILURE(StartThatWaits());
    const size_t logs = FAKE_PLATFORM_Logs().size();
    EXPECT_EQ(3u, QN_RecordStart(m_pSession, "other"));
    EXPECT_EQ(3u, QN_RecordPause(m_pSession));
    EXPECT_EQ(3u, QN_RecordResume(m_pSession));
    EXPECT_EQ(0u, Video(m_pSession, "dropped", true));
    EXPECT_EQ(-1, QN_REcordGetWriteBytes(m_pSession));
    EXPECT_EQ(logs, FAKE_PLATFORM_Logs().size());
    CLOCK_Step(1000);
    EXPECT_EQ(0, Result());
    EXPECT_EQ(2, FAKE_MEDIA_Opens());
    EXPECT_EQ("same", m_pSession->strNameTag);
}

// In every moment of the start but its very end: before it counts, and before each lock that it takes.
TEST_F(TrapsStart, NeverRecordsAfterAStopThatHasReturned)
{
    m_pSession = Make();
    const int32_t s32Locks = MUTEX_HOLD_CountLocks([this] { EXPECT_EQ(0u, QN_RecordStart(m_pSession, "a")); });
    EXPECT_EQ(0u, QN_RecordStop(m_pSession));
    for (int32_t i = 1; i <= s32Locks; ++i)
    {
        m_s32Result = -1;
        StartOnThread([i] { MUTEX_HOLD_BeforeLock(i); });
        ASSERT_TRUE(MUTEX_HOLD_WaitHeld());
        std::atomic<bool> bStopped{false};
        std::thread stopper(
            [&]
            {
                EXPECT_EQ(0u, QN_RecordStop(m_pSession));
                bStopped = true;
            });
        TEST_WaitFor([&] { return bStopped.load(); }, 50); // a start that has the session is waited for
        MUTEX_HOLD_Release();
        stopper.join();
        m_starter.join();
        EXPECT_TRUE(m_s32Result == 3 || m_s32Result == 0) << m_s32Result;
        EXPECT_EQ(QN_RECORD_STATE_IDLE, m_pSession->enRecordState.load()) << "before its lock " << i;
        EXPECT_EQ(0, FAKE_MEDIA_OpenWriters()) << "before its lock " << i;
    }
}

TEST_F(TrapsStart, OfFiveSessionsUnderOneNameGivesEachItsSecond)
{
    std::vector<std::thread> vecThreads;
    for (int32_t i = 0; i < 5; ++i)
    {
        tagQN_RECORD_HANDLER_S *pSession = Make();
        vecThreads.emplace_back([pSession] { EXPECT_EQ(0u, QN_RecordStart(pSession, "same")); });
    }
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    EXPECT_EQ(5u, Names().size());
}

TEST_F(TrapsStart, IsNotCutShortBySignals)
{
    struct sigaction stAction = {};
    struct sigaction stOld = {};
    stAction.sa_handler = [](int) {
    };
    ASSERT_EQ(0, sigaction(SIGUSR1, &stAction, &stOld));
    ASSERT_NO_FATAL_FAILURE(StartThatWaits());
    const int64_t s64Begin = CLOCK_RealMs();
    while (m_s32Result < 0 && CLOCK_RealMs() - s64Begin < 1500)
    {
        pthread_kill(m_starter.native_handle(), SIGUSR1);
        TEST_SleepMs(1);
    }
    EXPECT_EQ(-1, m_s32Result.load()) << "half of the time in which a clock may stand";
    CLOCK_Step(1000);
    EXPECT_EQ(0, Result());
    sigaction(SIGUSR1, &stOld, nullptr);
}

TEST_F(TrapsStart, GivesUpOnAClockThatStandsStill)
{
    const int64_t s64Begin = CLOCK_RealMs();
    ASSERT_NO_FATAL_FAILURE(StartThatWaits());
    EXPECT_EQ(7, Result());
    EXPECT_LE(3000, CLOCK_RealMs() - s64Begin);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(
        3, "QN_RecordStart", "another recording has the name of this second, and the clock stands still"));
    EXPECT_EQ(0u, QN_RecordStart(m_pSession, "other"));
}

TEST_F(TrapsStart, OfABusySessionDoesNotWaitForTheCard)
{
    m_pSession = Run();
    FAKE_PLATFORM_Stall("umount");
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    EXPECT_EQ(QN_STATE_E_MOUNTED, m_pHandle->enState.load());
    StartOnThread([] {});
    EXPECT_TRUE(TEST_WaitFor([this] { return m_s32Result == 3; }));
    FAKE_PLATFORM_Release();
}

TEST_F(TrapsStart, OfABusySessionDoesNotWaitForAFrame)
{
    m_pSession = Run();
    FAKE_MEDIA_Stall(FAKE_CALL_E_WRITE);
    std::thread writer([this] { Video(m_pSession, "slow", false); });
    ASSERT_TRUE(FAKE_MEDIA_WaitStalled());
    StartOnThread([] {});
    EXPECT_TRUE(TEST_WaitFor([this] { return m_s32Result == 3; }));
    FAKE_MEDIA_Release();
    writer.join();
}

TEST_F(TrapsStart, OfABusySessionTellsFirstThatTheCardIsGone)
{
    m_pSession = Run();
    EXPECT_EQ(0, QN_EVENT_HandleHotplugOut(m_pHandle));
    EXPECT_EQ(3u, QN_RecordStart(m_pSession, nullptr));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_RecordStart", "Cannot start record, storage is not mounted"));
}
