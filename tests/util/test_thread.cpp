// The thread utility: named workers with a run flag, and detached one-shot jobs.

#include <atomic>
#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/capture.h"
#include "support/fake_platform.h"
#include "support/process.h"
#include "support/thread_creation.h"
#include "support/wait.h"
#include "util_thread/util_thread.h"

namespace
{

const char *const MARKERS = "88888888888888888888888888888888\n"
                            "65666666666666666666666666666\n"
                            "777777777777777777777777777777\n";

/// What the steps and jobs of these tests work on.
struct STEP_S
{
    std::atomic<int32_t> s32Begun{0};
    std::atomic<int32_t> s32Ended{0};
    std::atomic<bool> bHold{false}; ///< a step waits while it is set
    pthread_t tid = 0;
    bool bDetached = false;
    char szName[16] = {};
};

void Step(void *pArg)
{
    STEP_S *pStep = static_cast<STEP_S *>(pArg);
    pStep->s32Begun += 1;
    do
    {
        TEST_SleepMs(1);
    } while (pStep->bHold);
    pStep->s32Ended += 1;
}

void Job(void *pArg)
{
    STEP_S *pStep = static_cast<STEP_S *>(pArg);
    pStep->tid = pthread_self();
    prctl(PR_GET_NAME, pStep->szName);
    pthread_attr_t stAttr;
    pthread_getattr_np(pthread_self(), &stAttr);
    int s32Detach = 0;
    pthread_attr_getdetachstate(&stAttr, &s32Detach);
    pStep->bDetached = s32Detach == PTHREAD_CREATE_DETACHED;
    pthread_attr_destroy(&stAttr);
    pStep->s32Begun += 1;
}

} // namespace

class ThreadUtility : public ::testing::Test
{
protected:
    void SetUp() override
    {
        FAKE_PLATFORM_Reset();
        std::thread([] {}).join(); // a sanitizer starts a thread of its own with the first one
        THREAD_CREATION_Reset();
        m_s32Threads = PROCESS_ThreadCount(); // one of the test before may just be ending
    }

    void TearDown() override
    {
        THREAD_CREATION_Reset();
        EXPECT_TRUE(TEST_WaitFor([this] { return PROCESS_ThreadCount() <= m_s32Threads; })) << "a thread is left";
    }

    void Init(const char *pszName = "worker")
    {
        ASSERT_EQ(0, UTIL_THREAD_InitData(&m_stData, pszName, Step, &m_stStep));
    }

    bool WaitForSteps(int32_t s32Steps)
    {
        return TEST_WaitFor([this, s32Steps] { return m_stStep.s32Begun >= s32Steps; });
    }

    PROCESS_LIMIT m_limit{120};
    int32_t m_s32Threads = 0;
    STEP_S m_stStep;
    tagPTHREAD_DATA_S m_stData;
};

TEST_F(ThreadUtility, RefusesANullNameAndLeavesTheRecord)
{
    strcpy(m_stData.szName, "before");
    m_stData.s32Run = 7;
    EXPECT_EQ(-1, UTIL_THREAD_InitData(&m_stData, nullptr, Step, &m_stStep));

    const std::vector<FAKE_LOG_S> vecLogs = FAKE_PLATFORM_Logs();
    ASSERT_EQ(1u, vecLogs.size());
    EXPECT_EQ(3, vecLogs[0].s32Level);
    EXPECT_EQ("", vecLogs[0].strPrefix);
    EXPECT_EQ("Thread name must not be NULL\n", vecLogs[0].strText);
    EXPECT_STREQ("before", m_stData.szName);
    EXPECT_EQ(7, m_stData.s32Run);
    EXPECT_EQ(nullptr, m_stData.pfnFunc);
    EXPECT_EQ(nullptr, m_stData.pArg);
}

TEST_F(ThreadUtility, FillsARecordAndStartsNothing)
{
    memset(m_stData.szName, 'x', sizeof(m_stData.szName));
    m_stData.s32Run = 1;
    m_stData.tid = pthread_self();
    Init("event");

    char acName[32] = {};
    memcpy(acName, "event", 5);
    EXPECT_EQ(0, memcmp(acName, m_stData.szName, sizeof(acName)));
    EXPECT_EQ(0, m_stData.s32Run);
    EXPECT_EQ(pthread_t{0}, m_stData.tid);
    EXPECT_EQ(&Step, m_stData.pfnFunc);
    EXPECT_EQ(&m_stStep, m_stData.pArg);
    EXPECT_EQ(0, THREAD_CREATION_Count());
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(ThreadUtility, KeepsThirtyOneBytesOfALongName)
{
    const std::string strName(100, 'n');
    Init(strName.c_str());
    EXPECT_EQ(std::string(31, 'n'), m_stData.szName);
}

TEST_F(ThreadUtility, CallsTheStepAgainAndAgainOnANamedThread)
{
    Init("a-worker-with-a-name");
    EXPECT_EQ(0, UTIL_THREAD_Create(&m_stData, nullptr));
    EXPECT_TRUE(WaitForSteps(3));
    EXPECT_TRUE(PROCESS_HasThread("a-worker-with-a")); // the kernel keeps 15 characters
    EXPECT_EQ(1, m_stData.s32Run);

    EXPECT_EQ(0, UTIL_THREAD_Destory(&m_stData, 1));
    EXPECT_EQ(0, m_stData.s32Run);
    EXPECT_EQ(m_stStep.s32Begun, m_stStep.s32Ended);
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(ThreadUtility, SetsTheRunFlagBeforeTheThreadExistsAndPassesTheAttributesOn)
{
    Init();
    int32_t s32RunSeen = -1;
    const pthread_attr_t *pstSeen = nullptr;
    void *pArgSeen = nullptr;
    THREAD_CREATION_Before(
        [&](const THREAD_CREATION_S &stCreation)
        {
            s32RunSeen = m_stData.s32Run;
            pstSeen = stCreation.pstAttr;
            pArgSeen = stCreation.pArg;
        });
    pthread_attr_t stAttr;
    pthread_attr_init(&stAttr);
    EXPECT_EQ(0, UTIL_THREAD_Create(&m_stData, &stAttr));
    THREAD_CREATION_Before(nullptr);
    EXPECT_EQ(1, s32RunSeen);
    EXPECT_EQ(&stAttr, pstSeen);
    EXPECT_EQ(&m_stData, pArgSeen);
    UTIL_THREAD_Destory(&m_stData, 1);
    pthread_attr_destroy(&stAttr);
}

TEST_F(ThreadUtility, RunsNoStepWhenTheRunFlagWasClearedBeforeTheStart)
{
    Init();
    THREAD_CREATION_Before([this](const THREAD_CREATION_S &) { m_stData.s32Run = 0; });
    EXPECT_EQ(0, UTIL_THREAD_Create(&m_stData, nullptr));
    THREAD_CREATION_Before(nullptr);
    EXPECT_EQ(0, UTIL_THREAD_Destory(&m_stData, 1));
    EXPECT_EQ(0, m_stStep.s32Begun);
}

TEST_F(ThreadUtility, RunsNoStepForARunFlagOtherThanOne)
{
    Init();
    THREAD_CREATION_Before([this](const THREAD_CREATION_S &) { m_stData.s32Run = 2; });
    EXPECT_EQ(0, UTIL_THREAD_Create(&m_stData, nullptr));
    THREAD_CREATION_Before(nullptr);
    EXPECT_EQ(0, UTIL_THREAD_Destory(&m_stData, 1));
    EXPECT_EQ(0, m_stStep.s32Begun);
}

TEST_F(ThreadUtility, ReportsANegativeResultOfTheStart)
{
    Init();
    THREAD_CREATION_Fail(-5);
    EXPECT_EQ(-1, UTIL_THREAD_Create(&m_stData, nullptr));
    EXPECT_EQ(0, m_stData.s32Run);
    const std::vector<FAKE_LOG_S> vecLogs = FAKE_PLATFORM_Logs();
    ASSERT_EQ(1u, vecLogs.size());
    EXPECT_EQ(3, vecLogs[0].s32Level);
    EXPECT_EQ("Create thread failed\n", vecLogs[0].strText);
    EXPECT_EQ(0, UTIL_THREAD_Destory(&m_stData, 1)); // there is no thread to wait for
}

TEST_F(ThreadUtility, ReportsSuccessForAPositiveResultAndJoinsNoThreadLater)
{
    for (const tagBU_BOOL bJoin : {1, 0})
    {
        Init();
        THREAD_CREATION_Fail(EAGAIN);
        EXPECT_EQ(0, UTIL_THREAD_Create(&m_stData, nullptr));
        EXPECT_EQ(1, m_stData.s32Run);
        EXPECT_EQ(0, UTIL_THREAD_Destory(&m_stData, bJoin)); // by its meaningless thread id it would crash or hang
        EXPECT_EQ(0, m_stData.s32Run);
    }
    EXPECT_EQ(0, m_stStep.s32Begun);
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(ThreadUtility, DoesNotJoinTheThreadOfAnEarlierStartAgain)
{
    Init();
    EXPECT_EQ(0, UTIL_THREAD_Create(&m_stData, nullptr));
    EXPECT_TRUE(WaitForSteps(1));
    EXPECT_EQ(0, UTIL_THREAD_Destory(&m_stData, 1));
    THREAD_CREATION_Fail(ENOMEM);
    EXPECT_EQ(0, UTIL_THREAD_Create(&m_stData, nullptr)); // tid still holds the old thread
    EXPECT_EQ(0, UTIL_THREAD_Destory(&m_stData, 1));
}

TEST_F(ThreadUtility, JoinsTheThreadOfALaterStart)
{
    Init();
    EXPECT_EQ(0, UTIL_THREAD_Create(&m_stData, nullptr));
    EXPECT_TRUE(WaitForSteps(1));
    EXPECT_EQ(0, UTIL_THREAD_Destory(&m_stData, 1));
    const int32_t s32Begun = m_stStep.s32Begun;
    m_stStep.bHold = true;
    EXPECT_EQ(0, UTIL_THREAD_Create(&m_stData, nullptr)); // the record is used as it is
    EXPECT_TRUE(WaitForSteps(s32Begun + 1));
    {
        std::atomic<bool> bReturned{false};
        std::thread stopper(
            [&]
            {
                UTIL_THREAD_Destory(&m_stData, 1);
                bReturned = true;
            });
        EXPECT_TRUE(TEST_WaitFor([this] { return m_stData.s32Run == 0; }));
        EXPECT_FALSE(TEST_WaitFor([&bReturned] { return bReturned.load(); }, 50));
        m_stStep.bHold = false;
        stopper.join();
    }
    EXPECT_EQ(s32Begun + 1, m_stStep.s32Ended.load());
}

TEST_F(ThreadUtility, WaitsForTheRunningStepWhenItJoins)
{
    Init();
    m_stStep.bHold = true;
    EXPECT_EQ(0, UTIL_THREAD_Create(&m_stData, nullptr));
    EXPECT_TRUE(WaitForSteps(1));

    std::atomic<bool> bReturned{false};
    int32_t s32EndedAtReturn = -1;
    std::thread stopper(
        [&]
        {
            UTIL_THREAD_Destory(&m_stData, 1);
            s32EndedAtReturn = m_stStep.s32Ended;
            bReturned = true;
        });
    EXPECT_TRUE(TEST_WaitFor([this] { return m_stData.s32Run == 0; }));
    EXPECT_FALSE(TEST_WaitFor([&bReturned] { return bReturned.load(); }, 50));
    m_stStep.bHold = false;
    stopper.join();
    EXPECT_EQ(1, s32EndedAtReturn);
    EXPECT_EQ(1, m_stStep.s32Begun);
}

TEST_F(ThreadUtility, DoesNotWaitWhenItDetaches)
{
    static STEP_S stStep; // a detached thread may outlive the test by a moment
    static tagPTHREAD_DATA_S stData;
    stStep.s32Begun = 0;
    stStep.s32Ended = 0;
    stStep.bHold = true;
    ASSERT_EQ(0, UTIL_THREAD_InitData(&stData, "detached", Step, &stStep));
    EXPECT_EQ(0, UTIL_THREAD_Create(&stData, nullptr));
    EXPECT_TRUE(TEST_WaitFor([] { return stStep.s32Begun == 1; }));
    EXPECT_EQ(0, UTIL_THREAD_Destory(&stData, 0)); // while the step runs
    EXPECT_EQ(0, stStep.s32Ended);
    EXPECT_EQ(0, stData.s32Run);
    EXPECT_TRUE(PROCESS_HasThread("detached"));
    stStep.bHold = false;
    EXPECT_TRUE(TEST_WaitFor([] { return !PROCESS_HasThread("detached"); }));
    EXPECT_EQ(1, stStep.s32Begun); // it ended after its step
}

TEST_F(ThreadUtility, RunsAJobOnceOnADetachedThreadWithoutANameOfItsOwn)
{
    std::string strText;
    {
        STDOUT_CAPTURE capture;
        EXPECT_EQ(0, UTIL_THREAD_RunFuncAsync(Job, &m_stStep));
        EXPECT_TRUE(WaitForSteps(1));
        strText = capture.Text();
    }
    EXPECT_EQ(MARKERS, strText);
    EXPECT_TRUE(TEST_WaitFor([this] { return PROCESS_ThreadCount() <= m_s32Threads; }));
    EXPECT_EQ(1, m_stStep.s32Begun);
    EXPECT_TRUE(m_stStep.bDetached);
    char szOwn[16] = {};
    prctl(PR_GET_NAME, szOwn);
    EXPECT_STREQ(szOwn, m_stStep.szName);
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(ThreadUtility, RunsNothingForANullJob)
{
    STDOUT_CAPTURE capture;
    EXPECT_EQ(0, UTIL_THREAD_RunFuncAsync(nullptr, &m_stStep));
    EXPECT_EQ(1, THREAD_CREATION_Count());
    EXPECT_EQ(MARKERS, capture.Text());
}

TEST_F(ThreadUtility, WritesTheMarkerLinesBeforeItStartsTheThread)
{
    STDOUT_CAPTURE capture;
    std::string strSeen;
    THREAD_CREATION_Before([&](const THREAD_CREATION_S &) { strSeen = capture.Text(); });
    EXPECT_EQ(0, UTIL_THREAD_RunFuncAsync(Job, &m_stStep));
    THREAD_CREATION_Before(nullptr);
    EXPECT_EQ(MARKERS, strSeen);
    EXPECT_TRUE(WaitForSteps(1));
}

TEST_F(ThreadUtility, WritesTheMarkerLinesAlsoWhenTheStartFails)
{
    for (const int32_t s32Result : {EAGAIN, -1})
    {
        FAKE_PLATFORM_Reset();
        STDOUT_CAPTURE capture;
        THREAD_CREATION_Fail(s32Result);
        EXPECT_EQ(-1, UTIL_THREAD_RunFuncAsync(Job, &m_stStep));
        EXPECT_EQ(MARKERS, capture.Text());
        const std::vector<FAKE_LOG_S> vecLogs = FAKE_PLATFORM_Logs();
        ASSERT_EQ(1u, vecLogs.size());
        EXPECT_EQ(3, vecLogs[0].s32Level);
        EXPECT_EQ("", vecLogs[0].strPrefix);
        EXPECT_EQ("Create thread failed\n", vecLogs[0].strText);
    }
    EXPECT_EQ(0, m_stStep.s32Begun);
}

TEST_F(ThreadUtility, JoinsAThreadOfAHandMadeRecord)
{
    tagPTHREAD_DATA_S stData;
    std::atomic<bool> bEnded{false};
    stData.s32Run = 1;
    stData.pArg = &bEnded;
    ASSERT_EQ(0, pthread_create(
                     &stData.tid, nullptr,
                     [](void *pArg) -> void *
                     {
                         TEST_SleepMs(20);
                         *static_cast<std::atomic<bool> *>(pArg) = true;
                         return nullptr;
                     },
                     &bEnded));
    EXPECT_EQ(0, UTIL_THREAD_Destory(&stData, 1));
    EXPECT_TRUE(bEnded.load());
    EXPECT_EQ(0, stData.s32Run.load());
}
