// What is written through to the card, when, and who waits for it.

#include "durable.h"
#include "support/scratch.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "../support/wait.h"

/// What the test's own fsync saw, and how it answers.
struct SYNCS_S
{
    std::mutex mutex;
    std::vector<std::string> vecPaths;
    std::atomic<int32_t> s32Errno{0};
    std::atomic<bool> bHold{false};
    std::atomic<bool> bHeld{false};
    std::atomic<bool> bPatch{
        false}; ///< the next sync of a file named "new" is followed by a change that keeps its size
    std::atomic<bool> bCoarse{false}; ///< time stamps are those of vfat
};

static SYNCS_S &Syncs()
{
    static SYNCS_S *s_pSyncs = new SYNCS_S();
    return *s_pSyncs;
}

// Stands before the C library's.
extern "C" int fsync(int fd)
{
    char szPath[PATH_MAX + 1] = {};
    if (readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), szPath, PATH_MAX) > 0)
    {
        const std::lock_guard<std::mutex> lock(Syncs().mutex);
        Syncs().vecPaths.emplace_back(szPath);
    }
    while (Syncs().bHold)
    {
        Syncs().bHeld = true;
        TEST_SleepMs(1);
    }
    if (Syncs().s32Errno != 0)
    {
        errno = Syncs().s32Errno;
        return -1;
    }
    const int s32Result = static_cast<int>(syscall(SYS_fsync, fd));
    if (strcmp(basename(szPath), "new") == 0 && Syncs().bPatch.exchange(false))
    {
        std::fstream(szPath, std::ios::in | std::ios::out) << "F";
    }
    return s32Result;
}

// Stands before the C library's. What the tool looks at is there.
extern "C" int fstatat(int dir, const char *name, struct stat *result, int flags) noexcept
{
    struct statx stFile = {};
    if (statx(dir, name, flags, STATX_BASIC_STATS, &stFile) != 0)
    {
        return -1;
    }
    *result = {};
    result->st_ino = static_cast<ino_t>(stFile.stx_ino);
    result->st_mode = stFile.stx_mode;
    result->st_size = static_cast<off_t>(stFile.stx_size);
    const bool bCoarse = Syncs().bCoarse;
    const auto fnStamp = [bCoarse](const statx_timestamp &stStamp)
    {
        timespec stTime = {};
        stTime.tv_sec = static_cast<time_t>(bCoarse ? stStamp.tv_sec / 2 * 2 : stStamp.tv_sec);
        stTime.tv_nsec = bCoarse ? 0 : static_cast<long>(stStamp.tv_nsec);
        return stTime;
    };
    result->st_mtim = fnStamp(stFile.stx_mtime);
    result->st_ctim = fnStamp(stFile.stx_ctime);
    return 0;
}

class Durable : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_strDir = TEST_MakeScratch("durable");
        ASSERT_NE("", m_strDir);
        m_strFolder = m_strDir + "/rec";
        ASSERT_EQ(0, mkdir(m_strFolder.c_str(), 0700));
        Forget();
    }

    void TearDown() override
    {
        Syncs().bHold = false;
        Syncs().s32Errno = 0;
        Syncs().bCoarse = false;
        TOOL_DURABLE_End(m_stDurable);
        EXPECT_TRUE(TEST_RemoveScratch(m_strDir));
    }

    static void Forget()
    {
        const std::lock_guard<std::mutex> lock(Syncs().mutex);
        Syncs().vecPaths.clear();
    }

    static std::vector<std::string> Seen()
    {
        const std::lock_guard<std::mutex> lock(Syncs().mutex);
        return Syncs().vecPaths;
    }

    static bool WaitSeen(const std::string &strPath)
    {
        return TEST_WaitFor(
            [&strPath]
            {
                const std::vector<std::string> vecPaths = Seen();
                return std::find(vecPaths.begin(), vecPaths.end(), strPath) != vecPaths.end();
            },
            20000);
    }

    std::string Path(const std::string &strName) const
    {
        return m_strFolder + "/" + strName;
    }

    void Write(const std::string &strName) const
    {
        std::ofstream(Path(strName), std::ios::app) << "frames";
    }

    std::string m_strDir;
    std::string m_strFolder;
    tagTOOL_DURABLE_S m_stDurable;
};

TEST_F(Durable, DoesNothingWhenItIsNotAskedFor)
{
    ASSERT_TRUE(TOOL_DURABLE_Begin(m_stDurable, m_strFolder, 0));
    TOOL_DURABLE_End(m_stDurable);
    EXPECT_TRUE(Seen().empty());
}

TEST_F(Durable, WritesAFileInProgressThroughAgainAndAgain)
{
    ASSERT_TRUE(TOOL_DURABLE_Begin(m_stDurable, m_strFolder, 1));
    for (int32_t i = 0; i < 2; i++)
    {
        Forget();
        Write("new");
        EXPECT_TRUE(WaitSeen(Path("new")));
        EXPECT_TRUE(WaitSeen(m_strFolder)); // and its name
    }
}

TEST_F(Durable, WritesAFileThroughUnderItsFinalName)
{
    Write("new");
    ASSERT_TRUE(TOOL_DURABLE_Begin(m_stDurable, m_strFolder, 1));
    ASSERT_EQ(0, rename(Path("new").c_str(), Path("final").c_str()));
    EXPECT_TRUE(WaitSeen(Path("final")));
}

TEST_F(Durable, LeavesFilesAloneThatDoNotChange)
{
    Write("old");
    ASSERT_TRUE(TOOL_DURABLE_Begin(m_stDurable, m_strFolder, 1));
    for (int32_t i = 0; i < 2; i++)
    {
        Forget();
        Write("new");
        ASSERT_TRUE(WaitSeen(Path("new")));
        const std::vector<std::string> vecPaths = Seen();
        EXPECT_EQ(vecPaths.end(), std::find(vecPaths.begin(), vecPaths.end(), Path("old")));
    }
}

TEST_F(Durable, WritesAFileAgainThatWasChangedDuringItsSyncAndLooksTheSame)
{
    Syncs().bCoarse = true;
    ASSERT_TRUE(TOOL_DURABLE_Begin(m_stDurable, m_strFolder, 1));
    ASSERT_TRUE(TEST_WaitFor([] { return time(nullptr) % 2 == 0; })); // the next pass sees the same two seconds
    Syncs().bPatch = true;
    Write("new");
    ASSERT_TRUE(TEST_WaitFor([] { return !Syncs().bPatch; }, 20000));
    Forget();
    EXPECT_TRUE(WaitSeen(Path("new")));
}

TEST_F(Durable, WritesDataBeforeNames)
{
    ASSERT_TRUE(TOOL_DURABLE_Begin(m_stDurable, m_strFolder, 3600));
    ASSERT_TRUE(WaitSeen(m_strFolder));
    Forget();
    Write("new");
    TOOL_DURABLE_End(m_stDurable);
    EXPECT_EQ((std::vector<std::string>{Path("new"), m_strFolder}), Seen());
}

TEST_F(Durable, KeepsNobodyWaitingWhileTheCardIsBusy)
{
    Write("new");
    ASSERT_TRUE(TOOL_DURABLE_Begin(m_stDurable, m_strFolder, 1));
    Syncs().bHold = true;
    Write("new");
    ASSERT_TRUE(TEST_WaitFor([] { return Syncs().bHeld.load(); }, 20000));
    EXPECT_EQ(0, TOOL_DURABLE_TakeError(m_stDurable)); // comes back: all that the frame road calls
    Syncs().bHold = false;
    Syncs().bHeld = false;
}

TEST_F(Durable, TellsOfAFailureAndGoesOn)
{
    ASSERT_TRUE(TOOL_DURABLE_Begin(m_stDurable, m_strFolder, 1));
    ASSERT_TRUE(WaitSeen(m_strFolder));
    Syncs().s32Errno = EIO;
    Write("new");
    EXPECT_TRUE(TEST_WaitFor([this] { return TOOL_DURABLE_TakeError(m_stDurable) == EIO; }, 20000));
    Syncs().s32Errno = 0;
    Forget();
    EXPECT_TRUE(WaitSeen(Path("new"))); // what was not written is tried again
}
