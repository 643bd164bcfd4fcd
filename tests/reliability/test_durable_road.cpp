// Writing through to a slow card never holds up the frames.

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "card/sim/faults.h"
#include "recorder.h"
#include "support/card.h"
#include "verdict.h"

static constexpr int32_t SYNC_MS = 1500;
static constexpr int64_t CALL_MOST_US = 1000000; // a call takes microseconds; the machine may be busy

TEST(DurableRoad, FrameCallsDoNotWaitForASlowSync)
{
    TEMP_DIR dir;
    ASSERT_EQ(0, mkdir((dir.strPath + "/rec").c_str(), 0700));
    RECORDER_PARAM_S stParam;
    stParam.strMount = dir.strPath;
    stParam.u32Durable = 1;
    stParam.u32PauseUs = 5000;
    FAULTS_Begin(dir.strPath.c_str());
    const FAULT_S stSlow = {1, -1, 0, SYNC_MS};
    FAULTS_Set(FAULT_CALL_SYNC, &stSlow);
    RECORDER recorder(stParam); // takes the fault with it
    FAULTS_Begin(nullptr);
    const RECORDER_LOG_S &stLog = recorder.Log();
    EXPECT_TRUE(TEST_WaitFor([&stLog] { return stLog.s64LongestPassMs >= SYNC_MS; }, 60000));
    EXPECT_FALSE(stLog.bFailed);
    EXPECT_GT(stLog.u32Video, RECORDER_FPS);
    EXPECT_LT(stLog.s64LongestUs, CALL_MOST_US);
    FIGURES_Say("--durable 1 with syncs of %d ms: longest call for a frame %lld us, of %u", SYNC_MS,
                static_cast<long long>(stLog.s64LongestUs), stLog.u32Video.load());
}
