// Hotplug in the wild: events that come while nobody listens, twice, too many, or in between signals.

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "card/sim/faults.h"
#include "pump.h"
#include "rig.h"
#include "support/card.h"

using namespace libquarrin;

namespace
{

std::atomic<bool> s_bHold{false};
std::atomic<int32_t> s_s32Held{0};
std::atomic<int32_t> s_s32Signals{0};

// Holds up the thread that takes the signal, wherever it is.
void OnHold(int)
{
    s_s32Held += 1;
    while (s_bHold)
    {
        struct timespec stRest = {0, 1000000};
        nanosleep(&stRest, nullptr);
    }
    s_s32Held -= 1;
}

void OnCount(int)
{
    s_s32Signals += 1;
}

/// Sets a signal's handler, without restart of interrupted calls, for its own lifetime; the signal is ignored then.
class HANDLER
{
public:
    HANDLER(int s32Signal, void (*pfnHandler)(int)) : m_s32Signal(s32Signal)
    {
        struct sigaction stAction = {};
        stAction.sa_handler = pfnHandler;
        sigaction(s32Signal, &stAction, nullptr);
    }
    ~HANDLER()
    {
        signal(m_s32Signal, SIG_IGN); // one that is still on its way to a thread must not end the program
    }
    HANDLER(const HANDLER &) = delete;
    HANDLER &operator=(const HANDLER &) = delete;

private:
    int m_s32Signal;
};

/// Holds up the monitor of a handle for its own lifetime.
class HELD_MONITOR
{
public:
    explicit HELD_MONITOR(const CARD_RIG &rig) : m_handler(SIGUSR1, OnHold)
    {
        s_bHold = true;
        pthread_kill(rig.pHandle->stHotplugThread.tid, SIGUSR1);
        EXPECT_TRUE(TEST_WaitFor([] { return s_s32Held == 1; }));
    }
    ~HELD_MONITOR()
    {
        s_bHold = false;
        EXPECT_TRUE(TEST_WaitFor([] { return s_s32Held == 0; }));
    }
    HELD_MONITOR(const HELD_MONITOR &) = delete;
    HELD_MONITOR &operator=(const HELD_MONITOR &) = delete;

private:
    HANDLER m_handler;
};

class HotplugInTheWild : public CARD_REAL
{
protected:
    // Runs a test in a network namespace of its own: what it sends reaches nobody else, the kernel's events come in.
    static void InOwnNetwork(const std::function<void()> &fnTest)
    {
        std::thread thread(
            [&fnTest]
            {
                ASSERT_EQ(0, unshare(CLONE_NEWNET)) << strerror(errno);
                fnTest();
            });
        thread.join();
    }

    // Sends uevents of nobody's until every socket of this namespace that is not read is full.
    static void Flood()
    {
        const int s32Fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
        ASSERT_GE(s32Fd, 0);
        struct sockaddr_nl stTo = {};
        stTo.nl_family = AF_NETLINK;
        stTo.nl_groups = 1;
        std::string strMessage = "change@/devices/virtual/nobody/flood";
        strMessage.resize(2000, '\0');
        for (int32_t i = 0; i < 2000; ++i)
        {
            (void)sendto(s32Fd, strMessage.data(), strMessage.size(), 0, reinterpret_cast<struct sockaddr *>(&stTo),
                         sizeof(stTo)); // refused once the receiver is full
        }
        close(s32Fd);
    }

    static void SignalEveryThread()
    {
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task"))
        {
            (void)syscall(SYS_tgkill, getpid(), std::stoi(entry.path().filename()), SIGUSR2); // may have ended
        }
    }

    static bool LostEvents()
    {
        return FAKE_PLATFORM_Logged("hotplug netlink recvmsg failed: No buffer space available");
    }

    static int32_t MountLines()
    {
        return FAKE_PLATFORM_CommandCount("; mount /dev/loop");
    }
};

} // namespace

TEST_F(HotplugInTheWild, CardThatComesBetweenProbeAndSocketIsSeen)
{
    CARD_RIG rig;
    FAULTS_Begin("/nowhere");
    const FAULT_S stNone = {1, -1, EMFILE, 0};
    FAULTS_Set(FAULT_CALL_SOCKET, &stNone);
    rig.Init();
    ASSERT_TRUE(TEST_WaitFor([] { return FAULTS_Touched(FAULT_CALL_SOCKET) > 0; }));
    ASSERT_TRUE(rig.card.In()); // nobody listens
    FAULTS_Begin(nullptr);
    EXPECT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
    EXPECT_EQ(1, MountLines());
}

TEST_F(HotplugInTheWild, CardThatGoesBeforeTheSocketIsOpenIsNoticed)
{
    CARD_RIG rig;
    ASSERT_TRUE(rig.card.In());
    ASSERT_TRUE(TEST_WaitFor([&rig] { return TEST_Exists(rig.card.Partition()); }, RIG_WAIT_MS));
    FAULTS_Begin("/nowhere");
    const FAULT_S stNone = {1, -1, EMFILE, 0};
    FAULTS_Set(FAULT_CALL_SOCKET, &stNone);
    rig.Init();
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
    ASSERT_TRUE(rig.WaitIdle());
    ASSERT_TRUE(rig.card.Out(CARD_PULL_WRITTEN)); // nobody listens
    FAULTS_Begin(nullptr);
    EXPECT_TRUE(rig.WaitFor(QN_STATE_E_UNPLUGIN));
}

TEST_F(HotplugInTheWild, CardThatComesRightAfterTheStartIsMountedOnce)
{
    for (int32_t i = 0; i < 3; ++i)
    {
        CARD_RIG rig;
        const int32_t s32Lines = MountLines();
        rig.Init();
        ASSERT_TRUE(rig.card.In());
        EXPECT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED)) << i;
        EXPECT_TRUE(rig.WaitIdle());
        EXPECT_EQ(s32Lines + 1, MountLines()) << i;
    }
}

TEST_F(HotplugInTheWild, CardWhoseEventAFullSocketDroppedIsSeen)
{
    InOwnNetwork(
        []
        {
            CARD_RIG rig;
            rig.Init();
            ASSERT_TRUE(rig.WaitListening());
            {
                const HELD_MONITOR held(rig);
                ASSERT_NO_FATAL_FAILURE(Flood());
                ASSERT_TRUE(rig.card.In());
            }
            EXPECT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
            EXPECT_TRUE(LostEvents());
            EXPECT_EQ(1, MountLines());
        });
}

TEST_F(HotplugInTheWild, PullWhoseEventAFullSocketDroppedIsSeen)
{
    InOwnNetwork(
        []
        {
            CARD_RIG rig;
            rig.Init();
            ASSERT_TRUE(rig.WaitListening());
            ASSERT_TRUE(rig.InMounted());
            PUMP pump(rig.pHandle, QN_FILE_FMT_E_MKV, true, "pulled");
            ASSERT_EQ(0u, pump.Start());
            ASSERT_TRUE(pump.WaitWritten(10));
            {
                const HELD_MONITOR held(rig);
                ASSERT_NO_FATAL_FAILURE(Flood());
                ASSERT_TRUE(rig.card.Out(CARD_PULL_CUT));
            }
            EXPECT_TRUE(rig.WaitFor(QN_STATE_E_UNPLUGIN));
            EXPECT_TRUE(LostEvents());
            pump.Stop();
            EXPECT_TRUE(rig.card.Gone());
        });
}

TEST_F(HotplugInTheWild, FullSocketAloneDisturbsNoRecording)
{
    InOwnNetwork(
        []
        {
            CARD_RIG rig;
            rig.Init();
            ASSERT_TRUE(rig.WaitListening());
            ASSERT_TRUE(rig.InMounted());
            PUMP pump(rig.pHandle, QN_FILE_FMT_E_MKV, true, "steady");
            ASSERT_EQ(0u, pump.Start());
            const int32_t s32Lines = MountLines();
            {
                const HELD_MONITOR held(rig);
                ASSERT_NO_FATAL_FAILURE(Flood());
            }
            ASSERT_TRUE(TEST_WaitFor(LostEvents));
            ASSERT_TRUE(rig.WaitListening());
            ASSERT_TRUE(pump.WaitWritten(700)); // past the second that a look would take
            EXPECT_EQ(QN_STATE_E_MOUNTED, rig.State());
            EXPECT_EQ(QN_RECORD_STATE_RUNNING, pump.pSession->enRecordState.load());
            EXPECT_EQ(s32Lines, MountLines());
            pump.Stop();
            ASSERT_EQ(1u, rig.Finished().size());
            EXPECT_EQ("", PUMP::WhatIsWrong(rig.Finished()[0]));
        });
}

TEST_F(HotplugInTheWild, CardAnnouncedTwiceStaysMountedAndRecords)
{
    CARD_RIG rig;
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    ASSERT_TRUE(rig.InMounted());
    PUMP pump(rig.pHandle, QN_FILE_FMT_E_MKV, true, "twice");
    ASSERT_EQ(0u, pump.Start());
    const int32_t s32Lines = MountLines();
    ASSERT_TRUE(rig.card.Announce("add"));
    ASSERT_TRUE(rig.card.Announce("add"));
    ASSERT_TRUE(TEST_WaitFor([s32Lines] { return MountLines() == s32Lines + 2; }, RIG_WAIT_MS));
    ASSERT_TRUE(rig.WaitIdle());
    EXPECT_EQ(QN_STATE_E_MOUNTED, rig.State());
    EXPECT_EQ(1, rig.Mounts());
    ASSERT_TRUE(pump.WaitWritten(10));
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pump.pSession->enRecordState.load());
    pump.Stop();
    ASSERT_EQ(1u, rig.Finished().size());
    EXPECT_EQ("", PUMP::WhatIsWrong(rig.Finished()[0]));
}

TEST_F(HotplugInTheWild, SpuriousRemoveIsMendedByTheNextAdd)
{
    CARD_RIG rig;
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    ASSERT_TRUE(rig.InMounted());
    PUMP pump(rig.pHandle, QN_FILE_FMT_E_TS, true, "spurious");
    ASSERT_EQ(0u, pump.Start());
    ASSERT_TRUE(pump.WaitWritten(10));
    ASSERT_TRUE(rig.card.Announce("remove"));
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(QN_RECORD_STATE_STOPPING, pump.pSession->enRecordState.load());
    EXPECT_EQ(3u, pump.Start());
    pump.Stop();
    ASSERT_TRUE(rig.card.Announce("add"));
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
    ASSERT_TRUE(rig.WaitIdle());
    EXPECT_EQ(1, rig.Mounts());
    ASSERT_EQ(0u, pump.Start());
    ASSERT_TRUE(pump.WaitWritten(10));
    pump.Stop();
    ASSERT_EQ(2u, rig.Finished().size());
    for (const std::string &strPath : rig.Finished())
    {
        EXPECT_EQ("", PUMP::WhatIsWrong(strPath));
    }
}

TEST_F(HotplugInTheWild, DescriptorsAbove1023AreListenedTo)
{
    if (!PROCESS_SelectTakes(1100))
    {
        GTEST_SKIP() << "select of this machine, an emulated one, takes no descriptors beyond 1023";
    }
    struct rlimit stBefore = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &stBefore));
    const struct rlimit stMany = {4096, std::max<rlim_t>(stBefore.rlim_max, 4096)};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &stMany));
    std::vector<int> vecFds;
    do
    {
        vecFds.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    } while (vecFds.back() >= 0 && vecFds.back() < 1100);
    {
        CARD_RIG rig;
        rig.Init();
        ASSERT_TRUE(rig.WaitListening());
        EXPECT_GT(rig.pHandle->s32NetlinkFd, 1023);
        EXPECT_TRUE(rig.InMounted());
        PUMP pump(rig.pHandle, QN_FILE_FMT_E_MKV, false, "many");
        EXPECT_EQ(0u, pump.Start());
        EXPECT_TRUE(pump.WaitWritten(5));
        EXPECT_TRUE(rig.card.Out(CARD_PULL_CUT));
        EXPECT_TRUE(rig.WaitFor(QN_STATE_E_UNPLUGIN));
        pump.Stop();
    }
    for (const int s32Fd : vecFds)
    {
        close(s32Fd);
    }
    setrlimit(RLIMIT_NOFILE, &stBefore);
}

TEST_F(HotplugInTheWild, HostWhoseSignalsInterruptEverythingLosesNoEvent)
{
    CARD_PARAM_S stCard;
    stCard.enContent = CARD_CONTENT_BLANK;
    CARD_RIG rig(stCard);
    const HANDLER handler(SIGUSR2, OnCount);
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    std::atomic<bool> bRun{true};
    std::thread storm(
        [&bRun]
        {
            while (bRun)
            {
                SignalEveryThread();
                usleep(100);
            }
        });
    EXPECT_TRUE(rig.card.In() && rig.WaitFor(QN_STATE_E_PLUGIN));
    EXPECT_EQ(0u, QN_StorageFormat(rig.pHandle, QN_FS_TYPE_E_EXT4));
    EXPECT_TRUE(rig.WaitFor(QN_STATE_E_MOUNTED));
    for (int32_t i = 0; i < 2; ++i)
    {
        EXPECT_TRUE(rig.card.Out(CARD_PULL_WRITTEN) && rig.WaitFor(QN_STATE_E_UNPLUGIN)) << i;
        EXPECT_TRUE(rig.card.Gone());
        EXPECT_TRUE(rig.card.In() && rig.WaitFor(QN_STATE_E_MOUNTED)) << i;
    }
    bRun = false;
    storm.join();
    EXPECT_GT(s_s32Signals, 1000);
    EXPECT_FALSE(FAKE_PLATFORM_Logged("failed: Interrupted"));
}

TEST_F(HotplugInTheWild, EventOfANameThatEndsAsOursIsTheOnlyOneThatCounts)
{
    CARD_RIG rig;
    CARD_RIG other;
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    ASSERT_TRUE(other.card.In()); // its events, and those of its partition, are not ours
    ASSERT_TRUE(TEST_WaitFor([&other] { return TEST_Exists(other.card.Partition()); }, RIG_WAIT_MS));
    ASSERT_TRUE(other.card.Out(CARD_PULL_WRITTEN));
    ASSERT_TRUE(rig.InMounted());
    ASSERT_TRUE(rig.card.Announce("change"));
    ASSERT_TRUE(rig.card.Announce("online"));
    ASSERT_TRUE(rig.card.Out(CARD_PULL_WRITTEN));
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_UNPLUGIN));
    EXPECT_EQ(1, MountLines());
}
