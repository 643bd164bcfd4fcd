// A close beside calls that began before it: it waits for each of them, wherever they are.

#include "replay_fixture.h"

#include <atomic>

#include "support/mutex_hold.h"
#include "support/process.h"

using namespace libquarrin;

class ReplayCalls : public REPLAY_TEST
{
protected:
    using CALL = std::function<void(tagQN_REPLAY_HANDLER_S *)>;

    void TearDown() override
    {
        MUTEX_HOLD_Release();
        REPLAY_TEST::TearDown();
    }

    static void Read(tagQN_REPLAY_HANDLER_S *pReplay)
    {
        uint8_t *pu8Data = nullptr;
        uint32_t u32Size = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo);
    }

    static std::vector<CALL> Calls()
    {
        return {
            Read,
            [](tagQN_REPLAY_HANDLER_S *p) { QN_ReplayFreeFrame(p, nullptr); },
            [](tagQN_REPLAY_HANDLER_S *p) { QN_ReplaySeekTime(p, 0); },
            [](tagQN_REPLAY_HANDLER_S *p)
            {
                tagQN_METADATA_S stMetadata = {};
                QN_ReplayReadMetadata(p, &stMetadata);
            },
        };
    }

    // fnEnd is not done before the call is, which is held up before its s32Nth lock.
    void ExpectWaited(const CALL &fnCall, int32_t s32Nth, const std::function<void()> &fnEnd,
                      tagQN_REPLAY_HANDLER_S *pReplay)
    {
        std::thread caller(
            [&, pReplay]
            {
                MUTEX_HOLD_BeforeLock(s32Nth);
                fnCall(pReplay);
            });
        EXPECT_TRUE(MUTEX_HOLD_WaitHeld()) << s32Nth;
        std::atomic<bool> bEnded{false};
        std::thread ender(
            [&]
            {
                fnEnd();
                bEnded = true;
            });
        TEST_WaitFor([&] { return bEnded.load(); }, 20); // for what must not happen
        EXPECT_FALSE(bEnded.load()) << "before its lock " << s32Nth;
        MUTEX_HOLD_Release();
        caller.join();
        ender.join();
    }

    PROCESS_LIMIT m_limit{120};
};

TEST_F(ReplayCalls, ACloseWaitsForEveryCallThatHasBegun)
{
    const std::string strPath = Clip();
    for (const CALL &fnCall : Calls())
    {
        tagQN_REPLAY_HANDLER_S *pReplay = Open(strPath);
        const int32_t s32Locks = MUTEX_HOLD_CountLocks([&] { fnCall(pReplay); });
        EXPECT_EQ(0, QN_ReplayClose(pReplay));
        ASSERT_LE(3, s32Locks) << "begun, at work, ended";
        for (int32_t s32Nth = 2; s32Nth <= s32Locks && !HasFailure(); ++s32Nth)
        {
            pReplay = Open(strPath);
            ExpectWaited(
                fnCall, s32Nth, [&pReplay] { EXPECT_EQ(0, QN_ReplayClose(pReplay)); }, pReplay);
            EXPECT_EQ(nullptr, pReplay);
        }
    }
}

TEST_F(ReplayCalls, TheEndOfTheHandleWaitsForEveryCallThatHasBegun)
{
    for (const CALL &fnCall : Calls())
    {
        for (const int32_t s32Nth : {2, 3})
        {
            tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
            ExpectWaited(
                fnCall, s32Nth, [this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); }, pReplay);
            EXPECT_EQ(nullptr, m_pHandle);
            InitMounted();
        }
    }
}

TEST_F(ReplayCalls, TheEndOfTheHandleWaitsForACloseThatHasBegun)
{
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    std::thread closer(
        [&pReplay]
        {
            MUTEX_HOLD_BeforeLock(2); // begun
            EXPECT_EQ(0, QN_ReplayClose(pReplay));
        });
    EXPECT_TRUE(MUTEX_HOLD_WaitHeld());
    std::atomic<bool> bGone{false};
    std::thread ender(
        [&]
        {
            EXPECT_EQ(0u, QN_Destroy(m_pHandle));
            bGone = true;
        });
    TEST_WaitFor([&] { return bGone.load(); }, 50); // for what must not happen
    EXPECT_FALSE(bGone.load());
    MUTEX_HOLD_Release();
    closer.join();
    ender.join();
}

TEST_F(ReplayCalls, ACloseWaitsForTheListOfTheReplays)
{
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    pthread_mutex_lock(&m_pHandle->mutexReplayList);
    std::atomic<bool> bClosed{false};
    std::thread closer(
        [&]
        {
            EXPECT_EQ(0, QN_ReplayClose(pReplay));
            bClosed = true;
        });
    EXPECT_FALSE(TEST_WaitFor([&] { return bClosed.load(); }, 50));
    EXPECT_EQ(1u, m_pHandle->lstReplay.size());
    pthread_mutex_unlock(&m_pHandle->mutexReplayList);
    closer.join();
    EXPECT_TRUE(m_pHandle->lstReplay.empty());
}
