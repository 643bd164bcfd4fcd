// The event thread held up under four sessions at 60 pictures a second: for five seconds by a slow trailer, and by a
// slow mount for QUARRIN_STALL_MS, two seconds by default.

#include <algorithm>
#include <atomic>
#include <cstdlib>
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
static constexpr int64_t SLOW_MACHINE_MS = 5000 * TEST_SLOW;
static constexpr uint32_t MOUNT_AT = 120;          // pictures of all sessions
static constexpr int64_t BESIDES_THE_MOUNT = 1500; // milliseconds of recording

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

static int64_t MountMs()
{
    const char *pszMs = getenv("QUARRIN_STALL_MS");
    return std::clamp<int64_t>(pszMs != nullptr ? atoll(pszMs) : 2000, 1000, 30000);
}

class Stalled : public RELIABILITY_TEST
{
protected:
    /// Four sessions that record; the first splits.
    void Begin(std::vector<FED_S> &vecFed)
    {
        InitMounted();
        for (int32_t i = 0; i < 4; i++)
        {
            vecFed.push_back(Make(i % 2 == 0 ? QN_FILE_FMT_E_MKV : QN_FILE_FMT_E_TS, i == 0 ? 30 : 0));
            vecFed.back().pSession->pstMediaApi = &SlowApi();
            ASSERT_EQ(0u, QN_RecordStart(vecFed.back().pSession, ("s" + std::to_string(i)).c_str()));
        }
    }

    std::vector<std::thread> FeedAll(std::vector<FED_S> &vecFed, uint32_t u32Pictures)
    {
        std::vector<std::thread> vecThreads;
        for (size_t u = 0; u < vecFed.size(); u++)
        {
            vecThreads.emplace_back([this, u, u32Pictures, &vecFed]
                                    { Feed(vecFed[u], u32Pictures, m_as64LongestMs[u]); });
        }
        return vecThreads;
    }

    /// One session at its rate: late pictures come at once, as from an encoder with a queue. Splits once.
    void Feed(FED_S &stFed, uint32_t u32Pictures, std::atomic<int64_t> &s64LongestMs)
    {
        const int64_t s64Begin = CLOCK_RealMs();
        for (uint32_t i = 0; i < u32Pictures; i++)
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
            m_u32Returned++;
            s64LongestMs = std::max<int64_t>(s64LongestMs, CLOCK_RealMs() - s64From);
            const int64_t s64Ahead = (i + 1) * PERIOD_US / 1000 - (CLOCK_RealMs() - s64Begin);
            if (s64Ahead > 0)
            {
                usleep(static_cast<useconds_t>(s64Ahead * 1000));
            }
        }
    }

    /// What waits for the event thread in no case.
    void AskWhatNeverWaits(const std::vector<FED_S> &vecFed)
    {
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        EXPECT_EQ(0, QN_STORAGE_ScanFolder(Folder(0).c_str(), vecFiles));
        for (const FED_S &stFed : vecFed)
        {
            EXPECT_GT(QN_REcordGetWriteBytes(stFed.pSession), 0);
        }
    }

    /// The trailer is being written: nothing but the frame calls waits.
    void AskWhileStalled(const std::vector<FED_S> &vecFed)
    {
        ASSERT_TRUE(TEST_WaitFor([] { return s_bStalled.load(); }, 20000));
        TEST_SleepMs(1000); // the ring is full by now
        const int64_t s64From = CLOCK_RealMs();
        QN_STATE_E enState = QN_STATE_E_UNPLUGIN;
        QN_STORAGE_STATE_E enStorage = QN_STORAGE_STATE_E_FULL;
        EXPECT_EQ(0u, QN_GetState(m_pHandle, &enState));
        EXPECT_EQ(0u, QN_GetStorageState(m_pHandle, &enStorage));
        AskWhatNeverWaits(vecFed);
        EXPECT_TRUE(s_bStalled) << "took longer than the event thread: " << CLOCK_RealMs() - s64From << " ms";
    }

    bool IsRingFull()
    {
        pthread_mutex_lock(&m_pHandle->mutexEvent);
        const bool bFull = m_pHandle->u32EventCount == QN_EVENT_SLOTS;
        pthread_mutex_unlock(&m_pHandle->mutexEvent);
        return bFull;
    }

    /// A second appearance of the mounted card, whose mount line takes s64Ms.
    void HoldUpMount(const std::vector<FED_S> &vecFed, int64_t s64Ms)
    {
        EXPECT_TRUE(TEST_WaitFor([this] { return m_u32Returned >= MOUNT_AT; }, 20000));
        FAKE_PLATFORM_Stall("; mount ");
        QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_IN, nullptr);
        EXPECT_TRUE(FAKE_PLATFORM_WaitStalled(20000));
        const int64_t s64End = CLOCK_RealMs() + s64Ms;

        std::atomic<int32_t> s32Answers{0};
        QN_STATE_E enState = QN_STATE_E_UNPLUGIN;
        QN_STORAGE_STATE_E enStorage = QN_STORAGE_STATE_E_FULL;
        std::thread asker(
            [&]
            {
                EXPECT_EQ(0u, QN_GetState(m_pHandle, &enState));
                s32Answers++;
            });
        std::thread storageAsker(
            [&]
            {
                EXPECT_EQ(0u, QN_GetStorageState(m_pHandle, &enStorage));
                s32Answers++;
            });
        EXPECT_TRUE(TEST_WaitFor([this] { return IsRingFull(); }, 20000));
        const uint32_t u32Returned = m_u32Returned;
        AskWhatNeverWaits(vecFed);
        TEST_SleepMs(static_cast<int32_t>(std::max<int64_t>(0, s64End - CLOCK_RealMs())));
        EXPECT_EQ(0, s32Answers) << "the state is being changed";
        EXPECT_LE(m_u32Returned, u32Returned + vecFed.size()) << "each session may have had a call on its way back";
        FAKE_PLATFORM_Release();
        asker.join();
        storageAsker.join();
        EXPECT_EQ(QN_STATE_E_MOUNTED, enState);
        EXPECT_EQ(QN_STORAGE_STATE_E_NORMAL, enStorage);
    }

    /// Stops all; every picture that was given is in the five files.
    void ExpectAllFound(std::vector<FED_S> &vecFed, uint32_t u32Pictures, int64_t s64StallMs, const char *pszWhat)
    {
        uint32_t u32Given = 0;
        int64_t s64LongestMs = 0;
        for (size_t u = 0; u < vecFed.size(); u++)
        {
            EXPECT_GT(m_as64LongestMs[u], s64StallMs / 2) << "the ring has four slots, and every frame posts";
            EXPECT_LT(m_as64LongestMs[u], s64StallMs + SLOW_MACHINE_MS);
            s64LongestMs = std::max<int64_t>(s64LongestMs, m_as64LongestMs[u]);
            EXPECT_EQ(QN_RECORD_STATE_RUNNING, vecFed[u].pSession->enRecordState);
            u32Given += vecFed[u].u32Pictures;
            Stop(vecFed[u]);
        }
        ASSERT_TRUE(WaitForIdle());
        EXPECT_EQ(5u, TEST_List(Folder(0)).size());
        EXPECT_EQ(u32Given, Found());
        EXPECT_EQ(4 * u32Pictures, u32Given);
        FIGURES_Say("%s stalled for %lld ms: %u pictures of 4 sessions given, %u found; longest call %lld ms", pszWhat,
                    static_cast<long long>(s64StallMs), u32Given, Found(), static_cast<long long>(s64LongestMs));
    }

    std::atomic<uint32_t> m_u32Returned{0}; ///< calls for a frame, of all sessions
    std::atomic<int64_t> m_as64LongestMs[4] = {};
};

static void Join(std::vector<std::thread> &vecThreads)
{
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
}

TEST_F(Stalled, BlocksFrameCallsForAsLongAndLosesNone)
{
    const PROCESS_LIMIT limit(120);
    std::vector<FED_S> vecFed;
    ASSERT_NO_FATAL_FAILURE(Begin(vecFed));
    s_s32Stalls = 1;
    std::vector<std::thread> vecThreads = FeedAll(vecFed, PICTURES);
    AskWhileStalled(vecFed);
    Join(vecThreads);
    ExpectAllFound(vecFed, PICTURES, STALL_MS, "trailer");
}

TEST_F(Stalled, InAMountAlsoBlocksTheQuestionsForTheStatesAndLosesNone)
{
    const PROCESS_LIMIT limit(120);
    const int64_t s64MountMs = MountMs();
    const uint32_t u32Pictures = static_cast<uint32_t>((s64MountMs + BESIDES_THE_MOUNT) * 1000 / PERIOD_US);
    std::vector<FED_S> vecFed;
    ASSERT_NO_FATAL_FAILURE(Begin(vecFed));
    const std::string strFolderLine = "mkdir -p " + Folder(0);
    const int32_t s32FolderLines = FAKE_PLATFORM_CommandCount(strFolderLine);
    s_s32Stalls = 0;
    std::vector<std::thread> vecThreads = FeedAll(vecFed, u32Pictures);
    HoldUpMount(vecFed, s64MountMs);
    Join(vecThreads);
    for (const FED_S &stFed : vecFed)
    {
        pthread_mutex_lock(&stFed.pSession->stMutex);
        stFed.pSession->tFileStart -= 60; // files below five seconds are removed
        pthread_mutex_unlock(&stFed.pSession->stMutex);
    }
    ExpectAllFound(vecFed, u32Pictures, s64MountMs, "mount");
    EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("; mount "));
    EXPECT_EQ(s32FolderLines + 1, FAKE_PLATFORM_CommandCount(strFolderLine)) << "what follows a mount was done";
}
