// Throttled quota checks: at most one in 120 seconds, and every 200th call. And the events that bring checks about.

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <sys/time.h>

#include "storage/quota_test.h"

using namespace libquarrin;

namespace
{

class QuotaThrottle : public QUOTA_TEST
{
protected:
    void SetUp() override
    {
        CARD_TEST::SetUp();
        InitMounted();
        FAKE_PLATFORM_Reset();
    }

    void Set(int32_t s32Countdown, time_t tLastCheck, int32_t s32Volume = 0)
    {
        m_pHandle->as32QuotaCountdown[s32Volume] = s32Countdown;
        m_pHandle->astQuotaLastCheck[s32Volume] = {tLastCheck, 0};
    }

    /// Makes one throttled call when the last check is s64Age seconds old, within one second of the clock.
    bool ChecksAtAge(int64_t s64Age)
    {
        int32_t s32Checks = 0;
        struct timeval stBefore = {};
        struct timeval stAfter = {};
        do
        {
            FAKE_PLATFORM_Reset();
            gettimeofday(&stBefore, nullptr);
            Set(100, static_cast<time_t>(stBefore.tv_sec - s64Age));
            EXPECT_EQ(0, Throttled());
            s32Checks = Checks();
            gettimeofday(&stAfter, nullptr);
        } while (stBefore.tv_sec != stAfter.tv_sec);
        return s32Checks == 1;
    }
};

} // namespace

TEST_F(QuotaThrottle, FirstCallOfAHandleChecks)
{
    EXPECT_EQ(0, m_pHandle->as32QuotaCountdown[0]);
    const time_t tBefore = time(nullptr);
    EXPECT_EQ(0, Throttled());
    EXPECT_EQ(1, Checks());
    EXPECT_EQ(200, m_pHandle->as32QuotaCountdown[0]);
    EXPECT_GE(m_pHandle->astQuotaLastCheck[0].tv_sec, tBefore);
    EXPECT_LE(m_pHandle->astQuotaLastCheck[0].tv_sec, time(nullptr) + 1);
}

TEST_F(QuotaThrottle, TwoCallsThirtySecondsApartCheckOnce)
{
    EXPECT_EQ(0, Throttled());
    m_pHandle->astQuotaLastCheck[0].tv_sec -= 30;
    const struct timeval stLast = m_pHandle->astQuotaLastCheck[0];
    EXPECT_EQ(0, Throttled());
    EXPECT_EQ(1, Checks());
    EXPECT_EQ(199, m_pHandle->as32QuotaCountdown[0]);
    EXPECT_EQ(stLast.tv_sec, m_pHandle->astQuotaLastCheck[0].tv_sec); // a refused call leaves no mark
    EXPECT_EQ(stLast.tv_usec, m_pHandle->astQuotaLastCheck[0].tv_usec);
}

TEST_F(QuotaThrottle, ACheckIsDueAfter120Seconds)
{
    EXPECT_FALSE(ChecksAtAge(0));
    EXPECT_FALSE(ChecksAtAge(119));
    EXPECT_TRUE(ChecksAtAge(120));
    EXPECT_EQ(99, m_pHandle->as32QuotaCountdown[0]); // the count goes on
    EXPECT_TRUE(ChecksAtAge(100000));
    EXPECT_FALSE(ChecksAtAge(-100000)); // the clock was set back
}

TEST_F(QuotaThrottle, Every200thCallChecksWhateverTheTime)
{
    EXPECT_EQ(0, Throttled()); // sets the countdown
    for (int32_t i = 0; i < 199; ++i)
    {
        m_pHandle->astQuotaLastCheck[0].tv_sec = time(nullptr);
        EXPECT_EQ(0, Throttled());
    }
    EXPECT_EQ(1, Checks());
    EXPECT_EQ(1, m_pHandle->as32QuotaCountdown[0]);
    EXPECT_EQ(0, Throttled());
    EXPECT_EQ(2, Checks());
    EXPECT_EQ(200, m_pHandle->as32QuotaCountdown[0]);
}

TEST_F(QuotaThrottle, CountdownAtOrBelowOneForcesACheck)
{
    for (const int32_t s32Countdown : {1, 0, -1, -1000})
    {
        FAKE_PLATFORM_Reset();
        Set(s32Countdown, time(nullptr));
        EXPECT_EQ(0, Throttled());
        EXPECT_EQ(1, Checks()) << s32Countdown;
        EXPECT_EQ(200, m_pHandle->as32QuotaCountdown[0]) << s32Countdown;
    }
}

TEST_F(QuotaThrottle, NewMountLetsTheNextCallThrough)
{
    Set(100, time(nullptr));
    EXPECT_EQ(0, Throttled());
    EXPECT_EQ(0, Checks());
    EXPECT_EQ(0, QN_STORAGE_QuotaInit(m_pHandle));
    EXPECT_EQ(0, Throttled());
    EXPECT_EQ(1, Checks());
    EXPECT_EQ(98, m_pHandle->as32QuotaCountdown[0]);
}

TEST_F(QuotaThrottle, TheEndOfAMountBehindAnUnmountLetsTheNextCallThroughToo)
{
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
    Set(100, time(nullptr));
    EXPECT_EQ(0, QN_STORAGE_QuotaInit(m_pHandle));
    EXPECT_EQ(0, Throttled());
    EXPECT_EQ(1, Checks());
}

TEST_F(QuotaThrottle, VolumesAreThrottledApart)
{
    Set(100, time(nullptr), 0);
    Set(50, 0, 1);
    EXPECT_EQ(0, Throttled(0));
    EXPECT_EQ(0, Throttled(1));
    EXPECT_EQ(1, Checks());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("Quota[1] quota:"));
    EXPECT_EQ(99, m_pHandle->as32QuotaCountdown[0]);
    EXPECT_EQ(49, m_pHandle->as32QuotaCountdown[1]);
    EXPECT_EQ(0, m_pHandle->as32QuotaCountdown[2]);
}

TEST_F(QuotaThrottle, NoHandleAndNoVolumeChangeNothing)
{
    EXPECT_EQ(0, QN_STORAGE_QuotaCheckWithThrottle(nullptr, QN_VOLUME_ID_E_0));
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        Set(100 + i, i, i);
    }
    for (const int32_t s32Volume : {3, -1, 1000})
    {
        EXPECT_EQ(0, Throttled(s32Volume));
    }
    EXPECT_EQ(0, Checks());
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        EXPECT_EQ(100 + i, m_pHandle->as32QuotaCountdown[i]);
        EXPECT_EQ(i, m_pHandle->astQuotaLastCheck[i].tv_sec);
    }
}

TEST_F(QuotaThrottle, DisabledVolumeIsCountedButNotChecked)
{
    m_pHandle->astVolume[0].bEnable = 0;
    EXPECT_EQ(0, Throttled());
    EXPECT_EQ(0, Checks());
    EXPECT_EQ(200, m_pHandle->as32QuotaCountdown[0]);
    EXPECT_GT(m_pHandle->astQuotaLastCheck[0].tv_sec, 0);
}

TEST_F(QuotaThrottle, ThrottleEventChecksWithoutALineOfItsOwn)
{
    const auto spVolume = std::make_shared<QN_VOLUME_ID_E>(QN_VOLUME_ID_E_1);
    for (int32_t i = 0; i < 3; ++i)
    {
        EXPECT_EQ(0, QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_QUOTA_THROTTLE, spVolume));
    }
    ASSERT_TRUE(WaitForIdle());
    EXPECT_EQ(1, Checks());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("Quota[1] quota:"));
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_"));
    EXPECT_EQ(198, m_pHandle->as32QuotaCountdown[1]);
}

TEST_F(QuotaThrottle, UpdateEventChecksEveryTime)
{
    const auto spVolume = std::make_shared<QN_VOLUME_ID_E>(QN_VOLUME_ID_E_2);
    for (int32_t i = 0; i < 3; ++i)
    {
        EXPECT_EQ(0, QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_QUOTA_UPDATE, spVolume));
    }
    ASSERT_TRUE(WaitForIdle());
    EXPECT_EQ(3, Checks());
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(6, "QN_EVENT_ProcessThread", "QN_EVENT_E_QUOTA_UPDATE"));
    EXPECT_EQ(0, m_pHandle->as32QuotaCountdown[2]);
}

TEST_F(QuotaThrottle, EventsForAVolumeThatDoesNotExistDoNoHarm)
{
    const auto spVolume = std::make_shared<QN_VOLUME_ID_E>(static_cast<QN_VOLUME_ID_E>(7));
    EXPECT_EQ(0, QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_QUOTA_UPDATE, spVolume));
    EXPECT_EQ(0, QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_QUOTA_THROTTLE, spVolume));
    ASSERT_TRUE(WaitForIdle());
    EXPECT_EQ(0, Checks());
}
