// The simulated card itself: it comes and goes as the kernel's own, causes the faults that it promises, and is cleaned
// up.

#include <csignal>
#include <fstream>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "card/sim/faults.h"
#include "card/sim/guard.h"
#include "card/sim/loop.h"
#include "rig.h"
#include "support/card.h"

namespace
{

class Simulator : public CARD_REAL
{
protected:
    // Mounts the card on its directory, past the library. The kernel shows a partition's node a moment before it can be
    // opened; the library gives it a second.
    static bool MountIt(const CARD &card, unsigned long uFlags = 0)
    {
        mkdir(card.MountDir().c_str(), 0755);
        return TEST_WaitFor(
            [&card, uFlags]
            { return mount(card.Partition().c_str(), card.MountDir().c_str(), "ext4", uFlags, nullptr) == 0; },
            RIG_WAIT_MS);
    }

    static bool WriteAndSync(const std::string &strPath, size_t uBytes)
    {
        const int s32Fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        const std::string strData(uBytes, 'x');
        const bool bDone = s32Fd >= 0 &&
                           write(s32Fd, strData.data(), strData.size()) == static_cast<ssize_t>(strData.size()) &&
                           fsync(s32Fd) == 0;
        if (s32Fd >= 0)
        {
            close(s32Fd);
        }
        return bDone;
    }

    static CARD_PARAM_S Served()
    {
        CARD_PARAM_S stParam;
        stParam.bServed = true;
        return stParam;
    }
};

} // namespace

TEST_F(Simulator, CardComesAndGoesAndKeepsItsFiles)
{
    CARD card;
    EXPECT_FALSE(TEST_Exists(card.Device()));
    ASSERT_TRUE(card.In());
    EXPECT_FALSE(card.In()); // it is in
    ASSERT_TRUE(MountIt(card));
    TEST_Touch(card.MountDir() + "/file", "kept");
    EXPECT_TRUE(card.Out(CARD_PULL_WRITTEN));
    EXPECT_FALSE(TEST_Exists(card.Device()));
    EXPECT_FALSE(TEST_Exists(card.MountDir() + "/file"));
    ASSERT_TRUE(card.In());
    ASSERT_TRUE(MountIt(card));
    EXPECT_EQ("kept", TEST_ReadFile(card.MountDir() + "/file"));
}

TEST_F(Simulator, NumbersBelowFortyAreRefused)
{
    EXPECT_FALSE(LOOP_Add(39));
    EXPECT_EQ(EPERM, errno);
    EXPECT_FALSE(LOOP_Remove(7));
    EXPECT_FALSE(LOOP_Attach(0, "/dev/null", true));
    EXPECT_FALSE(LOOP_Announce(7, "change"));
}

TEST_F(Simulator, PowerCutLosesWhatWasNotSyncedAndNothingElse)
{
    CARD card;
    ASSERT_TRUE(card.In());
    ASSERT_TRUE(MountIt(card));
    ASSERT_TRUE(WriteAndSync(card.MountDir() + "/synced", 100000));
    TEST_Touch(card.MountDir() + "/late", "lost");
    ASSERT_TRUE(card.CutPower());
    EXPECT_FALSE(WriteAndSync(card.MountDir() + "/after", 1));
    card.Unmount();
    ASSERT_TRUE(MountIt(card));
    EXPECT_EQ(100000u, TEST_ReadFile(card.MountDir() + "/synced").size());
    EXPECT_EQ("", TEST_ReadFile(card.MountDir() + "/late"));
}

TEST_F(Simulator, PulledWithAFileOpenTheDeviceGoesWithItsLastUser)
{
    CARD card;
    ASSERT_TRUE(card.In());
    ASSERT_TRUE(MountIt(card));
    const int s32Fd = open((card.MountDir() + "/open").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(s32Fd, 0);
    EXPECT_TRUE(card.Out(CARD_PULL_CUT));
    EXPECT_FALSE(TEST_Exists(card.Device()));
    EXPECT_FALSE(card.Gone(50));
    EXPECT_EQ(-1, write(s32Fd, "x", 1));
    EXPECT_EQ(EIO, errno);
    close(s32Fd);
    EXPECT_TRUE(card.Gone());
    EXPECT_TRUE(card.In());
}

TEST_F(Simulator, MountsAreSeenByThisProgramAlone)
{
    CARD card;
    ASSERT_TRUE(card.In());
    ASSERT_TRUE(MountIt(card));
    EXPECT_NE(std::string::npos, TEST_ReadFile("/proc/self/mounts").find(card.MountDir()));
    const std::string strOthers = TEST_ReadFile("/proc/" + std::to_string(getppid()) + "/mounts");
    EXPECT_NE("", strOthers);
    EXPECT_EQ(std::string::npos, strOthers.find(card.MountDir()));
}

TEST_F(Simulator, ServedCardFailsForGoodWhenItsServerIsKilled)
{
    CARD card(Served());
    ASSERT_TRUE(card.In());
    ASSERT_TRUE(MountIt(card));
    ASSERT_TRUE(WriteAndSync(card.MountDir() + "/synced", 100000));
    EXPECT_GT(card.Server()->Control().s64Writes, 0);
    card.Server()->Kill();
    EXPECT_FALSE(WriteAndSync(card.MountDir() + "/after", 100000));
    ASSERT_TRUE(card.Out(CARD_PULL_CUT));
    ASSERT_TRUE(card.In()); // with a new server
    ASSERT_TRUE(MountIt(card));
    EXPECT_EQ(100000u, TEST_ReadFile(card.MountDir() + "/synced").size());
}

TEST_F(Simulator, ServedCardCanBeSlowAndCanFailAndHeals)
{
    CARD card(Served());
    ASSERT_TRUE(card.In());
    ASSERT_TRUE(MountIt(card));
    card.Server()->Control().s32DelayMs = 200;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(WriteAndSync(card.MountDir() + "/slow", 4096));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(200));
    card.Server()->Heal();
    card.Server()->FailWritesAfter(0, EIO);
    EXPECT_FALSE(WriteAndSync(card.MountDir() + "/failing", 4096));
    EXPECT_GT(card.Server()->Control().s64Failures, 0);
    card.Server()->Heal();
    card.Unmount();
    ASSERT_TRUE(MountIt(card));
    EXPECT_TRUE(WriteAndSync(card.MountDir() + "/healed", 4096));
}

TEST_F(Simulator, ThinCardRunsOutBehindTheFileSystemsBack)
{
    CARD_PARAM_S stParam;
    stParam.s64ThinBytes = 16 * 1024 * 1024;
    CARD card(stParam);
    ASSERT_TRUE(card.In());
    ASSERT_TRUE(MountIt(card));
    EXPECT_FALSE(WriteAndSync(card.MountDir() + "/big", 32 * 1024 * 1024));
    EXPECT_TRUE(card.Grow(128 * 1024 * 1024));
    EXPECT_TRUE(WriteAndSync(card.MountDir() + "/more", 8 * 1024 * 1024));
}

TEST_F(Simulator, ReadOnlyCardTakesNoFile)
{
    CARD_PARAM_S stParam;
    stParam.bReadOnly = true;
    CARD card(stParam);
    ASSERT_TRUE(card.In());
    ASSERT_TRUE(MountIt(card, MS_RDONLY));
    EXPECT_FALSE(WriteAndSync(card.MountDir() + "/file", 1));
}

TEST_F(Simulator, CopyOfTheImageIsACardAsAfterAPowerCut)
{
    CARD card;
    ASSERT_TRUE(card.In());
    ASSERT_TRUE(MountIt(card));
    ASSERT_TRUE(WriteAndSync(card.MountDir() + "/synced", 1000));
    const std::string strCopy = card.Dir() + "/copy";
    ASSERT_TRUE(card.Copy(strCopy));
    CARD_PARAM_S stParam;
    stParam.strFrom = strCopy;
    CARD copy(stParam);
    ASSERT_TRUE(copy.In());
    ASSERT_TRUE(MountIt(copy));
    EXPECT_EQ(1000u, TEST_ReadFile(copy.MountDir() + "/synced").size());
}

TEST_F(Simulator, NthCallBelowAPathFails)
{
    const TEMP_DIR dir;
    FAULTS_Begin(dir.strPath.c_str());
    const FAULT_S stSecond = {2, 1, ENOSPC, 0};
    FAULTS_Set(FAULT_CALL_OPEN, &stSecond);
    const int s32First = open((dir.strPath + "/a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_GE(s32First, 0);
    EXPECT_EQ(-1, open((dir.strPath + "/b").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(ENOSPC, errno);
    const FAULT_S stAll = {1, -1, EIO, 0};
    FAULTS_Set(FAULT_CALL_WRITE, &stAll);
    EXPECT_EQ(-1, write(s32First, "x", 1));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(2, FAULTS_Count(FAULT_CALL_OPEN));
    EXPECT_EQ(1, FAULTS_Touched(FAULT_CALL_OPEN));
    EXPECT_EQ(1, FAULTS_Touched(FAULT_CALL_WRITE));
    FAULTS_Begin(nullptr);
    EXPECT_EQ(1, write(s32First, "x", 1));
    close(s32First);
}

TEST_F(Simulator, RenamesDeletionsAndSyncsBelowAPathAreToldOfBeforeAndBehind)
{
    static std::vector<std::string> s_vecTold;
    s_vecTold.clear();
    const TEMP_DIR dir;
    const TEMP_DIR other;
    const std::string strA = dir.strPath + "/a";
    const std::string strB = dir.strPath + "/b";
    FAULTS_Begin(dir.strPath.c_str());
    FAULTS_Watch([](FAULT_CALL_E enCall, const char *pszPath, bool bAfter)
                 { s_vecTold.push_back(std::to_string(enCall) + (bAfter ? " after " : " before ") + pszPath); });
    EXPECT_TRUE(WriteAndSync(strA, 10));
    EXPECT_TRUE(WriteAndSync(other.strPath + "/c", 10));
    EXPECT_EQ(0, rename(strA.c_str(), strB.c_str()));
    EXPECT_EQ(-1, rename(strA.c_str(), strB.c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0, remove(strB.c_str()));
    FAULTS_Watch(nullptr);
    EXPECT_EQ(-1, unlink(strB.c_str()));
    FAULTS_Begin(nullptr);
    const std::string strSync = std::to_string(FAULT_CALL_SYNC);
    const std::string strRename = std::to_string(FAULT_CALL_RENAME);
    const std::string strUnlink = std::to_string(FAULT_CALL_UNLINK);
    EXPECT_EQ((std::vector<std::string>{strSync + " before " + strA, strSync + " after " + strA,
                                        strRename + " before " + strA, strRename + " after " + strA,
                                        strRename + " before " + strA, strUnlink + " before " + strB,
                                        strUnlink + " after " + strB}),
              s_vecTold);
}

TEST_F(Simulator, CardOfAKilledProgramIsTakenAway)
{
    GUARD_Start();
    int as32Pipe[2];
    ASSERT_EQ(0, pipe2(as32Pipe, O_CLOEXEC));
    const pid_t pid = fork();
    if (pid == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // also when an expectation ends this test early
        CARD card;
        const bool bIn = card.In() && MountIt(card);
        const std::string strWords = (bIn ? card.Device() + "\n" + card.Dir() : "no\ncard") + "\n";
        _exit(write(as32Pipe[1], strWords.data(), strWords.size()) > 0 && pause() != 0 ? 0 : 1);
    }
    close(as32Pipe[1]);
    char szWords[256] = {};
    ASSERT_GT(read(as32Pipe[0], szWords, sizeof(szWords) - 1), 0);
    close(as32Pipe[0]);
    std::istringstream words(szWords);
    std::string strDevice;
    std::string strDir;
    words >> strDevice >> strDir;
    ASSERT_TRUE(TEST_Exists(strDevice)) << szWords;
    ASSERT_TRUE(LOOP_HasMountBelow(strDir));
    EXPECT_EQ(0, GUARD_CleanStale()); // its program lives
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(1, GUARD_CleanStale());
    EXPECT_FALSE(TEST_Exists(strDevice));
    EXPECT_FALSE(TEST_Exists(strDir));
}
