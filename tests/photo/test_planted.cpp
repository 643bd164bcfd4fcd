// Pictures and what somebody has planted in their place: nothing is followed, and nobody else's folder is used.

#include "photo_support.h"

#include <functional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/card.h"
#include "support/process.h"

using namespace libquarrin;

namespace
{

constexpr char FOLDER[] = "/tmp/web_cache";

class Planted : public ::testing::Test
{
protected:
    void SetUp() override
    {
        FAKE_PLATFORM_Reset();
        m_strVictim = TEST_Touch(m_dir.strPath + "/victim", "the host's");
        m_strPath = m_dir.strPath + "/picture.jpg";
    }

    // The ways to save a picture at m_strPath.
    std::vector<std::function<void()>> Saves()
    {
        return {[this] {
                    JPEG_Write(m_strPath.c_str(), m_vecRgb.data(), 0, {32, 16, 24, 96, 0, 90});
                },
                [this]
                {
                    FFMUXER_SaveYuvToJpeg(m_strPath.c_str(), m_vecRgb.data(), 32, 16);
                }};
    }

    // Runs fn in a process that has a temporary directory of its own; fn returns what went wrong, or an empty text.
    // False when this user may not have one.
    bool InOwnTmp(const std::function<std::string()> &fn, std::string &strWrong)
    {
        int aPipe[2];
        EXPECT_EQ(0, pipe(aPipe));
        const pid_t pid = fork();
        if (pid == 0)
        {
            if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0)
            {
                _exit(77);
            }
            const std::string strText = fn();
            (void)!write(aPipe[1], strText.data(), strText.size());
            _exit(0);
        }
        close(aPipe[1]);
        char acText[1000];
        for (ssize_t s64Read = 0; (s64Read = read(aPipe[0], acText, sizeof(acText))) > 0;)
        {
            strWrong.append(acText, static_cast<size_t>(s64Read));
        }
        close(aPipe[0]);
        int s32Status = -1;
        EXPECT_EQ(pid, waitpid(pid, &s32Status, 0));
        EXPECT_TRUE(WIFEXITED(s32Status) && (WEXITSTATUS(s32Status) == 0 || WEXITSTATUS(s32Status) == 77)) << s32Status;
        return !WIFEXITED(s32Status) || WEXITSTATUS(s32Status) != 77;
    }

    // Saves into the folder as it stands; what went wrong when the picture is there, or is not.
    std::string SaveExpecting(bool bSaved, const std::string &strFolder)
    {
        char szPath[512] = "";
        const int32_t s32Result =
            QN_RecordSaveRGBAsJpeg(nullptr, m_vecRgb.data(), 0, {32, 16, 24, 96, 0, 90}, "c", szPath);
        std::string strWrong = s32Result == 0 ? "" : "a result ";
        strWrong += std::string(szPath).find(FOLDER) == 0 ? "" : "no path ";
        strWrong += (TEST_List(strFolder).size() == 1) == bSaved ? "" : (bSaved ? "no picture " : "a picture ");
        return strWrong;
    }

    TEMP_DIR m_dir;
    std::string m_strVictim;
    std::string m_strPath;
    const std::vector<uint8_t> m_vecRgb = std::vector<uint8_t>(32 * 16 * 3, 70);
    PROCESS_LIMIT m_limit{60}; // a FIFO that is opened holds up for good
};

} // namespace

TEST_F(Planted, LinksFifosAndNodesAreTakenAway)
{
    const std::vector<std::function<int()>> vecPlants = {
        [this] { return symlink(m_strVictim.c_str(), m_strPath.c_str()); },
        [this] { return symlink((m_dir.strPath + "/made").c_str(), m_strPath.c_str()); },
        [this] { return mkfifo(m_strPath.c_str(), 0600); },
        [this] { return mknod(m_strPath.c_str(), S_IFCHR | 0600, makedev(1, 3)); },
    };
    for (const std::function<void()> &fnSave : Saves())
    {
        for (const std::function<int()> &fnPlant : vecPlants)
        {
            if (fnPlant() != 0)
            {
                continue; // a node needs rights
            }
            fnSave();
            struct stat stStat = {};
            ASSERT_EQ(0, lstat(m_strPath.c_str(), &stStat));
            EXPECT_TRUE(S_ISREG(stStat.st_mode));
            EXPECT_TRUE(DecodeJpeg(m_strPath).bDecoded);
            EXPECT_EQ("the host's", TEST_ReadFile(m_strVictim));
            EXPECT_FALSE(TEST_Exists(m_dir.strPath + "/made"));
            ASSERT_EQ(0, unlink(m_strPath.c_str()));
        }
    }
}

TEST_F(Planted, AFolderStaysAndTheSaveFails)
{
    ASSERT_EQ(0, mkdir(m_strPath.c_str(), 0755));
    for (const std::function<void()> &fnSave : Saves())
    {
        fnSave();
        EXPECT_EQ(0, access(m_strPath.c_str(), F_OK));
    }
    EXPECT_GT(0, FFMUXER_SaveYuvToJpeg(m_strPath.c_str(), m_vecRgb.data(), 32, 16));
}

TEST_F(Planted, NodesOfTheSystemStay)
{
    for (const std::function<void()> &fnSave : Saves())
    {
        m_strPath = "/dev/null";
        fnSave();
        struct stat stStat = {};
        ASSERT_EQ(0, lstat("/dev/null", &stStat));
        EXPECT_TRUE(S_ISCHR(stStat.st_mode));
    }
}

TEST_F(Planted, AFolderOfSomebodyElseIsNotUsed)
{
    std::string strWrong;
    const bool bTried = InOwnTmp(
        [this]
        {
            std::string strText = SaveExpecting(false, FOLDER) + "without a folder; ";
            mkdir(FOLDER, 0755);
            for (const mode_t u32Mode : {0777u, 01777u, 0775u, 0757u})
            {
                chmod(FOLDER, u32Mode);
                strText += SaveExpecting(false, FOLDER) + "open to others; ";
            }
            chmod(FOLDER, 0755);
            if (chown(FOLDER, 12345, 0) == 0)
            {
                strText += SaveExpecting(false, FOLDER) + "of another user; ";
                chown(FOLDER, 0, 0) == 0 ? strText += "" : strText += "not given back; ";
            }
            strText += SaveExpecting(true, FOLDER) + "of our own; ";
            mkdir("/tmp/elsewhere", 0755);
            rename(FOLDER, "/tmp/before");
            symlink("/tmp/elsewhere", FOLDER) == 0 ? strText += "" : strText += "no link; ";
            strText += SaveExpecting(false, "/tmp/elsewhere") + "through a link; ";
            return strText;
        },
        strWrong);
    if (!bTried)
    {
        GTEST_SKIP() << "this user may not have a temporary directory of its own";
    }
    EXPECT_EQ("without a folder; open to others; open to others; open to others; open to others; of another user; "
              "of our own; through a link; ",
              strWrong);
}
