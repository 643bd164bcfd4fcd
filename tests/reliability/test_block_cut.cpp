// The power cut at every write that reaches the card: what was flushed is there, of the rest anything may be.
//
// A recording happens once, in its own time; its log holds everything that a cut may leave of it, and a seed says what
// a state loses. A recording with a bad state is kept, so that the state can be judged again.

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "block_judge.h"
#include "support/wait.h"

using namespace libquarrin;

static constexpr uint32_t FORMATS = 4;
static constexpr uint32_t RUN_STATES = 167; // the log of a recording has fewer entries than three quarters of that
static constexpr uint32_t LYING_STATES = 8;
static constexpr int32_t RUN_MS = 60000;        // a recording takes five seconds
static constexpr uint32_t QUOTA_BYTES = 300000; // less than two files
static constexpr uint32_t SLOW_DURABLE = 3;     // files last a second, so that some are finished between two passes
static constexpr uint32_t SMALL_BLOCK = 1024;   // of cards below 512 MiB

using BLOCK_RUNS = std::vector<std::unique_ptr<BLOCK_RUN>>;

class BlockCut : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const std::string strWhyNot = CARD::WhyNot();
        if (!strWhyNot.empty())
        {
            GTEST_SKIP() << strWhyNot;
        }
        if (!FUSE_IMAGE::IsAvailable())
        {
            GTEST_SKIP() << "this machine has no FUSE (/dev/fuse cannot be opened)";
        }
    }

    static BLOCK_RUN_PARAM_S ParamOf(uint32_t u32Run)
    {
        std::mt19937 random(SEED() + u32Run);
        BLOCK_RUN_PARAM_S stParam;
        stParam.enFormat = static_cast<QN_FILE_FMT_E>(u32Run % FORMATS);
        stParam.bAudio = random() % 2 == 0;
        stParam.u32QuotaBytes = (SEED() + u32Run + u32Run / FORMATS) % 2 == 0 ? QUOTA_BYTES : 0;
        stParam.u32Durable = random() % 4 == 0 ? SLOW_DURABLE : stParam.u32Durable;
        stParam.u32BlockBytes = random() % 4 == 0 ? SMALL_BLOCK : stParam.u32BlockBytes;
        stParam.u32Run = u32Run;
        stParam.u32Seed = SEED();
        return stParam;
    }

    /// Records side by side.
    static BLOCK_RUNS Record(uint32_t u32First, uint32_t u32Count)
    {
        BLOCK_RUNS vecRuns;
        for (uint32_t i = 0; i < u32Count; i++)
        {
            vecRuns.push_back(std::make_unique<BLOCK_RUN>(ParamOf(u32First + i)));
            EXPECT_TRUE(vecRuns.back()->Begin());
        }
        const auto fnEnded = [&vecRuns]
        {
            bool bAll = true;
            for (const std::unique_ptr<BLOCK_RUN> &upRun : vecRuns)
            {
                bAll = upRun->Poll() && bAll;
            }
            return bAll;
        };
        EXPECT_TRUE(HasFailure() || TEST_WaitFor(fnEnded, RUN_MS));
        for (const std::unique_ptr<BLOCK_RUN> &upRun : vecRuns)
        {
            EXPECT_TRUE(HasFailure() || upRun->End());
        }
        return vecRuns;
    }

    static uint32_t Prefixes(const BLOCK_RUN &run)
    {
        return static_cast<uint32_t>(run.stParam.u64Last - run.stParam.u64First) + 1;
    }

    /// Three of four states are the log up to an entry, each another one; when all have been, and otherwise, something
    /// of the writes since the last flush is lost.
    static WRITE_LOG_CUT_S CutOf(const BLOCK_RUN &run, uint32_t u32State)
    {
        std::vector<size_t> vecPrefixes(Prefixes(run));
        std::iota(vecPrefixes.begin(), vecPrefixes.end(), static_cast<size_t>(run.stParam.u64First));
        const uint32_t u32Seed = run.stParam.u32Seed + run.stParam.u32Run;
        std::mt19937 order(u32Seed);
        std::shuffle(vecPrefixes.begin(), vecPrefixes.end(), order);
        WRITE_LOG_CUT_S stCut;
        const size_t uPrefix = u32State / 4 * 3 + u32State % 4;
        if (u32State % 4 < 3 && uPrefix < vecPrefixes.size())
        {
            stCut.uEntries = vecPrefixes[uPrefix];
            return stCut;
        }
        constexpr WRITE_LOG_LOSS_E LOSSES[] = {WRITE_LOG_LOSS_TORN, WRITE_LOG_LOSS_WRITES, WRITE_LOG_LOSS_BLOCKS,
                                               WRITE_LOG_LOSS_BLOCKS};
        std::mt19937 random(u32Seed * 1000003 + u32State); // its neighbours use other numbers
        stCut.uEntries = vecPrefixes[random() % vecPrefixes.size()];
        stCut.enLoss = LOSSES[random() % std::size(LOSSES)];
        stCut.u32Seed = static_cast<uint32_t>(random());
        return stCut;
    }

    /// The states from one number to another, in the order of their cuts: so the log is gone through once.
    static std::vector<uint32_t> InOrder(const BLOCK_RUN &run, uint32_t u32States)
    {
        std::vector<uint32_t> vecStates(u32States);
        std::iota(vecStates.begin(), vecStates.end(), 0u);
        std::vector<size_t> vecEntries(u32States);
        std::transform(vecStates.begin(), vecStates.end(), vecEntries.begin(),
                       [&run](uint32_t u32State) { return CutOf(run, u32State).uEntries; });
        std::sort(vecStates.begin(), vecStates.end(),
                  [&vecEntries](uint32_t u32Left, uint32_t u32Right)
                  { return vecEntries[u32Left] < vecEntries[u32Right]; });
        return vecStates;
    }

    static void Tell(const BLOCK_RUN &run, uint32_t u32State, const std::vector<std::string> &vecWrong,
                     std::string &strKept)
    {
        if (strKept.empty())
        {
            strKept = run.Keep();
        }
        const WRITE_LOG_CUT_S stCut = CutOf(run, u32State);
        std::string strText;
        for (const std::string &strWrong : vecWrong)
        {
            strText += "\n  " + strWrong;
        }
        ADD_FAILURE() << "state " << u32State << " (" << stCut.uEntries << " of " << run.log.Entries()
                      << " entries, loss " << stCut.enLoss << ") of recording " << run.stParam.u32Run
                      << " with QUARRIN_SEED=" << run.stParam.u32Seed << strText << "\nreplay: QUARRIN_CUT=" << strKept
                      << " QUARRIN_STATE=" << u32State << " test_reliability --gtest_filter='BlockCut.Leaves*'";
    }

    /// Judges the states of one recording.
    static void Judge(BLOCK_RUN &run, const std::vector<uint32_t> &vecStates, BLOCK_FIGURES_S &stFigures)
    {
        BLOCK_JUDGE judge(run);
        ASSERT_TRUE(judge.IsReady());
        std::string strKept;
        for (const uint32_t u32State : vecStates)
        {
            const std::vector<std::string> vecWrong = judge.WhatIsWrong(CutOf(run, u32State), stFigures);
            if (!vecWrong.empty())
            {
                Tell(run, u32State, vecWrong, strKept);
            }
        }
    }

    /// Judges recordings side by side: a mount mostly waits.
    void JudgeAll(const BLOCK_RUNS &vecRuns, uint32_t u32States)
    {
        std::vector<BLOCK_FIGURES_S> vecFigures(vecRuns.size());
        std::vector<std::thread> vecThreads;
        for (size_t i = 0; i < vecRuns.size(); i++)
        {
            m_s64Entries += Prefixes(*vecRuns[i]);
            m_s64Prefixes += std::min(Prefixes(*vecRuns[i]), u32States - u32States / 4);
            vecThreads.emplace_back([&run = *vecRuns[i], &stFigures = vecFigures[i], u32States]
                                    { Judge(run, InOrder(run, u32States), stFigures); });
        }
        for (size_t i = 0; i < vecRuns.size(); i++)
        {
            vecThreads[i].join();
            m_stFigures.Add(vecFigures[i]);
        }
    }

    void Say(uint32_t u32States) const
    {
        FIGURES_Say("cut at a write: %u states, %lld of %lld prefixes of the logs among them", u32States,
                    static_cast<long long>(m_s64Prefixes), static_cast<long long>(m_s64Entries));
        FIGURES_Say("cut at a write: finished files: %lld whole, %lld not yet (%lld empty); %lld gone by the quota",
                    static_cast<long long>(m_stFigures.s64Whole), static_cast<long long>(m_stFigures.s64Damaged),
                    static_cast<long long>(m_stFigures.s64Empty), static_cast<long long>(m_stFigures.s64Gone));
        for (int32_t i = QN_FILE_FMT_E_MKV; i <= QN_FILE_FMT_E_TS; i++)
        {
            FIGURES_Say("cut at a write: %s in progress, milliseconds of film lost in real time: %s",
                        QN_STORAGE_FmtType2FileExt(static_cast<QN_FILE_FMT_E>(i)),
                        m_stFigures.stLostMs[i].Text().c_str());
        }
        FIGURES_Say("cut at a write: longest pass, ms: %s; passes late by, ms: %s", m_stFigures.stPassMs.Text().c_str(),
                    m_stFigures.stLateMs.Text().c_str());
    }

    BLOCK_FIGURES_S m_stFigures;
    int64_t m_s64Entries = 0;
    int64_t m_s64Prefixes = 0; ///< of these, so many were judged
};

TEST_F(BlockCut, LeavesWhatWasSyncedAndCostsNoMoreThanTheBound)
{
    const char *pszKept = getenv("QUARRIN_CUT");
    if (pszKept != nullptr)
    {
        BLOCK_RUN run{std::string(pszKept)};
        ASSERT_TRUE(run.Load());
        Judge(run, {static_cast<uint32_t>(NUMBER("QUARRIN_STATE", 0))}, m_stFigures);
        return;
    }
    const uint32_t u32States = static_cast<uint32_t>(NUMBER("QUARRIN_STATES", 50));
    uint32_t u32Done = 0;
    for (uint32_t u32Run = 0; u32Done < u32States && !HasFailure(); u32Run += FORMATS)
    {
        const BLOCK_RUNS vecRuns = Record(u32Run, FORMATS);
        ASSERT_FALSE(HasFailure());
        const uint32_t u32Each = std::min((u32States - u32Done + FORMATS - 1) / FORMATS, RUN_STATES);
        JudgeAll(vecRuns, u32Each);
        u32Done += u32Each * FORMATS;
    }
    Say(u32Done);
}

// What is judged here can be wrong: a card that keeps flushed writes to itself loses what it had promised.
TEST_F(BlockCut, SeesACardThatLiesAboutItsFlushes)
{
    const BLOCK_RUNS vecRuns = Record(SEED() % FORMATS, 1);
    ASSERT_FALSE(HasFailure());
    BLOCK_JUDGE judge(*vecRuns[0]);
    ASSERT_TRUE(judge.IsReady());
    size_t uWrong = 0;
    for (uint32_t i = 0; i < LYING_STATES; i++)
    {
        BLOCK_FIGURES_S stFigures;
        const size_t uAll = static_cast<size_t>(vecRuns[0]->stParam.u64Last);
        uWrong += judge.WhatIsWrong({uAll, WRITE_LOG_LOSS_LIES, SEED() + i}, stFigures).size();
    }
    EXPECT_GT(uWrong, 0u) << QN_STORAGE_FmtType2FileExt(vecRuns[0]->stParam.enFormat);
}
