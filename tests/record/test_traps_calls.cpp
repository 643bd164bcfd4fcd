// A destroy beside calls that began before it: it waits for each of them, wherever they are.

#include "session_fixture.h"

#include <atomic>
#include <functional>

#include "support/mutex_hold.h"
#include "support/process.h"

using namespace libquarrin;

namespace
{

/// A call on a session, and what the session went through before.
struct SESSION_CALL_S
{
    const char *pszName;
    std::function<void(tagQN_RECORD_HANDLER_S *)> fnBefore;
    std::function<void(tagQN_RECORD_HANDLER_S *)> fnCall;
};

} // namespace

class TrapsCalls : public SESSION_TEST
{
protected:
    void TearDown() override
    {
        MUTEX_HOLD_Release();
        FAKE_PLATFORM_Release();
        SESSION_TEST::TearDown();
    }

    // A session that stands where the call is to find it.
    tagQN_RECORD_HANDLER_S *Prepare(const SESSION_CALL_S &stCall)
    {
        tagQN_RECORD_PARAM_S stParam = Param();
        stParam.bAutoSplit = 1;
        stParam.u32SplitSeconds = 60;
        tagQN_RECORD_HANDLER_S *pSession = Make(stParam);
        stCall.fnBefore(pSession);
        EXPECT_TRUE(WaitForIdle());
        return pSession;
    }

    // Every call on a session.
    std::vector<SESSION_CALL_S> Calls()
    {
        const auto fnNothing = [](tagQN_RECORD_HANDLER_S *) {
        };
        const auto fnStart = [this](tagQN_RECORD_HANDLER_S *pSession)
        {
            EXPECT_EQ(0u, QN_RecordStart(pSession, std::to_string(++m_s32Tag).c_str()));
        };
        const auto fnRun = [fnStart](tagQN_RECORD_HANDLER_S *pSession)
        {
            fnStart(pSession);
            Video(pSession, "key", true);
        };
        const auto fnPause = [fnRun](tagQN_RECORD_HANDLER_S *pSession)
        {
            fnRun(pSession);
            EXPECT_EQ(0u, QN_RecordPause(pSession));
        };
        const auto fnAge = [fnRun](tagQN_RECORD_HANDLER_S *pSession)
        {
            fnRun(pSession);
            Age(pSession, 100);
        };
        return {
            {"start", fnNothing,
             [this](tagQN_RECORD_HANDLER_S *p)
             {
                 QN_RecordStart(p, std::to_string(++m_s32Tag).c_str());
             }},
            {"frame", fnRun,
             [](tagQN_RECORD_HANDLER_S *p)
             {
                 Video(p, "frame", false);
             }},
            {"dropped frame", fnNothing,
             [](tagQN_RECORD_HANDLER_S *p)
             {
                 Video(p, "frame", true);
             }},
            {"split", fnAge,
             [](tagQN_RECORD_HANDLER_S *p)
             {
                 Video(p, "frame", true);
             }},
            {"pause", fnRun,
             [](tagQN_RECORD_HANDLER_S *p)
             {
                 QN_RecordPause(p);
             }},
            {"resume", fnPause,
             [](tagQN_RECORD_HANDLER_S *p)
             {
                 QN_RecordResume(p);
             }},
            {"stop", fnRun,
             [](tagQN_RECORD_HANDLER_S *p)
             {
                 QN_RecordStop(p);
             }},
            {"bytes", fnRun,
             [](tagQN_RECORD_HANDLER_S *p)
             {
                 QN_REcordGetWriteBytes(p);
             }},
            {"bytes of no file", fnNothing,
             [](tagQN_RECORD_HANDLER_S *p)
             {
                 QN_REcordGetWriteBytes(p);
             }},
        };
    }

    // Runs the call on a thread, held up before its s32Nth lock, while fnEnd runs on another: fnEnd is not done before
    // the call is.
    void ExpectWaited(const SESSION_CALL_S &stCall, int32_t s32Nth, const std::function<void()> &fnEnd,
                      tagQN_RECORD_HANDLER_S *pSession)
    {
        std::thread caller(
            [&, pSession]
            {
                MUTEX_HOLD_BeforeLock(s32Nth);
                stCall.fnCall(pSession);
            });
        EXPECT_TRUE(MUTEX_HOLD_WaitHeld()) << stCall.pszName << " " << s32Nth;
        std::atomic<bool> bEnded{false};
        std::thread ender(
            [&]
            {
                fnEnd();
                bEnded = true;
            });
        TEST_WaitFor([&] { return bEnded.load(); }, 20); // for what must not happen
        EXPECT_FALSE(bEnded.load()) << stCall.pszName << ", before its lock " << s32Nth;
        MUTEX_HOLD_Release();
        caller.join();
        ender.join();
    }

    int32_t m_s32Tag = 0;
    PROCESS_LIMIT m_limit{300};
};

TEST_F(TrapsCalls, ADestroyWaitsForEveryCallThatHasBegun)
{
    for (const SESSION_CALL_S &stCall : Calls())
    {
        tagQN_RECORD_HANDLER_S *pSession = Prepare(stCall);
        const int32_t s32Locks = MUTEX_HOLD_CountLocks([&] { stCall.fnCall(pSession); });
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
        ASSERT_LE(3, s32Locks) << stCall.pszName << ": begun, at work, ended";
        for (int32_t i = 2; i <= s32Locks && !HasFailure(); ++i)
        {
            pSession = Prepare(stCall);
            ExpectWaited(
                stCall, i, [&pSession] { QN_RecordDestroy(pSession); }, pSession);
            EXPECT_EQ(nullptr, pSession);
            EXPECT_EQ(0, FAKE_MEDIA_OpenWriters()) << stCall.pszName << ", before its lock " << i;
        }
    }
}

TEST_F(TrapsCalls, TheEndOfTheHandleWaitsForEveryCallThatHasBegun)
{
    for (const SESSION_CALL_S &stCall : Calls())
    {
        for (const int32_t i : {2, 3})
        {
            tagQN_RECORD_HANDLER_S *pSession = Prepare(stCall);
            ExpectWaited(
                stCall, i, [this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); }, pSession);
            EXPECT_EQ(0, FAKE_MEDIA_OpenWriters()) << stCall.pszName << ", before its lock " << i;
            InitMounted();
        }
    }
}

// The ring is full, and the frame call has just let go of the session: it will look at both again.
TEST_F(TrapsCalls, ADestroyWaitsForAFrameInTheGapBeforeItWaitsForRoom)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    StallDispatcher();
    FillRing();
    std::thread writer(
        [pSession]
        {
            MUTEX_HOLD_AfterUnlock(&pSession->stMutex);
            Video(pSession, "late", true);
        });
    EXPECT_TRUE(MUTEX_HOLD_WaitHeld());
    FAKE_PLATFORM_Release();
    std::atomic<bool> bGone{false};
    std::thread destroyer(
        [&]
        {
            EXPECT_EQ(0u, QN_RecordDestroy(pSession));
            EXPECT_EQ(0u, QN_Destroy(m_pHandle));
            bGone = true;
        });
    TEST_WaitFor([&] { return bGone.load(); }, 100); // for what must not happen
    EXPECT_FALSE(bGone.load());
    MUTEX_HOLD_Release();
    writer.join();
    destroyer.join();
    EXPECT_EQ(nullptr, m_pHandle);
}

TEST_F(TrapsCalls, TheEndOfTheHandleWaitsForADestroyThatHasBegun)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    FAKE_MEDIA_Stall(FAKE_CALL_E_CLOSE, 1);
    std::thread destroyer([&pSession] { EXPECT_EQ(0u, QN_RecordDestroy(pSession)); });
    ASSERT_TRUE(FAKE_MEDIA_WaitStalled());
    std::atomic<bool> bGone{false};
    std::thread ender(
        [&]
        {
            EXPECT_EQ(0u, QN_Destroy(m_pHandle));
            bGone = true;
        });
    TEST_WaitFor([&] { return bGone.load(); }, 50); // for what must not happen
    EXPECT_FALSE(bGone.load());
    FAKE_MEDIA_Release();
    destroyer.join();
    ender.join();
    EXPECT_EQ(1, FAKE_MEDIA_Writers()[0].s32Closes);
}

TEST_F(TrapsCalls, ADestroyThatWaitsDoesNotHoldUpAnUnplug)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    std::thread caller(
        [pSession]
        {
            MUTEX_HOLD_BeforeLock(2); // begun
            EXPECT_EQ(3u, QN_RecordPause(pSession));
        });
    EXPECT_TRUE(MUTEX_HOLD_WaitHeld());
    tagQN_RECORD_HANDLER_S *pDestroyed = pSession;
    std::thread destroyer([&pDestroyed] { EXPECT_EQ(0u, QN_RecordDestroy(pDestroyed)); });
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
    EXPECT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    MUTEX_HOLD_Release();
    caller.join();
    destroyer.join();
}
