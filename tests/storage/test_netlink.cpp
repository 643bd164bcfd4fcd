// The uevent socket of the hotplug monitor: how it is opened, how it fails, how it is closed.

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include "storage/failing_calls.h"
#include "storage/hotplug_rig.h"
#include "storage/uevent.h"

using namespace libquarrin;

namespace
{

class Netlink : public ::testing::Test
{
protected:
    Netlink()
    {
        FAKE_PLATFORM_Reset();
    }

    STDOUT_CAPTURE m_out;
};

} // namespace

TEST_F(Netlink, SocketListensToTheKernelsGroupAndIsNonBlockingAndClosedOnExec)
{
    int32_t s32Fd = QN_STORAGE_HotplugNetlinkOpen();
    ASSERT_GE(s32Fd, 0);
    EXPECT_NE(0, fcntl(s32Fd, F_GETFL) & O_NONBLOCK);
    EXPECT_NE(0, fcntl(s32Fd, F_GETFD) & FD_CLOEXEC);

    struct sockaddr_nl stAddress = {};
    socklen_t u32Len = sizeof(stAddress);
    ASSERT_EQ(0, getsockname(s32Fd, reinterpret_cast<struct sockaddr *>(&stAddress), &u32Len));
    EXPECT_EQ(AF_NETLINK, stAddress.nl_family);
    EXPECT_EQ(1u, stAddress.nl_groups);
    EXPECT_EQ(static_cast<uint32_t>(pthread_self()) + static_cast<uint32_t>(getpid()), stAddress.nl_pid);
    int s32Protocol = 0;
    socklen_t u32IntLen = sizeof(s32Protocol);
    ASSERT_EQ(0, getsockopt(s32Fd, SOL_SOCKET, SO_PROTOCOL, &s32Protocol, &u32IntLen));
    EXPECT_EQ(NETLINK_KOBJECT_UEVENT, s32Protocol);
    int s32Type = 0;
    ASSERT_EQ(0, getsockopt(s32Fd, SOL_SOCKET, SO_TYPE, &s32Type, &u32IntLen));
    EXPECT_EQ(SOCK_DGRAM, s32Type);

    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    EXPECT_EQ("", m_out.Text());
    QN_STORAGE_HotplugNetlinkClose(s32Fd);
}

TEST_F(Netlink, SecondSocketOfAThreadFindsItsAddressTaken)
{
    int32_t s32First = QN_STORAGE_HotplugNetlinkOpen();
    ASSERT_GE(s32First, 0);
    const int32_t s32Before = TEST_OpenDescriptors();
    EXPECT_EQ(-1, QN_STORAGE_HotplugNetlinkOpen());
    EXPECT_EQ(s32Before, TEST_OpenDescriptors());
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_STORAGE_HotplugNetlinkOpen",
                                            std::string("hotplug netlink bind failed: ") + strerror(EADDRINUSE)));
    EXPECT_TRUE(m_out.HasLine(R"(\[ERROR\]\[QN_STORAGE_HotplugNetlinkOpen:\d+\] hotplug netlink bind failed: .+)"));

    std::thread other( // another thread has another address
        []
        {
            int32_t s32Fd = QN_STORAGE_HotplugNetlinkOpen();
            EXPECT_GE(s32Fd, 0);
            QN_STORAGE_HotplugNetlinkClose(s32Fd);
        });
    other.join();
    QN_STORAGE_HotplugNetlinkClose(s32First);
}

TEST_F(Netlink, MissingFacilityIsLogged)
{
    int32_t s32Fd = 0;
    TEST_WithFailingCall(TEST_CALL_SOCKET, EAFNOSUPPORT, [&s32Fd] { s32Fd = QN_STORAGE_HotplugNetlinkOpen(); });
    EXPECT_EQ(-1, s32Fd);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_STORAGE_HotplugNetlinkOpen",
                                            std::string("hotplug netlink open failed: ") + strerror(EAFNOSUPPORT)));
    EXPECT_TRUE(m_out.HasLine(R"(\[ERROR\]\[QN_STORAGE_HotplugNetlinkOpen:\d+\] hotplug netlink open failed: .+)"));
}

TEST_F(Netlink, CloseClosesOnceAndLeavesNegativeDescriptors)
{
    int32_t s32Fd = dup(STDERR_FILENO);
    const int32_t s32Was = s32Fd;
    EXPECT_EQ(0, QN_STORAGE_HotplugNetlinkClose(s32Fd));
    EXPECT_EQ(-1, s32Fd);
    EXPECT_EQ(-1, fcntl(s32Was, F_GETFD));
    EXPECT_EQ(0, QN_STORAGE_HotplugNetlinkClose(s32Fd));
    EXPECT_EQ(-1, s32Fd);
    s32Fd = -5;
    EXPECT_EQ(0, QN_STORAGE_HotplugNetlinkClose(s32Fd));
    EXPECT_EQ(-5, s32Fd);
}

TEST_F(Netlink, CloseTakesDescriptorZero)
{
    const int32_t s32Saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    int32_t s32Fd = 0;
    EXPECT_EQ(0, QN_STORAGE_HotplugNetlinkClose(s32Fd));
    EXPECT_EQ(-1, s32Fd);
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));
    if (s32Saved >= 0)
    {
        dup2(s32Saved, STDIN_FILENO);
        close(s32Saved);
    }
}

TEST_F(Netlink, OverrunSocketIsClosedAndReopened)
{
    if (!TEST_MaySendUevents())
    {
        GTEST_SKIP() << "sending uevents needs root";
    }
    const TEMP_DIR dir;
    const HOTPLUG_RIG rig(dir.strPath, "overrun");
    QN_STORAGE_HotplugNetlinkClose(rig.pHandle->s32NetlinkFd);
    rig.pHandle->s32NetlinkFd = QN_STORAGE_HotplugNetlinkOpen();
    ASSERT_GE(rig.pHandle->s32NetlinkFd, 0);
    const int s32Bytes = 1; // the kernel takes its least
    setsockopt(rig.pHandle->s32NetlinkFd, SOL_SOCKET, SO_RCVBUF, &s32Bytes, sizeof(s32Bytes));
    for (int32_t i = 0; i < 3; ++i)
    {
        TEST_SendUevent("change@/devices/virtual/quarrin/" + std::string(3000, 'x'));
    }
    rig.Pass();
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_STORAGE_HotplugThread",
                                            std::string("hotplug netlink recvmsg failed: ") + strerror(ENOBUFS)));
    EXPECT_EQ(-1, rig.pHandle->s32NetlinkFd);
    rig.Pass();
    EXPECT_GE(rig.pHandle->s32NetlinkFd, 0);
}
