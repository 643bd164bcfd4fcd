// The passes of the hotplug monitor, one by one: which messages name the device, and what becomes of a broken socket.

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "storage/failing_calls.h"
#include "storage/hotplug_rig.h"
#include "support/failing_new.h"
#include "support/process.h"

using namespace libquarrin;

namespace
{

const std::string CARD_PATH = "/devices/platform/sdhci/mmc_host/mmc1/mmc1:0001/block/mmcblk1";
const std::string NUL(1, '\0');

class HotplugPass : public ::testing::Test
{
protected:
    HotplugPass()
    {
        FAKE_PLATFORM_Reset();
    }

    TEMP_DIR m_dir;
    STDOUT_CAPTURE m_out;
};

/// A message, and what is posted for it.
struct MESSAGE_S
{
    std::string strMessage;
    int32_t s32Ins;
    int32_t s32Outs;
};

} // namespace

TEST_F(HotplugPass, MessagesThatNameTheDeviceArePostedASecondLater)
{
    const std::string strLines = NUL + "ACTION=add" + NUL + "DEVNAME=mmcblk1p9" + NUL + "SEQNUM=1" + NUL;
    const std::vector<MESSAGE_S> vecMessages = {
        {"add@" + CARD_PATH + strLines, 1, 0},
        {"remove@" + CARD_PATH + strLines, 0, 1},
        {"add@" + CARD_PATH, 1, 0}, // without a NUL at the end
        {"add@mmcblk1", 1, 0},
        {"remove@/a/mmcblk1/mmcblk1" + NUL, 0, 1},                 // the last of two stands at the end
        {"add@/devices/block/xmmcblk1" + NUL, 1, 0},               // a suffix of another name: accepted
        {"add@" + CARD_PATH + NUL + std::string(6000, 'x'), 1, 0}, // cut, behind its header
        {"add@" + std::string(2048 - 11, '/') + "mmcblk1", 1, 0},  // fills the buffer to the last byte
    };
    std::vector<std::unique_ptr<HOTPLUG_RIG>> vecRigs;
    std::vector<std::thread> vecThreads;
    for (size_t i = 0; i < vecMessages.size(); ++i)
    {
        const std::string strDir = m_dir.strPath + "/" + std::to_string(i);
        vecRigs.push_back(std::make_unique<HOTPLUG_RIG>(strDir, "mmcblk1"));
        vecRigs.back()->Send(vecMessages[i].strMessage);
    }
    for (const auto &upRig : vecRigs)
    {
        vecThreads.emplace_back(
            [&upRig]
            {
                EXPECT_GE(upRig->Pass(), 1.0);
                EXPECT_TRUE(upRig->WaitForIdle());
            });
    }
    for (size_t i = 0; i < vecMessages.size(); ++i)
    {
        vecThreads[i].join();
        EXPECT_EQ(vecMessages[i].s32Ins, vecRigs[i]->Ins()) << vecMessages[i].strMessage.substr(0, 80);
        EXPECT_EQ(vecMessages[i].s32Outs, vecRigs[i]->Outs()) << vecMessages[i].strMessage.substr(0, 80);
        EXPECT_EQ(QN_STATE_E_UNPLUGIN, vecRigs[i]->pHandle->enState.load());
    }
}

TEST_F(HotplugPass, OtherMessagesAreReadAndIgnored)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "mmcblk1");
    const std::vector<std::string> vecMessages = {
        "add@" + CARD_PATH + "p1" + NUL + "DEVNAME=mmcblk1" + NUL,
        "remove@" + CARD_PATH + "/mmcblk1p1" + NUL,
        "change@" + CARD_PATH + NUL + "ACTION=add" + NUL,
        "bind@" + CARD_PATH,
        "unbind@" + CARD_PATH,
        "online@" + CARD_PATH,
        "offline@" + CARD_PATH,
        "move@" + CARD_PATH,
        "ADD@" + CARD_PATH,
        "xadd@" + CARD_PATH,
        " add@" + CARD_PATH,
        "add " + CARD_PATH,
        "removed@" + CARD_PATH,
        "add@/devices/block/mmcblk10" + NUL,
        "add@/devices/block/mmcblk2" + NUL + "DEVNAME=mmcblk1",
        "add@/devices/mmcblk1/queue" + NUL,
        "add@" + CARD_PATH + " ",
        "add@" + CARD_PATH + "\n",
        "add@/devices/block/MMCBLK1" + NUL,
        "add@",
        "mmcblk1",
        "blk1", // shorter than the name
        NUL,
        NUL + "add@" + CARD_PATH,
        "\xff\xfe%s%n",
        "add@" + std::string(2048 - 10, '/') + "mmcblk1", // one byte too long: cut inside the name
        "add@" + std::string(5000, 'x') + CARD_PATH,
    };
    const int32_t s32Before = m_out.Count("] recvmsg\n"); // before it was stopped, the monitor heard the machine's
    for (const std::string &strMessage : vecMessages)
    {
        rig.Send(strMessage);
        rig.Pass();
        const std::string strHeader = std::string(strMessage.c_str()).substr(0, 2048);
        EXPECT_TRUE(m_out.Has("] " + strHeader + "\n")) << strHeader.substr(0, 80);
    }
    EXPECT_EQ(static_cast<int32_t>(vecMessages.size()), m_out.Count("] recvmsg\n") - s32Before);
    EXPECT_TRUE(rig.WaitForIdle());
    EXPECT_EQ(0, rig.Ins());
    EXPECT_EQ(0, rig.Outs());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("QN_EVENT_E_"));
    EXPECT_GE(rig.pHandle->s32NetlinkFd, 0);
}

TEST_F(HotplugPass, ReceivedHeaderIsTraced)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "mmcblk1");
    rig.Send("change@/devices/block/sda" + NUL + "ACTION=change");
    rig.Pass();
    EXPECT_TRUE(m_out.HasLine(R"(\[QN_STORAGE_HotplugThread:\d+\] recvmsg)"));
    EXPECT_TRUE(m_out.HasLine(R"(\[QN_STORAGE_HotplugThread:\d+\] change@/devices/block/sda)"));
    EXPECT_FALSE(m_out.Has("ACTION=change")); // the header only
}

TEST_F(HotplugPass, QuietSocketEndsAPassAfter200Milliseconds)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "mmcblk1");
    FAKE_PLATFORM_Reset();
    const std::string strBefore = m_out.Text();
    EXPECT_GE(rig.Pass(), 0.19);
    EXPECT_EQ(strBefore, m_out.Text());
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(HotplugPass, EmptyMessageIsIgnored)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "mmcblk1");
    FAKE_PLATFORM_Reset();
    const int32_t s32Before = m_out.Count("] recvmsg\n");
    rig.Send("");
    rig.Pass();
    EXPECT_EQ(1, m_out.Count("] recvmsg\n") - s32Before);
    EXPECT_GE(rig.pHandle->s32NetlinkFd, 0);
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(HotplugPass, DescriptorThatSelectRefusesIsClosedAndReopened)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "mmcblk1");
    const int32_t s32Fd = rig.pHandle->s32NetlinkFd;
    close(s32Fd);
    rig.Pass();
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_STORAGE_HotplugThread",
                                            std::string("hotplug netlink select failed: ") + strerror(EBADF)));
    EXPECT_TRUE(m_out.HasLine(R"(\[ERROR\]\[QN_STORAGE_HotplugThread:\d+\] hotplug netlink select failed: .*)"));
    EXPECT_EQ(-1, rig.pHandle->s32NetlinkFd);

    rig.Pass(); // opens a new one
    EXPECT_GE(rig.pHandle->s32NetlinkFd, 0);
    EXPECT_TRUE(m_out.Has(
        "[QN_STORAGE_HotplugThread:92] netlink listen fd=" + std::to_string(rig.pHandle->s32NetlinkFd) + "\n"));
}

TEST_F(HotplugPass, DescriptorThatRecvmsgRefusesIsClosed)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "mmcblk1");
    int as32Pipe[2] = {-1, -1};
    ASSERT_EQ(0, pipe2(as32Pipe, O_CLOEXEC));
    ASSERT_EQ(1, write(as32Pipe[1], "x", 1));
    ASSERT_EQ(0, QN_STORAGE_HotplugNetlinkClose(rig.pHandle->s32NetlinkFd));
    rig.pHandle->s32NetlinkFd = as32Pipe[0]; // readable, and no socket
    rig.Pass();
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_STORAGE_HotplugThread",
                                            std::string("hotplug netlink recvmsg failed: ") + strerror(ENOTSOCK)));
    EXPECT_TRUE(m_out.HasLine(R"(\[ERROR\]\[QN_STORAGE_HotplugThread:\d+\] hotplug netlink recvmsg failed: .*)"));
    EXPECT_EQ(-1, rig.pHandle->s32NetlinkFd);
    EXPECT_EQ(-1, fcntl(as32Pipe[0], F_GETFD)); // closed
    close(as32Pipe[1]);
}

TEST_F(HotplugPass, InterruptedAndEmptyHandedPassesKeepTheSocket)
{
    const HOTPLUG_RIG rig(m_dir.strPath, "mmcblk1");
    const int32_t s32Before = m_out.Count("] recvmsg\n");
    rig.Send("change@" + CARD_PATH);
    FAKE_PLATFORM_Reset();
    const auto fnPass = [&rig]
    {
        rig.Pass();
    };
    TEST_WithFailingCall(TEST_CALL_SELECT, EINTR, fnPass);
    TEST_WithFailingCall(TEST_CALL_RECVMSG, EINTR, fnPass);
    TEST_WithFailingCall(TEST_CALL_RECVMSG, EAGAIN, fnPass);
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    EXPECT_GE(rig.pHandle->s32NetlinkFd, 0);
    EXPECT_EQ(2, m_out.Count("] recvmsg\n") - s32Before); // none behind the interrupted select
    rig.Pass();
    EXPECT_TRUE(m_out.Has("] change@" + CARD_PATH + "\n")); // nothing was lost
}

TEST_F(HotplugPass, DescriptorsBeyond1023Work)
{
    struct rlimit stBefore = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &stBefore));
    struct rlimit stMore = stBefore;
    stMore.rlim_cur = std::max<rlim_t>(stBefore.rlim_cur, 4096);
    if (setrlimit(RLIMIT_NOFILE, &stMore) != 0)
    {
        GTEST_SKIP() << "this user may not have that many descriptors";
    }
    if (!PROCESS_SelectTakes(3000))
    {
        setrlimit(RLIMIT_NOFILE, &stBefore);
        GTEST_SKIP() << "select of this machine, an emulated one, takes no descriptors beyond 1023";
    }
    {
        const HOTPLUG_RIG rig(m_dir.strPath, "mmcblk1");
        const int32_t s32High = fcntl(rig.pHandle->s32NetlinkFd, F_DUPFD_CLOEXEC, 3000);
        ASSERT_GE(s32High, 3000);
        QN_STORAGE_HotplugNetlinkClose(rig.pHandle->s32NetlinkFd);
        rig.pHandle->s32NetlinkFd = s32High;
        rig.Pass(); // quiet
        rig.Send("change@" + CARD_PATH);
        rig.Pass();
        EXPECT_TRUE(m_out.Has("] change@" + CARD_PATH + "\n"));
        EXPECT_EQ(s32High, rig.pHandle->s32NetlinkFd);
        // Without memory for so large a set the pass ends soon, and the next one reads.
        rig.Send("bind@" + CARD_PATH);
        if (TEST_WithFailingNew(1, [&rig] { rig.Pass(); })) // a sanitizer's allocation does not fail
        {
            EXPECT_FALSE(m_out.Has("] bind@" + CARD_PATH + "\n"));
            rig.Pass();
        }
        EXPECT_TRUE(m_out.Has("] bind@" + CARD_PATH + "\n"));
    }
    setrlimit(RLIMIT_NOFILE, &stBefore);
}
