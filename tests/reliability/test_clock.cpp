// The wall clock steps while sessions record, stands in another zone, or beyond the year 2038.

#include <atomic>
#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>

#include "session.h"
#include "virtual_clock.h"

using namespace libquarrin;

static constexpr int64_t NOON = 1700049600;  // 2023-11-15-12-00-00
static constexpr uint32_t TEN_SECONDS = 250; // pictures

using Names = std::vector<std::string>;

class Clock : public RELIABILITY_TEST
{
protected:
    /// Records ten seconds, lets the clock step, records ten more.
    Names RecordAcross(int64_t s64StepSeconds)
    {
        CLOCK_Set(NOON * 1000);
        FED_S stFed = Make(QN_FILE_FMT_E_MKV, 60);
        EXPECT_EQ(0u, QN_RecordStart(stFed.pSession, nullptr));
        WriteOnClock(stFed, TEN_SECONDS);
        CLOCK_Step(s64StepSeconds * 1000);
        WriteOnClock(stFed, TEN_SECONDS);
        Stop(stFed);
        EXPECT_TRUE(WaitForIdle());
        m_u32Given = stFed.u32Pictures;
        return TEST_List(Folder(0));
    }

    uint32_t m_u32Given = 0;
};

TEST_F(Clock, StepsOfASecondMoveTheEndOfTheNameAlone)
{
    InitMounted();
    EXPECT_EQ(Names{"2023-11-15-12-00-00.To.2023-11-15-12-00-21.mkv"}, RecordAcross(1));
    EXPECT_EQ(m_u32Given, Found());
}

TEST_F(Clock, StepsBackOfASecondMoveTheEndOfTheNameAlone)
{
    InitMounted();
    EXPECT_EQ(Names{"2023-11-15-12-00-00.To.2023-11-15-12-00-19.mkv"}, RecordAcross(-1));
    EXPECT_EQ(m_u32Given, Found());
}

TEST_F(Clock, AnHourForwardsSplitsAndLosesNothing)
{
    InitMounted();
    EXPECT_EQ(
        (Names{"2023-11-15-12-00-00.To.2023-11-15-13-00-10.mkv", "2023-11-15-13-00-10.To.2023-11-15-13-00-20.mkv"}),
        RecordAcross(3600));
    EXPECT_EQ(m_u32Given, Found());
}

TEST_F(Clock, ADayForwardsSplitsAndLosesNothing)
{
    InitMounted();
    EXPECT_EQ(
        (Names{"2023-11-15-12-00-00.To.2023-11-16-12-00-10.mkv", "2023-11-16-12-00-10.To.2023-11-16-12-00-20.mkv"}),
        RecordAcross(86400));
    EXPECT_EQ(m_u32Given, Found());
}

// Kept: the time since the begin counts without a sign, so the file is split off at once, and one that ends before it
// began counts as shorter than five seconds. It goes with a printed line; what is recorded from then on is whole.
TEST_F(Clock, AnHourBackSplitsAndDropsTheFileThatWouldEndBeforeItsBegin)
{
    InitMounted();
    STDOUT_CAPTURE out;
    const Names vecNames = RecordAcross(-3600);
    EXPECT_EQ(Names{"2023-11-15-11-00-10.To.2023-11-15-11-00-20.mkv"}, vecNames);
    EXPECT_TRUE(out.Has("2023-11-15-12-00-00.To.unknown.mkv ,time is less 5s\n"));
    EXPECT_EQ(TEN_SECONDS, Found());
}

TEST_F(Clock, ADayBackDoesTheSame)
{
    InitMounted();
    STDOUT_CAPTURE out;
    const Names vecNames = RecordAcross(-86400);
    EXPECT_EQ(Names{"2023-11-14-12-00-10.To.2023-11-14-12-00-20.mkv"}, vecNames);
    EXPECT_TRUE(out.Has("2023-11-15-12-00-00.To.unknown.mkv ,time is less 5s\n"));
    EXPECT_EQ(TEN_SECONDS, Found());
}

TEST_F(Clock, StepsBackHarmNoFileThatWasFinishedBefore)
{
    InitMounted();
    CLOCK_Set((NOON - 60) * 1000);
    FED_S stEarlier = Make(QN_FILE_FMT_E_TS, 60);
    ASSERT_EQ(0u, QN_RecordStart(stEarlier.pSession, nullptr));
    WriteOnClock(stEarlier, TEN_SECONDS);
    Stop(stEarlier);
    const std::string strEarlier = Folder(0) + "/2023-11-15-11-59-00.To.2023-11-15-11-59-10.ts";
    const std::string strBytes = TEST_ReadFile(strEarlier);
    ASSERT_NE("", strBytes);
    for (const int64_t s64Step : {-1, -60, -3600, -86400})
    {
        RecordAcross(s64Step);
        EXPECT_EQ(strBytes, TEST_ReadFile(strEarlier));
    }
}

TEST_F(Clock, NamesAreUtcAndInOrderInEveryZone)
{
    for (const char *pszZone : {"UTC0", "IST-5:30", "EST5EDT,M3.2.0,M11.1.0", "LINT-14"})
    {
        SCOPED_TRACE(pszZone);
        setenv("TZ", pszZone, 1);
        tzset();
        InitMounted();
        EXPECT_EQ(2u, RecordAcross(3600).size());
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        QN_STORAGE_ScanFolder(Folder(0).c_str(), vecFiles);
        ASSERT_EQ(2u, vecFiles.size());
        EXPECT_EQ("2023-11-15-12-00-00.To.2023-11-15-13-00-10.mkv", vecFiles[0].strName);
        EXPECT_EQ(3610, vecFiles[1].tStart - vecFiles[0].tStart);
        EXPECT_EQ(10, vecFiles[1].tEnd - vecFiles[1].tStart);
        for (const tagQN_FILE_INFO_S &stFile : vecFiles)
        {
            EXPECT_EQ(0, remove(stFile.strPath.c_str()));
        }
        EXPECT_EQ(0u, QN_Destroy(m_pHandle));
        m_pHandle = nullptr;
    }
    unsetenv("TZ");
    tzset();
}

TEST_F(Clock, GoesOnOverTheYear2038AndFarBeyond)
{
    InitMounted();
    // 2038-01-19-03-14-00, eight seconds before a signed 32-bit count is full; 2106, an unsigned one; 2200.
    for (const int64_t s64Begin : {int64_t{2147483640}, int64_t{4294967290}, int64_t{7258118400}})
    {
        CLOCK_Set(s64Begin * 1000);
        FED_S stFed = Make(QN_FILE_FMT_E_MKV, 8);
        ASSERT_EQ(0u, QN_RecordStart(stFed.pSession, nullptr));
        WriteOnClock(stFed, 2 * TEN_SECONDS);
        Stop(stFed);
    }
    ASSERT_TRUE(WaitForIdle());
    const Names vecExpected = {
        "2038-01-19-03-14-00.To.2038-01-19-03-14-08.mkv", "2038-01-19-03-14-08.To.2038-01-19-03-14-16.mkv",
        "2106-02-07-06-28-10.To.2106-02-07-06-28-18.mkv", "2106-02-07-06-28-18.To.2106-02-07-06-28-26.mkv",
        "2200-01-01-00-00-00.To.2200-01-01-00-00-08.mkv", "2200-01-01-00-00-08.To.2200-01-01-00-00-16.mkv"};
    EXPECT_EQ(vecExpected, TEST_List(Folder(0))); // each rest is shorter than five seconds
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    QN_STORAGE_ScanFolder(Folder(0).c_str(), vecFiles);
    ASSERT_EQ(6u, vecFiles.size());
    EXPECT_LT(vecFiles[1].tStart, vecFiles[2].tStart);
    EXPECT_EQ(8, vecFiles[5].tEnd - vecFiles[5].tStart);
}

TEST_F(Clock, TwoSessionsOfOneSecondGetTwoNames)
{
    InitMounted();
    CLOCK_Set(NOON * 1000);
    FED_S stFirst = Make(QN_FILE_FMT_E_MKV, 0);
    FED_S stSecond = Make(QN_FILE_FMT_E_MKV, 0);
    ASSERT_EQ(0u, QN_RecordStart(stFirst.pSession, nullptr));
    std::atomic<bool> bStarted{false};
    std::thread clock(
        [&bStarted]
        {
            while (!bStarted)
            {
                CLOCK_Step(100);
                TEST_SleepMs(20);
            }
        });
    EXPECT_EQ(0u, QN_RecordStart(stSecond.pSession, nullptr)); // waits for the next second
    bStarted = true;
    clock.join();
    EXPECT_NE(stFirst.pSession->strFilePath, stSecond.pSession->strFilePath);
    WriteOnClock(stFirst, TEN_SECONDS);
    WriteOnClock(stSecond, TEN_SECONDS);
    Stop(stFirst);
    Stop(stSecond);
    EXPECT_EQ(2u, TEST_List(Folder(0)).size());
    EXPECT_EQ(2 * TEN_SECONDS, Found());
}

TEST_F(Clock, AClockThatStandsStillRefusesTheSecondSessionWithAMessage)
{
    InitMounted();
    CLOCK_Set(NOON * 1000);
    FED_S stFirst = Make(QN_FILE_FMT_E_MKV, 0);
    FED_S stSecond = Make(QN_FILE_FMT_E_MKV, 0);
    ASSERT_EQ(0u, QN_RecordStart(stFirst.pSession, nullptr));
    EXPECT_EQ(7u, QN_RecordStart(stSecond.pSession, nullptr));
    EXPECT_TRUE(FAKE_PLATFORM_Logged("another recording has the name of this second"));
    WriteOnClock(stFirst, TEN_SECONDS);
    Stop(stFirst);
    Stop(stSecond);
    EXPECT_EQ(TEN_SECONDS, Found());
}
