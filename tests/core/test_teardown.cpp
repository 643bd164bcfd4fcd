// The end of a handle: its order, and that nothing is left or hangs.

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/core_test.h"
#include "support/mutex_hold.h"

using namespace libquarrin;

using Teardown = CORE_TEST;

namespace
{

// Sends a uevent as the kernel would: the monitors of all handles hear it. False without the right to.
bool SendUevent(const std::string &strHeader)
{
    const int32_t s32Fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (s32Fd < 0)
    {
        return false;
    }
    struct sockaddr_nl stTo = {};
    stTo.nl_family = AF_NETLINK;
    stTo.nl_groups = 1;
    const ssize_t s64Sent = sendto(s32Fd, strHeader.c_str(), strHeader.size() + 1, 0,
                                   reinterpret_cast<const struct sockaddr *>(&stTo), sizeof(stTo));
    close(s32Fd);
    return s64Sent > 0;
}

} // namespace

TEST_F(Teardown, RefusesANullHandleAndLeavesANullPointer)
{
    EXPECT_EQ(1u, QN_Destroy(m_pHandle));
    InitUnplugged();
    EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    EXPECT_EQ(nullptr, m_pHandle);
    EXPECT_EQ(1u, QN_Destroy(m_pHandle));
}

TEST_F(Teardown, UnmountsAMountedCardOnce)
{
    for (const int32_t s32Result : {0, 1}) // whatever the command says
    {
        FAKE_PLATFORM_Answer("umount", s32Result);
        InitMounted();
        EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    }
    EXPECT_EQ(2, FAKE_PLATFORM_CommandCount("umount"));
    EXPECT_EQ(UnmountLine(), FAKE_PLATFORM_Commands().back());
}

TEST_F(Teardown, RunsNoUnmountCommandInAnyOtherState)
{
    for (const QN_STATE_E enState :
         {QN_STATE_E_UNPLUGIN, QN_STATE_E_PLUGIN, QN_STATE_E_FORMATING, QN_STATE_E_UNMOUNTED})
    {
        InitUnplugged();
        SetState(enState);
        EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    }
    EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
}

TEST_F(Teardown, LeavesNoThreadAndNoDescriptor)
{
    const int32_t s32Threads = PROCESS_ThreadCount(); // one of the test before may just be ending
    const int32_t s32Descriptors = PROCESS_DescriptorCount();
    for (int32_t i = 0; i < 10; ++i)
    {
        InitMounted();
        tagQN_RECORD_HANDLER_S *pSession = MakeRunningSession("a");
        MakeReplay();
        EXPECT_EQ(pSession, m_pHandle->lstRecord.front());
        const std::string strName = m_strDevice.substr(m_strDevice.rfind('/') + 1);
        EXPECT_TRUE(TEST_WaitFor([&] { return PROCESS_HasThread(strName + ":event"); }));
        EXPECT_TRUE(TEST_WaitFor([&] { return PROCESS_HasThread(strName + ":hotplug"); }));
        EXPECT_LE(PROCESS_ThreadCount(), s32Threads + 2);
        EXPECT_LT(s32Descriptors, PROCESS_DescriptorCount());
        EXPECT_EQ(0u, QN_Destroy(m_pHandle));
        EXPECT_TRUE(TEST_WaitFor([s32Threads] { return PROCESS_ThreadCount() <= s32Threads; }));
        EXPECT_EQ(s32Descriptors, PROCESS_DescriptorCount());
    }
}

TEST_F(Teardown, ClosesSessionsThenUnmountsThenStopsHotplugThenEvents)
{
    m_stParam.strDevice = m_strDevice = TEST_Touch(m_dir.strPath + "/dev/qnt");
    TEST_Touch(m_strDevice + "p1");
    InitMounted();
    MakeRunningSession("a");
    tagQN_REPLAY_HANDLER_S *pReplay = MakeReplay();
    ASSERT_NE(nullptr, pReplay);
    ASSERT_TRUE(TEST_WaitFor([] { return PROCESS_HasThread("qnt:event") && PROCESS_HasThread("qnt:hotplug"); }));
    std::string strAtUmount;
    FAKE_PLATFORM_OnCommand(
        [&](const std::string &strCommand)
        {
            EXPECT_EQ(UnmountLine(), strCommand);
            strAtUmount = "closed " + std::to_string(FAKE_BACKEND_Closes()) + " read " +
                          std::to_string(FAKE_BACKEND_ReadCloses()) + " open " +
                          std::to_string(PROCESS_DescriptorsBelow(m_strMount).size()) + " hotplug " +
                          std::to_string(PROCESS_HasThread("qnt:hotplug")) + " event " +
                          std::to_string(PROCESS_HasThread("qnt:event"));
            return 0;
        });
    FAKE_PLATFORM_Answer("mkdir", 0);
    STDOUT_CAPTURE capture;
    EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    EXPECT_EQ("closed 1 read 1 open 0 hotplug 1 event 1", strAtUmount);
    std::vector<std::string> vecExits;
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        if (stLog.strText == "exit")
        {
            vecExits.push_back(stLog.strPrefix.substr(0, stLog.strPrefix.find('[')));
        }
    }
    EXPECT_EQ((std::vector<std::string>{"QN_STORAGE_HotplugDestroy", "QN_EVENT_Destroy"}), vecExits);
    EXPECT_TRUE(
        FAKE_PLATFORM_LoggedExactly(4, "QN_RecordDestroy", "destroy but still recording state=2, stop it first"));
    EXPECT_TRUE(capture.HasLine("fn_read_close"));
    EXPECT_FALSE(capture.Has("pReplayHandler remove")); // the list is emptied as a whole
}

TEST_F(Teardown, StorageDestroyStopsTheHotplugThreadAlone)
{
    m_stParam.strDevice = m_strDevice = m_dir.strPath + "/dev/qnu";
    Init();
    ASSERT_TRUE(TEST_WaitFor([] { return PROCESS_HasThread("qnu:hotplug") && PROCESS_HasThread("qnu:event"); }));
    EXPECT_EQ(0, QN_STORAGE_Destroy(m_pHandle));
    EXPECT_TRUE(TEST_WaitFor([] { return !PROCESS_HasThread("qnu:hotplug"); }));
    EXPECT_TRUE(PROCESS_HasThread("qnu:event"));
    EXPECT_EQ(-1, m_pHandle->s32NetlinkFd);
    EXPECT_TRUE(Settle()); // the queue is alive
}

TEST_F(Teardown, EndsWithAFullRingFiveSessionsAndASlowHandler)
{
    InitMounted();
    for (int32_t i = 0; i < 5; ++i)
    {
        MakeRunningSession("s" + std::to_string(i), true);
    }
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    const auto spPayload = std::make_shared<int>(1);
    for (int32_t i = 0; i < 4; ++i)
    {
        Push(QN_EVENT_E_HOTPLUG_OUT, spPayload);
    }
    {
        BACKGROUND destroy([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
        EXPECT_TRUE(destroy.StaysBusy());
        ReleaseDispatcher();
        EXPECT_TRUE(destroy.WaitDone());
    }
    EXPECT_EQ(nullptr, m_pHandle);
    EXPECT_EQ(6, FAKE_BACKEND_Opens());
    EXPECT_EQ(6, FAKE_BACKEND_Closes());
    EXPECT_EQ(1, spPayload.use_count());
}

TEST_F(Teardown, FinishesTheSplitsThatAreStillQueued)
{
    InitMounted();
    tagQN_RECORD_HANDLER_S *pFirst = MakeRunningSession("a", true);
    tagQN_RECORD_HANDLER_S *pSecond = MakeRunningSession("b", true);
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    for (tagQN_RECORD_HANDLER_S *pSession : {pFirst, pSecond})
    {
        Age(pSession, 4000);
        WriteKeyFrame(pSession);
    }
    EXPECT_EQ(4u, Queued()); // two splits, two quota checks
    EXPECT_EQ(5, FAKE_BACKEND_OpenNow());
    {
        BACKGROUND destroy([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
        EXPECT_TRUE(destroy.StaysBusy());
        ReleaseDispatcher();
        EXPECT_TRUE(destroy.WaitDone());
    }
    EXPECT_EQ(5, FAKE_BACKEND_Closes());
    EXPECT_EQ(std::vector<std::string>{}, OpenAtUnmount());
    int32_t s32Kept = 0;
    for (const std::string &strName : TEST_List(Folder(0)))
    {
        s32Kept += strName.find(".To.unknown") == std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(2, s32Kept); // the two long ones under their final names
}

TEST_F(Teardown, EndsWhileTheHotplugThreadWaitsForRoom)
{
    m_stParam.strDevice = m_strDevice = m_dir.strPath + "/dev/qnw" + std::to_string(getpid());
    STDOUT_CAPTURE capture;
    Init();
    ASSERT_TRUE(TEST_WaitFor([&capture] { return capture.Has("netlink listen fd="); }));
    const std::string strName = m_strDevice.substr(m_strDevice.rfind('/') + 1);
    ASSERT_NO_FATAL_FAILURE(StallDispatcher());
    FillRing();
    if (!SendUevent("remove@/devices/virtual/block/" + strName))
    {
        GTEST_SKIP() << "sending a uevent needs root in the first network namespace";
    }
    ASSERT_TRUE(TEST_WaitFor([&] { return capture.Has("remove@/devices/virtual/block/" + strName); }));
    // A second later it posts, and waits. Where the kernel does not tell, the destroy comes before it.
    (void)TEST_WaitFor([&] { return PROCESS_ThreadWaits(strName + ":hotplug"); }, 3000);
    {
        BACKGROUND destroy([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
        EXPECT_TRUE(destroy.StaysBusy());
        ReleaseDispatcher();
        EXPECT_TRUE(destroy.WaitDone());
    }
    EXPECT_EQ(1, FAKE_BACKEND_Closes());
}

TEST_F(Teardown, EndsWithAFullRingThatNobodyEmpties)
{
    ASSERT_NO_FATAL_FAILURE(InitWithoutEventThread());
    SetState(QN_STATE_E_MOUNTED);
    mkdir(m_strMount.c_str(), 0755);
    mkdir(Folder(0).c_str(), 0755);
    MakeRunningSession("a"); // a frame posts one
    const auto spPayload = std::make_shared<int>(1);
    for (int32_t i = 0; i < 3; ++i)
    {
        Push(5, spPayload);
    }
    BACKGROUND producer([&] { EXPECT_EQ(0, Push(5, spPayload)); });
    EXPECT_TRUE(producer.StaysBusy());
    // The queue is shut down first: its producers must be gone before the handle is.
    EXPECT_EQ(0, QN_EVENT_Destroy(m_pHandle));
    EXPECT_TRUE(producer.WaitDone());
    EXPECT_EQ(0u, QN_Destroy(m_pHandle)); // the session's last check finds no room and nobody to make it
    EXPECT_EQ(1, FAKE_BACKEND_Closes());
    EXPECT_EQ(1, spPayload.use_count());
}

TEST_F(Teardown, EndsWithAFullRingAndAnEventThreadThatHasEnded)
{
    ASSERT_NO_FATAL_FAILURE(InitWithoutEventThread());
    SetState(QN_STATE_E_MOUNTED);
    mkdir(m_strMount.c_str(), 0755);
    mkdir(Folder(0).c_str(), 0755);
    MakeRunningSession("a");
    FillRing();
    EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    EXPECT_EQ(1, FAKE_BACKEND_Closes());
}

TEST_F(Teardown, LeavesAFormatThatStillRunsAlone)
{
    InitUnplugged();
    TEST_Touch(m_strDevice);
    TEST_Touch(m_strPartition);
    const int32_t s32Threads = PROCESS_ThreadCount() - 2;
    for (const char *pszStall : {"fdisk", "mkfs"})
    {
        if (m_pHandle == nullptr)
        {
            Init();
            ASSERT_TRUE(Settle());
        }
        SetState(QN_STATE_E_PLUGIN);
        FAKE_PLATFORM_Reset();
        FAKE_PLATFORM_Stall(pszStall);
        EXPECT_EQ(0u, QN_StorageFormat(m_pHandle, QN_FS_TYPE_E_EXT4));
        ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
        const pthread_mutex_t *pGone = &m_pHandle->mutexEvent;
        EXPECT_EQ(0u, QN_Destroy(m_pHandle)); // does not wait for the worker
        MUTEX_HOLD_Watch(pGone);
        FAKE_PLATFORM_Release();
        EXPECT_TRUE(FAKE_PLATFORM_WaitLogged("make partition fs success", 30000)); // and it ends on its own
        EXPECT_TRUE(TEST_WaitFor([s32Threads] { return PROCESS_ThreadCount() <= s32Threads; }, 30000));
        EXPECT_EQ(0, MUTEX_HOLD_Watched()) << "it posted to a handle that is gone";
        EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("umount"));
    }
}
