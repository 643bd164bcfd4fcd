// The hotplug monitor's wait: a message is received only from a socket that is readable.

#include "core/core_test.h"
#include "support/capture.h"

using namespace libquarrin;

using MonitorSelect = CORE_TEST;

TEST_F(MonitorSelect, ReceivesNothingWhenTheSocketIsNotReadable)
{
    InitUnplugged();
    EXPECT_EQ(0, QN_STORAGE_HotplugDestroy(m_pHandle)); // the test takes its steps
    QN_STORAGE_HotplugThread(m_pHandle);
    ASSERT_GE(m_pHandle->s32NetlinkFd, 0);
    const int32_t s32Fd = m_pHandle->s32NetlinkFd;
    SYSTEM_CALLS_SelectNoneReadable();
    STDOUT_CAPTURE capture;
    const int32_t s32Selects = SYSTEM_CALLS_Selects();
    QN_STORAGE_HotplugThread(m_pHandle);
    EXPECT_EQ(1, SYSTEM_CALLS_Selects() - s32Selects);
    EXPECT_FALSE(capture.Has("recvmsg"));
    EXPECT_EQ(s32Fd, m_pHandle->s32NetlinkFd);
}
