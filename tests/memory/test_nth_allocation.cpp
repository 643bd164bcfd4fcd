// Memory runs out once, at each allocation in turn, or from one on for good: nothing ends the host's process, nothing
// hangs, nothing stays taken, and with memory again everything goes on.

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <stdlib.h>

#include <gtest/gtest.h>

#include "memory/life.h"
#include "support/scratch.h"
#include "support/wait.h"
#ifdef QUARRIN_TEST_FAULTS
#include "card/sim/faults.h"
#endif

using namespace libquarrin;

static constexpr size_t SIDE_BY_SIDE = 6;

struct RUNNING_S
{
    pid_t pid;
    std::string strFolder;
    LIFE_S stLife;
};

class NthAllocation : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_strFolder = TEST_MakeScratch("memory");
        ASSERT_NE("", m_strFolder);
    }

    void TearDown() override
    {
        EXPECT_TRUE(TEST_RemoveScratch(m_strFolder));
    }

    static void SetUpTestSuite()
    {
        LIFE_Prepare();
    }

    /// Every life of a kind; at most so many of them, spread evenly, when there are more allocations.
    void Lives(const LIFE_S &stKind, int64_t s64Most)
    {
        LIFE_S stLife = stKind;
        if (const char *pszOne = getenv("QUARRIN_ALLOCATION")) // that one alone, to look at it
        {
            stLife.s64Nth = atoll(pszOne);
            m_running.push_back(Begin(stLife));
            TakeOne();
            return;
        }
        const LIFE_END_S stWhole = EndOf(Begin(stKind));
        ASSERT_EQ("", stWhole.strTrouble);
        ASSERT_GT(stWhole.s64Count, 10);
        const int64_t s64Step = std::max<int64_t>(1, (stWhole.s64Count + s64Most - 1) / s64Most);
        const int64_t s64Offset = Seed() % s64Step;
        for (stLife.s64Nth = 1 + s64Offset; stLife.s64Nth <= stWhole.s64Count + s64Step; stLife.s64Nth += s64Step)
        {
            m_running.push_back(Begin(stLife));
            if (m_running.size() == SIDE_BY_SIDE)
            {
                TakeOne();
            }
        }
        while (!m_running.empty())
        {
            TakeOne();
        }
        EXPECT_LT(m_s32Foreign, m_s32Lives / 2) << "crashes of other libraries hide ours";
    }

    static int64_t Most()
    {
        const char *pszPoints = getenv("QUARRIN_ALLOCATIONS");
        return pszPoints != nullptr ? atoll(pszPoints) : 120 / TEST_SLOW;
    }

    static int64_t Seed()
    {
        const char *pszSeed = getenv("QUARRIN_SEED");
        return pszSeed != nullptr ? atoll(pszSeed) : 0;
    }

private:
    RUNNING_S Begin(const LIFE_S &stLife)
    {
        const std::string strFolder = m_strFolder + "/" + std::to_string(++m_s32Lives);
        std::filesystem::create_directory(strFolder);
        return {LIFE_Begin(stLife, strFolder), strFolder, stLife};
    }

    static LIFE_END_S EndOf(const RUNNING_S &stRunning)
    {
        return LIFE_Wait(stRunning.pid, stRunning.strFolder);
    }

    void TakeOne()
    {
        const RUNNING_S stRunning = m_running.front();
        m_running.pop_front();
        const LIFE_END_S stEnd = EndOf(stRunning);
        m_s32Foreign += stEnd.bForeignCrash ? 1 : 0;
        EXPECT_EQ("", stEnd.strTrouble) << "allocation " << stRunning.stLife.s64Nth
                                        << (stRunning.stLife.bAllLater ? " and all later ones" : "") << ", "
                                        << QN_STORAGE_FmtType2FileExt(stRunning.stLife.enFormat) << ", call "
                                        << stRunning.stLife.s32Call;
    }

    std::string m_strFolder;
    std::deque<RUNNING_S> m_running;
    int32_t m_s32Lives = 0;
    int32_t m_s32Foreign = 0;
};

TEST_F(NthAllocation, OneFailsInMatroska)
{
    Lives({QN_FILE_FMT_E_MKV}, Most());
}

TEST_F(NthAllocation, OneFailsInMp4)
{
    Lives({QN_FILE_FMT_E_MP4}, Most());
}

TEST_F(NthAllocation, OneAndAllLaterFailInMatroska)
{
    LIFE_S stLife = {QN_FILE_FMT_E_MKV};
    stLife.bAllLater = true;
    Lives(stLife, Most());
}

TEST_F(NthAllocation, OneAndAllLaterFailInMp4)
{
    LIFE_S stLife = {QN_FILE_FMT_E_MP4};
    stLife.bAllLater = true;
    Lives(stLife, Most());
}

#ifdef QUARRIN_TEST_FAULTS
TEST_F(NthAllocation, OneFailsBesideACallThatFails)
{
    for (const int32_t s32Call :
         {FAULT_CALL_OPEN, FAULT_CALL_WRITE, FAULT_CALL_RENAME, FAULT_CALL_UNLINK, FAULT_CALL_STATFS, FAULT_CALL_MKDIR})
    {
        LIFE_S stLife = {s32Call % 2 == 0 ? QN_FILE_FMT_E_MKV : QN_FILE_FMT_E_MP4};
        stLife.s32Call = s32Call;
        stLife.s32CallNth = s32Call == FAULT_CALL_WRITE ? 5 : 1;
        Lives(stLife, (Most() + 5) / 6);
    }
}
#endif
