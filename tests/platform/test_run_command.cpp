// The command runner: exit statuses come back whatever the host does with its signals.

#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/wait.h>

#include "bu_platform.h"
#include "helpers.h"
#include "process.h"
#include "quarrin_platform.h"
#include "support/wait.h"

namespace
{

std::atomic<int32_t> s_s32Signals{0};

void CountSignal(int)
{
    ++s_s32Signals;
}

void CollectEveryChild(int)
{
    const int s32Errno = errno;
    while (waitpid(-1, nullptr, WNOHANG) > 0)
    {
    }
    errno = s32Errno;
}

/// Sets a signal's action for its own lifetime.
class SIGNAL_SETTING
{
public:
    SIGNAL_SETTING(int s32Signal, void (*pfnHandler)(int), int s32Flags) : m_s32Signal(s32Signal)
    {
        struct sigaction stAction = {};
        stAction.sa_handler = pfnHandler;
        stAction.sa_flags = s32Flags;
        sigaction(m_s32Signal, &stAction, &m_stBefore);
    }
    ~SIGNAL_SETTING()
    {
        sigaction(m_s32Signal, &m_stBefore, nullptr);
    }
    SIGNAL_SETTING(const SIGNAL_SETTING &) = delete;
    SIGNAL_SETTING &operator=(const SIGNAL_SETTING &) = delete;

private:
    int m_s32Signal;
    struct sigaction m_stBefore = {};
};

size_t OpenDescriptors()
{
    size_t uCount = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        (void)entry; // only their number counts
        ++uCount;
    }
    return uCount;
}

} // namespace

class RunCommand : public DIR_TEST
{
};

TEST_F(RunCommand, GivesTheExitStatusBack)
{
    EXPECT_EQ(0, QN_PLATFORM_RunCommand("true"));
    EXPECT_EQ(0, QN_PLATFORM_RunCommand(""));
    EXPECT_EQ(1, QN_PLATFORM_RunCommand("false"));
    EXPECT_EQ(255, QN_PLATFORM_RunCommand("exit 255"));
    EXPECT_EQ(7, BU_RunCmd("true; exit 7"));
}

TEST_F(RunCommand, AddsASignalToAHundredAndTwentyEight)
{
    EXPECT_EQ(128 + SIGKILL, QN_PLATFORM_RunCommand("kill -KILL $$"));
    EXPECT_EQ(128 + SIGTERM, QN_PLATFORM_RunCommand("kill -TERM $$"));
}

TEST_F(RunCommand, SaysHundredAndTwentySevenWhenThereIsNoSuchProgram)
{
    EXPECT_EQ(127, QN_PLATFORM_RunCommand("/no/such/program"));
    EXPECT_EQ(127, QN_PLATFORM_RunCommand(nullptr));
}

TEST_F(RunCommand, SaysHundredAndTwentySevenWhenTheLineIsTooLongForTheSystem)
{
    EXPECT_EQ(127, QN_PLATFORM_RunCommand(("true " + std::string(size_t(4) << 20, 'x')).c_str()));
}

TEST_F(RunCommand, HasAnEchoThatUnderstandsEscapes)
{
    const std::string strOut = m_strDir + "/out";
    EXPECT_EQ(0, QN_PLATFORM_RunCommand(("echo -e \"o\\nn\\np\\n1\\n\\n\\nw\" | cat > " + strOut).c_str()));
    EXPECT_EQ("o\nn\np\n1\n\n\nw\n", ReadFile(strOut));
}

TEST_F(RunCommand, GivesTheCommandAnEmptyInput)
{
    EXPECT_EQ(0, QN_PLATFORM_RunCommand("cat"));
    EXPECT_EQ(1, QN_PLATFORM_RunCommand("read answer"));
}

TEST_F(RunCommand, FindsTheSystemProgramsOfAnOrdinaryUser)
{
    const std::string strOut = m_strDir + "/out";
    EXPECT_EQ(0, QN_PLATFORM_RunCommand(("echo $PATH > " + strOut).c_str()));
    EXPECT_NE(std::string::npos, ReadFile(strOut).find(":/usr/sbin:/sbin"));
}

TEST_F(RunCommand, GivesTheStatusToAHostThatIgnoresChildSignals)
{
    const SIGNAL_SETTING setting(SIGCHLD, SIG_IGN, 0);
    EXPECT_EQ(0, QN_PLATFORM_RunCommand("true"));
    EXPECT_EQ(9, QN_PLATFORM_RunCommand("(exit 9)"));
}

TEST_F(RunCommand, GivesTheStatusToAHostThatWantsNoZombies)
{
    const SIGNAL_SETTING setting(SIGCHLD, SIG_DFL, SA_NOCLDWAIT);
    EXPECT_EQ(9, QN_PLATFORM_RunCommand("exit 9"));
}

TEST_F(RunCommand, GivesTheStatusToAHostThatCollectsEveryChild)
{
    const SIGNAL_SETTING setting(SIGCHLD, CollectEveryChild, 0);
    for (int32_t i = 0; i < 10; ++i)
    {
        EXPECT_EQ(9, QN_PLATFORM_RunCommand("exit 9"));
    }
}

TEST_F(RunCommand, LetsTheCommandWaitForItsOwnChildrenThoughTheHostIgnoresTheirSignal)
{
    const SIGNAL_SETTING setting(SIGCHLD, SIG_IGN, 0);
    EXPECT_EQ(5, QN_PLATFORM_RunCommand("(exit 5) & wait $!"));
}

TEST_F(RunCommand, GoesOnWaitingWhenSignalsInterruptIt)
{
    const SIGNAL_SETTING setting(SIGUSR1, CountSignal, 0);
    const std::string strGo = m_strDir + "/go";
    const pthread_t runner = pthread_self();
    const int32_t s32Before = s_s32Signals;
    std::thread other(
        [&]
        {
            for (int32_t i = 0; i < 20; ++i)
            {
                const int32_t s32Now = s_s32Signals;
                pthread_kill(runner, SIGUSR1);
                TEST_WaitFor([s32Now] { return s_s32Signals > s32Now; });
            }
            MakeFile("go");
        });
    EXPECT_EQ(4, QN_PLATFORM_RunCommand(("while [ ! -e " + strGo + " ]; do sleep 0.01; done; exit 4").c_str()));
    other.join();
    EXPECT_EQ(20, s_s32Signals - s32Before);
}

TEST_F(RunCommand, StartsTheCommandWithNoSignalBlocked)
{
    sigset_t stAll;
    sigset_t stBefore;
    sigfillset(&stAll);
    pthread_sigmask(SIG_SETMASK, &stAll, &stBefore);
    EXPECT_EQ(128 + SIGTERM, QN_PLATFORM_RunCommand("kill -TERM $$"));
    pthread_sigmask(SIG_SETMASK, &stBefore, nullptr);
}

TEST_F(RunCommand, RunsCommandsOfSeveralThreadsAtOnce)
{
    std::atomic<int32_t> s32Right{0};
    std::vector<std::thread> vecThreads;
    for (int32_t i = 1; i <= 8; ++i)
    {
        vecThreads.emplace_back(
            [i, &s32Right]
            {
                for (int32_t j = 0; j < 5; ++j)
                {
                    s32Right += QN_PLATFORM_RunCommand(("exit " + std::to_string(i)).c_str()) == i ? 1 : 0;
                }
            });
    }
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    EXPECT_EQ(8 * 5, s32Right);
}

TEST_F(RunCommand, DoesNotWaitForADaemonThatTheCommandLeavesBehind)
{
    const std::string strAlive = MakeFile("alive");
    const std::string strEnded = m_strDir + "/ended";
    const std::string strLine = "(while [ -e " + strAlive + " ]; do sleep 0.01; done; : > " + strEnded + ") &";
    EXPECT_EQ(0, QN_PLATFORM_RunCommand(strLine.c_str()));
    EXPECT_FALSE(Exists(strEnded));
    std::filesystem::remove(strAlive);
    EXPECT_TRUE(TEST_WaitFor([&strEnded] { return Exists(strEnded); }));
}

TEST_F(RunCommand, LeavesNoDescriptorOpen)
{
    const size_t uBefore = OpenDescriptors();
    EXPECT_EQ(0, QN_PLATFORM_RunCommand("true"));
    EXPECT_EQ(127, QN_PLATFORM_RunCommand(("true " + std::string(size_t(4) << 20, 'x')).c_str()));
    EXPECT_EQ(uBefore, OpenDescriptors());
}

TEST_F(RunCommand, LooksForBashAndThenForBusybox)
{
    const std::string strFirst = MakeFolder("first");
    const std::string strSecond = MakeFolder("second");
    const std::string strFolders = ":relative:" + strFirst + ":" + strSecond;
    EXPECT_TRUE(PLATFORM_FindShell(strFolders).empty());

    const std::string strBusybox = MakeFile("first/busybox");
    EXPECT_TRUE(PLATFORM_FindShell(strFolders).empty()); // not executable
    std::filesystem::permissions(strBusybox, std::filesystem::perms::all);
    EXPECT_EQ((std::vector<std::string>{strBusybox, "sh"}), PLATFORM_FindShell(strFolders));

    const std::string strBash = MakeFile("second/bash");
    std::filesystem::permissions(strBash, std::filesystem::perms::all);
    EXPECT_EQ(std::vector<std::string>{strBash}, PLATFORM_FindShell(strFolders));
}

TEST_F(RunCommand, WorksWithBusyboxAlone)
{
    const std::string strBusybox = [&]
    {
        for (const char *pszPath : {"/bin/busybox", "/usr/bin/busybox", "/usr/local/bin/busybox"})
        {
            if (access(pszPath, X_OK) == 0)
            {
                return std::string(pszPath);
            }
        }
        return std::string();
    }();
    if (strBusybox.empty())
    {
        GTEST_SKIP() << "busybox is not installed";
    }
    const std::vector<std::string> vecShell = {strBusybox, "sh"};
    const std::string strOut = m_strDir + "/out";
    EXPECT_EQ(0, PLATFORM_RunArgs(vecShell, {strBusybox, "sh", "-c", "echo -e \"a\\nb\" > " + strOut}));
    EXPECT_EQ("a\nb\n", ReadFile(strOut));
    EXPECT_EQ(6, PLATFORM_RunArgs(vecShell, {strBusybox, "sh", "-c", "exit 6"}));
    EXPECT_EQ(128 + SIGTERM, PLATFORM_RunArgs(vecShell, {strBusybox, "sh", "-c", "kill -TERM $$"}));
}

TEST_F(RunCommand, SaysSoWhenNoShellIsThere)
{
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "needs root, to enter a directory without any shell";
    }
    const std::string strEmpty = MakeFolder("empty");
    const auto runInEmptyRoot = [&strEmpty]
    {
        if (chroot(strEmpty.c_str()) != 0 || chdir("/") != 0)
        {
            _exit(1);
        }
        _exit(QN_PLATFORM_RunCommand("true"));
    };
    EXPECT_EXIT(runInEmptyRoot(), ::testing::ExitedWithCode(127), "ERROR .*neither bash nor busybox");
}
