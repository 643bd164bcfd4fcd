// Many short sessions, one after another, with splits, listing, replay and automatic deletion: nothing grows.

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "session.h"
#include "support/ffmpeg_calls.h"
#include "support/process.h"
#include "verdict.h"
#include "virtual_clock.h"

using namespace libquarrin;

static constexpr int64_t NOON = 1700049600;
static constexpr int64_t ROOM_KB = 4096;   // what the C library may keep of freed memory
static constexpr uint32_t PICTURES = 750;  // of a session: thirty seconds of film
static constexpr int32_t SOAK_POINTS = 20; // by default: ten minutes of film

static int64_t ResidentKb()
{
    int64_t s64Pages = 0;
    std::ifstream("/proc/self/statm") >> s64Pages >> s64Pages; // the second number
    return s64Pages * sysconf(_SC_PAGESIZE) / 1024;
}

class Soak : public RELIABILITY_TEST
{
protected:
    /// Thirty seconds of film in three files, all listed, the newest replayed.
    void RunSession(QN_FILE_FMT_E enFormat)
    {
        FED_S stFed = Make(enFormat, 10);
        ASSERT_EQ(0u, QN_RecordStart(stFed.pSession, nullptr));
        WriteOnClock(stFed, PICTURES);
        Stop(stFed);
        ASSERT_TRUE(WaitForIdle());
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        QN_STORAGE_ScanFolder(Folder(0).c_str(), vecFiles);
        ASSERT_FALSE(vecFiles.empty());
        tagQN_REPLAY_PARAM_S stParam = {};
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        ASSERT_EQ(0u, QN_ReplayOpenByFilePath(m_pHandle, vecFiles.back().strPath, stParam, pReplay));
        uint8_t *pu8Data = nullptr;
        uint32_t u32Size = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        while (QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo) == 0)
        {
            QN_ReplayFreeFrame(pReplay, pu8Data);
        }
        QN_ReplayClose(pReplay);
    }
};

TEST_F(Soak, MemoryDescriptorsAndThreadsStayFlat)
{
    m_stParam.astVolume[0].u32QuotaBytes = 4 * 1024 * 1024; // the oldest go all the time
    InitMounted();
    CLOCK_Set(NOON * 1000);
    const int32_t s32Sessions = POINTS(SOAK_POINTS) * 2;
    const int32_t s32WarmUp = s32Sessions / 4;
    const char *pszTable = getenv("QUARRIN_SOAK_TABLE");
    std::ofstream table(pszTable == nullptr ? "/dev/null" : pszTable);
    table << "minutes,resident_kb,descriptors,threads\n";
    int64_t s64WarmKb = 0;
    int32_t s32Descriptors = 0;
    int32_t s32Threads = 0;
    for (int32_t i = 0; i < s32Sessions && !HasFailure(); i++)
    {
        RunSession(static_cast<QN_FILE_FMT_E>(i % 4));
        FAKE_PLATFORM_Reset(); // the fakes take notes, which grow: that is not what is asked
        FFMPEG_CALLS_Reset();
        const int64_t s64Kb = ResidentKb();
        table << (i + 1) * 0.5 << ',' << s64Kb << ',' << PROCESS_DescriptorCount() << ',' << PROCESS_ThreadCount()
              << '\n';
        if (i < s32WarmUp)
        {
            s64WarmKb = std::max(s64WarmKb, s64Kb);
            s32Descriptors = PROCESS_DescriptorCount();
            s32Threads = PROCESS_ThreadCount();
            continue;
        }
        EXPECT_LE(s64Kb, s64WarmKb + ROOM_KB);
        EXPECT_EQ(s32Descriptors, PROCESS_DescriptorCount());
        EXPECT_EQ(s32Threads, PROCESS_ThreadCount());
    }
    FIGURES_Say("soak: %d sessions, %d minutes of film: resident %lld KiB after the warm-up, %lld KiB at the end; %d "
                "descriptors, %d threads",
                s32Sessions, s32Sessions / 2, static_cast<long long>(s64WarmKb), static_cast<long long>(ResidentKb()),
                s32Descriptors, s32Threads);
}
