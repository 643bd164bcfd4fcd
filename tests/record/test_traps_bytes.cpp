// Asking for the written bytes from another thread, whatever the session is doing.

#include "session_fixture.h"

#include <atomic>

#include "support/process.h"

using namespace libquarrin;

class TrapsBytes : public SESSION_TEST
{
protected:
    PROCESS_LIMIT m_limit{120};
};

TEST_F(TrapsBytes, ArePolledWhileFramesAreWrittenSplitPausedAndStopped)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    pSession->stParam.bAutoSplit = 1;
    pSession->stParam.u32SplitSeconds = 0;
    std::atomic<bool> bEnd{false};
    std::atomic<int32_t> s32Polls{0};
    std::atomic<int64_t> s64Least{INT64_MAX};
    std::thread poller(
        [&]
        {
            while (!bEnd)
            {
                const int64_t s64Bytes = QN_REcordGetWriteBytes(pSession);
                s64Least = s64Bytes < s64Least ? s64Bytes : s64Least.load();
                s32Polls += 1;
            }
        });
    for (int32_t i = 0; i < 20; ++i)
    {
        EXPECT_EQ(0u, QN_RecordStart(pSession, std::to_string(i).c_str()));
        for (int32_t j = 0; j < 20; ++j)
        {
            Video(pSession, "frame", j % 5 == 0);
            Audio(pSession, "audio");
        }
        EXPECT_EQ(0u, QN_RecordPause(pSession));
        EXPECT_EQ(0u, QN_RecordResume(pSession));
        Video(pSession, "key", true);
        EXPECT_EQ(0u, QN_RecordStop(pSession));
    }
    const int32_t s32Before = s32Polls;
    EXPECT_TRUE(TEST_WaitFor([&] { return s32Polls > s32Before + 1; }));
    bEnd = true;
    poller.join();
    EXPECT_EQ(-1, s64Least.load());
    EXPECT_EQ(-1, QN_REcordGetWriteBytes(pSession));
}

TEST_F(TrapsBytes, DoNotWaitForRingRoom)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60);
    Age(pSession, 60);
    StallDispatcher();
    FillRing();
    std::thread writer([pSession] { Video(pSession, "late", true); });
    for (int32_t i = 0; i < 50; ++i)
    {
        EXPECT_EQ(11, QN_REcordGetWriteBytes(pSession)); // the ring is full all the while
        TEST_SleepMs(1);
    }
    EXPECT_EQ(4u, Ring().size());
    FAKE_PLATFORM_Release();
    writer.join();
}

TEST_F(TrapsBytes, DoNotNeedTheSessionsMutex)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    pthread_mutex_lock(&pSession->stMutex);
    EXPECT_EQ(11, QN_REcordGetWriteBytes(pSession));
    pthread_mutex_unlock(&pSession->stMutex);
}
