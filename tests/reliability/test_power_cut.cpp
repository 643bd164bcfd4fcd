// The power cut while recorders write to ext4 cards: with --durable 1 and without.

#include <algorithm>
#include <fstream>
#include <random>

#include <gtest/gtest.h>

#include "card_run.h"
#include "support/wait.h"

using namespace libquarrin;

static constexpr int32_t SIDE_BY_SIDE = 16;
static constexpr uint32_t HELD_BACK = 3; // frames that FFmpeg holds back to bring two streams in order
static constexpr uint32_t TS_LOST_MOST = 3;
static constexpr int64_t FRAME_REAL_MS = 21; // from one picture to the next
static constexpr int64_t JOURNAL_MS = 5000;  // ext4 writes its journal this often
static constexpr int64_t LATE_MS = 5000;     // the kernel's threads may be late on a busy machine

static int64_t Centiseconds(const char *pszPath)
{
    int64_t s64Value = 0;
    std::ifstream(pszPath) >> s64Value;
    return s64Value;
}

/// From here on the kernel has written back by itself what was written.
static int64_t WriteBackMs()
{
    return 10 * (Centiseconds("/proc/sys/vm/dirty_expire_centisecs") +
                 Centiseconds("/proc/sys/vm/dirty_writeback_centisecs")) +
           JOURNAL_MS + LATE_MS;
}

struct CUT_FIGURES_S
{
    FIGURE_S stLostMs[4]; ///< of files in progress, by container: pictures lost, in milliseconds of real time
    FIGURE_S stPassMs;
    FIGURE_S stCallUs;
    int64_t s64Whole = 0;     ///< finished files that hold everything
    int64_t s64Damaged = 0;   ///< finished files that do not
    int64_t s64Empty = 0;     ///< of these, files without a byte
    int64_t s64DamagedMs = 0; ///< the oldest of them, counted from its split to the cut
};

class PowerCut : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const std::string strWhyNot = CARD::WhyNot();
        if (!strWhyNot.empty())
        {
            GTEST_SKIP() << strWhyNot;
        }
    }

    /// Runs the cuts with --durable and those without, many side by side: the latter mostly wait.
    void Run(int32_t s32Points)
    {
        for (int32_t s32First = 0; s32First < s32Points && !HasFailure(); s32First += SIDE_BY_SIDE)
        {
            std::vector<std::unique_ptr<CARD_RUN>> vecRuns;
            for (int32_t i = s32First; i < std::min(s32Points, s32First + SIDE_BY_SIDE); i++)
            {
                for (const bool bDurable : {true, false})
                {
                    vecRuns.push_back(std::make_unique<CARD_RUN>(ParamOf(i, bDurable)));
                    ASSERT_TRUE(vecRuns.back()->Begin());
                }
            }
            RunSideBySide(vecRuns);
            for (size_t u = 0; u < vecRuns.size(); u++)
            {
                SCOPED_TRACE(
                    "replay: QUARRIN_SEED=" + std::to_string(SEED() + static_cast<uint32_t>(s32First) + u / 2) +
                    " QUARRIN_POINTS=1 test_reliability --gtest_filter='PowerCut.*'");
                LookAt(*vecRuns[u]);
            }
        }
    }

    static CARD_RUN_PARAM_S ParamOf(int32_t s32Point, bool bDurable)
    {
        std::mt19937 random(SEED() + static_cast<uint32_t>(s32Point));
        CARD_RUN_PARAM_S stParam;
        stParam.enFormat = static_cast<QN_FILE_FMT_E>((SEED() + static_cast<uint32_t>(s32Point)) % 4);
        stParam.bAudio = random() % 2 == 0;
        stParam.u32Durable = bDurable ? 1 : 0;
        stParam.s64CutAfterMs = bDurable ? 2000 + static_cast<int64_t>(random() % 14000)
                                         : WriteBackMs() + 6000 + static_cast<int64_t>(random() % 4000);
        return stParam;
    }

    static void RunSideBySide(std::vector<std::unique_ptr<CARD_RUN>> &vecRuns)
    {
        bool bAll = false;
        while (!bAll)
        {
            bAll = true;
            for (std::unique_ptr<CARD_RUN> &upRun : vecRuns)
            {
                bAll = upRun->Poll() && bAll;
            }
            TEST_SleepMs(1);
        }
    }

    void LookAt(CARD_RUN &run)
    {
        ASSERT_TRUE(run.MountAgain()) << "the file system does not mount again";
        ASSERT_FALSE(run.Log().bFailed);
        EXPECT_TRUE(run.IsOldFileWhole());
        FiguresOf(run).stCallUs.Add(run.Log().s64LongestUs);
        FiguresOf(run).stPassMs.Add(run.LongestPassMs());
        for (const VERDICT_FILE_S &stFile : run.Look())
        {
            SCOPED_TRACE(stFile.strPath + ", " + std::to_string(stFile.s64Bytes) + " bytes, split off " +
                         std::to_string(run.SplitBefore(stFile)) + " ms before the cut, " +
                         std::to_string(stFile.u32FoundVideo) + " of " + std::to_string(stFile.u32GivenVideo) +
                         " pictures, longest pass " + std::to_string(run.LongestPassMs()) + " ms");
            Count(run, stFile);
            if (run.stParam.u32Durable != 0)
            {
                LookAtDurable(run, stFile);
            }
            else if (run.SplitBefore(stFile) > WriteBackMs())
            {
                EXPECT_TRUE(stFile.bFinal);
                ExpectWhole(stFile);
            }
        }
    }

    static void ExpectWhole(const VERDICT_FILE_S &stFile)
    {
        EXPECT_EQ(stFile.u32GivenVideo, stFile.u32FoundVideo);
        EXPECT_EQ(stFile.u32GivenAudio, stFile.u32FoundAudio);
    }

    /// Real time from the first picture that is missing to the cut; 0: none is.
    static int64_t LostMs(const CARD_RUN &run, const VERDICT_FILE_S &stFile)
    {
        return stFile.LostVideo() == 0 ? 0 : run.AgeOf(stFile, stFile.u32FoundVideo);
    }

    CUT_FIGURES_S &FiguresOf(const CARD_RUN &run)
    {
        return m_astFigures[run.stParam.u32Durable != 0 ? 1 : 0];
    }

    void Count(const CARD_RUN &run, const VERDICT_FILE_S &stFile)
    {
        CUT_FIGURES_S &stFigures = FiguresOf(run);
        if (!stFile.bFinal)
        {
            stFigures.stLostMs[run.stParam.enFormat].Add(LostMs(run, stFile));
            return;
        }
        const bool bWhole = stFile.LostVideo() == 0 && stFile.LostAudio() == 0;
        stFigures.s64Whole += bWhole ? 1 : 0;
        stFigures.s64Damaged += bWhole ? 0 : 1;
        stFigures.s64Empty += stFile.s64Bytes == 0 ? 1 : 0;
        stFigures.s64DamagedMs =
            bWhole ? stFigures.s64DamagedMs : std::max(stFigures.s64DamagedMs, run.SplitBefore(stFile));
    }

    /// One second, one pass, and what the container itself holds back.
    static void LookAtDurable(const CARD_RUN &run, const VERDICT_FILE_S &stFile)
    {
        const int64_t s64Allowed = 1000 * run.stParam.u32Durable + run.LongestPassMs() + 2 * FRAME_REAL_MS;
        const int64_t s64SplitBefore = run.SplitBefore(stFile);
        if (stFile.bFinal)
        {
            EXPECT_GT(stFile.s64Bytes, 0) << "a finished name over an empty file";
        }
        if (s64SplitBefore > s64Allowed)
        {
            EXPECT_TRUE(stFile.bFinal);
            ExpectWhole(stFile);
            return;
        }
        const uint32_t u32Safe = run.GivenBefore(stFile, s64Allowed);
        const uint32_t u32Held = run.stParam.bAudio ? HELD_BACK : 0;
        if (run.stParam.enFormat == QN_FILE_FMT_E_MKV)
        {
            EXPECT_GE(stFile.u32FoundVideo + RECORDER_GOP + u32Held, u32Safe);
        }
        else if (run.stParam.enFormat == QN_FILE_FMT_E_TS)
        {
            EXPECT_GE(stFile.u32FoundVideo + TS_LOST_MOST, u32Safe);
        }
        // MP4 and MOV: nothing can be read before their trailer.
    }

    void Say(bool bDurable) const
    {
        const char *pszWhat = bDurable ? "with --durable 1" : "without --durable";
        const CUT_FIGURES_S &stFigures = m_astFigures[bDurable ? 1 : 0];
        FIGURES_Say("power cut %s: finished files: %lld whole, %lld not (%lld of them empty; the oldest %lld ms old)",
                    pszWhat, static_cast<long long>(stFigures.s64Whole), static_cast<long long>(stFigures.s64Damaged),
                    static_cast<long long>(stFigures.s64Empty), static_cast<long long>(stFigures.s64DamagedMs));
        for (int32_t i = QN_FILE_FMT_E_MKV; i <= QN_FILE_FMT_E_TS; i++)
        {
            FIGURES_Say("power cut %s: %s in progress, milliseconds of film lost in real time: %s", pszWhat,
                        QN_STORAGE_FmtType2FileExt(static_cast<QN_FILE_FMT_E>(i)),
                        stFigures.stLostMs[i].Text().c_str());
        }
        FIGURES_Say("power cut %s: longest call for a frame, us: %s; longest pass, ms: %s", pszWhat,
                    stFigures.stCallUs.Text().c_str(), stFigures.stPassMs.Text().c_str());
    }

    CUT_FIGURES_S m_astFigures[2]; ///< without --durable, and with it
};

TEST_F(PowerCut, CostsASecondAndASyncWhenDurableAndHarmsNoFileThatTheKernelHadTimeToWrite)
{
    Run(POINTS(8));
    Say(true);
    Say(false);
}
