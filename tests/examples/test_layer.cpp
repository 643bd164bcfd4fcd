// The utility layer of own_layer: what a runner must do, without the library around it.

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "own_layer/layer.h"
#include "support/scratch.h"

using namespace libquarrin;

namespace
{

class Layer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_strDir = TEST_MakeScratch("layer");
        ASSERT_NE("", m_strDir);
        m_stParam.strDevice = m_strDir + "/card";
        m_stParam.s32PartitionNo = 1;
        m_stParam.pszMountPoint = m_strDir + "/mnt";
        mkdir(m_stParam.pszMountPoint.c_str(), 0755);
        LAYER_Begin(m_stParam, std::chrono::seconds(60));
    }

    void TearDown() override
    {
        EXPECT_TRUE(TEST_RemoveScratch(m_strDir));
    }

    static int Run(const std::string &strLine)
    {
        return BU_RunCmd(strLine.c_str());
    }

    static bool Exists(const std::string &strPath)
    {
        return access(strPath.c_str(), F_OK) == 0;
    }

    std::string m_strDir;
    tagQN_STORAGE_PARAM_S m_stParam;
};

} // namespace

TEST_F(Layer, GivesTheStatusOfTheLine)
{
    EXPECT_EQ(0, Run("true"));
    EXPECT_EQ(3, Run("exit 3"));
    EXPECT_EQ(1, Run("true; false"));
    EXPECT_EQ(127, Run("quarrin-no-such-program"));
    EXPECT_EQ(128 + 15, Run("kill -TERM $$"));
}

TEST_F(Layer, HasAShellWhoseEchoKnowsItsOptionAndTheFoldersOfMkfs)
{
    EXPECT_EQ(0, Run("test \"$(echo -e 'o\\nn' | wc -l)\" = 2"));
    EXPECT_EQ(0, Run("PATH=; exit 0"));
    setenv("PATH", "/usr/bin:/bin", 1);
    EXPECT_EQ(0, Run("case :$PATH: in *:/sbin:*) exit 0;; *) exit 1;; esac"));
}

TEST_F(Layer, MountsACardAndAUsbDiskWithOptionsOfItsOwn)
{
    if (geteuid() != 0 || access("/dev/loop-control", R_OK | W_OK) != 0)
    {
        GTEST_SKIP() << "mounting an image needs root and loop devices";
    }
    const std::string &strMount = m_stParam.pszMountPoint;
    for (const std::string &strNode :
         {m_stParam.strDevice + "p1", m_stParam.strDevice + "1", m_stParam.strDevice + "p1"})
    {
        ASSERT_EQ(0, Run("truncate -s 4M " + strNode + " && mkfs.ext4 -q -F " + strNode));
        EXPECT_EQ(0, Run("mkdir -p " + strMount + "; mount " + strNode + " " + strMount)) << strNode;
        std::ifstream mounts("/proc/self/mounts");
        std::string strFound;
        for (std::string strLine; std::getline(mounts, strLine);)
        {
            strFound += strLine.find(" " + strMount + " ") != std::string::npos ? strLine : "";
        }
        EXPECT_NE(std::string::npos, strFound.find("nosuid,nodev,noexec")) << strFound;
        EXPECT_EQ(0, Run("umount " + strMount + "; rm -rf " + strMount));
        EXPECT_FALSE(Exists(strMount));
        unlink(strNode.c_str());
    }
}

TEST_F(Layer, KillsWhatTakesTooLongWithAllThatItStarted)
{
    LAYER_Begin(m_stParam, std::chrono::seconds(1));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(124, Run("sleep 300 & echo $! > " + m_strDir + "/out; sleep 300"));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(100));
    // A killed child of nobody is a zombie at most, until somebody collects it.
    const std::string strGone = "read p < " + m_strDir +
                                "/out; state=$(sed 's/.*) \\(.\\).*/\\1/' /proc/$p/stat) ; "
                                "test -z \"$state\" -o \"$state\" = Z -o \"$state\" = X";
    LAYER_Begin(m_stParam, std::chrono::seconds(60));
    EXPECT_EQ(0, Run(strGone));
}

TEST_F(Layer, DeletesNothingWhenItCannotUnmount)
{
    const std::string strMount = m_stParam.pszMountPoint;
    EXPECT_EQ(1, Run("umount " + strMount + "; rm -rf " + strMount)); // no mount point
    EXPECT_TRUE(Exists(strMount));
    EXPECT_EQ(1, Run("umount " + m_strDir + "; rm -rf " + m_strDir)); // not its card at all
    EXPECT_EQ(1, Run("rm -rf " + strMount));
    EXPECT_TRUE(Exists(strMount));
}

TEST_F(Layer, RunsTheFolderLine)
{
    const std::string strFolder = m_stParam.pszMountPoint + "/rec";
    EXPECT_EQ(0, Run("mkdir -p " + strFolder));
    EXPECT_TRUE(Exists(strFolder));
    rmdir(strFolder.c_str());
}

TEST_F(Layer, RemovesAnEmptyMountDirectoryAndNothingElse)
{
    const std::string strMount = m_stParam.pszMountPoint;
    m_stParam.astVolume[0].bEnable = 1;
    m_stParam.astVolume[0].pszFolder = "rec";
    mkdir((strMount + "/rec").c_str(), 0755);
    mkdir((strMount + "/rec/file").c_str(), 0755); // not empty
    LAYER_RemoveLeftover(m_stParam);
    EXPECT_TRUE(Exists(strMount + "/rec/file"));
    rmdir((strMount + "/rec/file").c_str());
    const std::string strDevice = m_stParam.strDevice;
    m_stParam.strDevice = "/dev/null";
    LAYER_RemoveLeftover(m_stParam);
    EXPECT_TRUE(Exists(strMount + "/rec"));
    m_stParam.strDevice = strDevice;
    LAYER_RemoveLeftover(m_stParam);
    EXPECT_FALSE(Exists(strMount));
}

TEST_F(Layer, LetsTheHostsSettingsChangeNoLine)
{
    setenv("SHELLOPTS", "errexit:noexec", 1);
    setenv("BASH_FUNC_test%%", "() {  return 9; }", 1);
    EXPECT_EQ(3, Run("false; test 1 = 1 && exit 3"));
    unsetenv("SHELLOPTS");
    unsetenv("BASH_FUNC_test%%");
    const int s32Open = dup(STDERR_FILENO);
    EXPECT_EQ(1, Run("test -e /proc/self/fd/" + std::to_string(s32Open)));
    close(s32Open);
}

TEST_F(Layer, TakesTheMessagesOfTheLibrary)
{
    ::testing::internal::CaptureStderr();
    UTIL_LOG_Print(3, "QN_Call[12] ", "%d of %s", 5, "six");
    BSP_PrintLog(6, "thread %s\n", "starts");
    const std::string strText = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, strText.find("QN_Call[12] 5 of six\n")) << strText;
    EXPECT_NE(std::string::npos, strText.find("thread starts\n")) << strText;
}
