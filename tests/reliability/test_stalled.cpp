// The event thread held up for five seconds by a slow trailer, under four sessions at 60 pictures a second.

#include <algorithm>
#include <atomic>
#include <thread>

#include <unistd.h>

#include <gtest/gtest.h>

#include "session.h"
#include "support/process.h"
#include "verdict.h"
#include "virtual_clock.h"

using namespace libquarrin;

static constexpr int64_t STALL_MS = 5000;
static constexpr int64_t PERIOD_US = 1000000 / 60;
static constexpr uint32_t PICTURES = 480; // of each session
static constexpr uint32_t SPLIT_AT = 100;
static constexpr int64_t SLOW_MACHINE_MS = 5000;

static std::atomic<int32_t> s_s32Stalls{0}; // closes that are still to be slow
static std::atomic<bool> s_bStalled{false};

static int32_t SlowClose(void *pWriter)
{
    if (s_s32Stalls.fetch_sub(1) > 0)
    {
        s_bStalled = true;
        TEST_SleepMs(static_cast<int32_t>(STALL_MS));
        s_bStalled = false;
    }
    return qn_media_api_ffmpeg.pfnWriteClose(pWriter);
}

static const tagQN_MEDIA_API_S &SlowApi()
{
    static const tagQN_MEDIA_API_S s_stApi = []
    {
        tagQN_MEDIA_API_S stApi = qn_media_api_ffmpeg;
        stApi.pfnWriteClose = SlowClose;
        return stApi;
    }();
    return s_stApi;
}

class Stalled : public RELIABILITY_TEST
{
protected:
    /// One session at its rate: late pictures come at once, as from an encoder with a queue. Splits once.
    void Feed(FED_S &stFed, std::atomic<int64_t> &s64LongestMs)
    {
        const int64_t s64Begin = CLOCK_RealMs();
        for (uint32_t i = 0; i < PICTURES; i++)
        {
            if (i == SPLIT_AT && stFed.pSession->stParam.bAutoSplit != 0)
            {
                pthread_mutex_lock(&stFed.pSession->stMutex);
                stFed.pSession->tRunStart -= 60;
                stFed.pSession->tFileStart -= 60;
                pthread_mutex_unlock(&stFed.pSession->stMutex);
            }
            const int64_t s64From = CLOCK_RealMs();
            Write(stFed);
            s64LongestMs = std::max<int64_t>(s64LongestMs, CLOCK_RealMs() - s64From);
            const int64_t s64Ahead = (i + 1) * PERIOD_US / 1000 - (CLOCK_RealMs() - s64Begin);
            if (s64Ahead > 0)
            {
                usleep(static_cast<useconds_t>(s64Ahead * 1000));
            }
        }
    }

    /// What must not wait for the event thread.
    void AskWhileStalled(const std::vector<FED_S> &vecFed)
    {
        ASSERT_TRUE(TEST_WaitFor([] { return s_bStalled.load(); }, 20000));
        TEST_SleepMs(1000); // the ring is full by now
        const int64_t s64From = CLOCK_RealMs();
        QN_STATE_E enState = QN_STATE_E_UNPLUGIN;
        QN_STORAGE_STATE_E enStorage = QN_STORAGE_STATE_E_FULL;
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        EXPECT_EQ(0u, QN_GetState(m_pHandle, &enState));
        EXPECT_EQ(0u, QN_GetStorageState(m_pHandle, &enStorage));
        EXPECT_EQ(0, QN_STORAGE_ScanFolder(Folder(0).c_str(), vecFiles));
        for (const FED_S &stFed : vecFed)
        {
            EXPECT_GT(QN_REcordGetWriteBytes(stFed.pSession), 0);
        }
        EXPECT_TRUE(s_bStalled) << "took longer than the event thread: " << CLOCK_RealMs() - s64From << " ms";
    }
};

TEST_F(Stalled, BlocksFrameCallsForAsLongAndLosesNone)
{
    const PROCESS_LIMIT limit(120);
    InitMounted();
    std::vector<FED_S> vecFed;
    for (int32_t i = 0; i < 4; i++)
    {
        vecFed.push_back(Make(i % 2 == 0 ? QN_FILE_FMT_E_MKV : QN_FILE_FMT_E_TS, i == 0 ? 30 : 0));
        vecFed.back().pSession->pstMediaApi = &SlowApi();
        ASSERT_EQ(0u, QN_RecordStart(vecFed.back().pSession, ("s" + std::to_string(i)).c_str()));
    }
    s_s32Stalls = 1;
    std::atomic<int64_t> as64LongestMs[4] = {};
    std::vector<std::thread> vecThreads;
    for (size_t u = 0; u < vecFed.size(); u++)
    {
        vecThreads.emplace_back([this, u, &vecFed, &as64LongestMs] { Feed(vecFed[u], as64LongestMs[u]); });
    }
    AskWhileStalled(vecFed);
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    uint32_t u32Given = 0;
    for (size_t u = 0; u < vecFed.size(); u++)
    {
        EXPECT_GT(as64LongestMs[u], STALL_MS / 2) << "the ring has four slots, and every frame posts";
        EXPECT_LT(as64LongestMs[u], STALL_MS + SLOW_MACHINE_MS);
        u32Given += vecFed[u].u32Pictures;
        Stop(vecFed[u]);
    }
    ASSERT_TRUE(WaitForIdle());
    EXPECT_EQ(5u, TEST_List(Folder(0)).size());
    EXPECT_EQ(u32Given, Found());
    EXPECT_EQ(4 * PICTURES, u32Given);
    FIGURES_Say("stalled for %lld ms: %u pictures of 4 sessions given, %u found; longest call %lld ms",
                static_cast<long long>(STALL_MS), u32Given, Found(),
                static_cast<long long>(std::max({as64LongestMs[0].load(), as64LongestMs[1].load(),
                                                 as64LongestMs[2].load(), as64LongestMs[3].load()})));
}
