// A card that goes, is full or takes nothing any more; and a folder that is somebody's mount point.

#include <cerrno>
#include <csignal>
#include <cstdio>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "recordings.h"

/// The one line of a message, wherever the progress lines stand.
static size_t Count(const std::string &strText, const std::string &strPart)
{
    size_t uCount = 0;
    for (size_t u = strText.find(strPart); u != std::string::npos; u = strText.find(strPart, u + 1))
    {
        uCount++;
    }
    return uCount;
}

TEST(RecordTrouble, SaysThatTheCardIsGone)
{
    RECORDING_S &stRecording = RECORDINGS::Get().Of("gone");
    ASSERT_TRUE(stRecording.pTool->WaitForProgress(1)) << stRecording.pTool->Err();
    ASSERT_TRUE(stRecording.pTool->IsRunning());
    ASSERT_EQ(0, rename(stRecording.strStorage.c_str(), (stRecording.strStorage + ".away").c_str()));
    EXPECT_EQ(1, stRecording.pTool->Wait());
    EXPECT_EQ(1u, Count(stRecording.pTool->Err(), "quarrin: card gone\n")) << stRecording.pTool->Err();
    EXPECT_FALSE(TEST_Exists(stRecording.strStorage)) << "nothing may be made where the card was";
}

TEST(RecordTrouble, SaysThatTheStorageIsFullAtTheQuota)
{
    RECORDING_S &stRecording = RECORDINGS::Get().Of("full");
    EXPECT_EQ(1, stRecording.pTool->Wait());
    EXPECT_EQ(1u, Count(stRecording.pTool->Err(), "quarrin: storage full\n")) << stRecording.pTool->Err();
}

TEST(RecordTrouble, SaysThatTheFileDoesNotGrow)
{
    RECORDING_S &stRecording = RECORDINGS::Get().Of("stuck");
    EXPECT_EQ(1, stRecording.pTool->Wait());
    EXPECT_EQ(1u, Count(stRecording.pTool->Err(), "quarrin: not growing: ")) << stRecording.pTool->Err();
}

/// A small file system of the test's own.
class MountedFolder : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_strFolder = RECORDINGS::Get().NewFolder();
        if (mount("tmpfs", m_strFolder.c_str(), "tmpfs", 0, "size=256k") != 0)
        {
            ASSERT_EQ(EPERM, errno);
            GTEST_SKIP() << "mounting a file system takes root's rights";
        }
        m_bMounted = true;
    }
    void TearDown() override
    {
        if (m_bMounted)
        {
            EXPECT_EQ(0, umount(m_strFolder.c_str()));
        }
    }

    bool IsMounted() const
    {
        return TEST_ReadFile("/proc/self/mounts").find(" " + m_strFolder + " ") != std::string::npos;
    }

    std::string m_strFolder;
    bool m_bMounted = false;
};

TEST_F(MountedFolder, StaysMountedWithItsFilesWhateverCommandIsRun)
{
    const std::string strKeep = TEST_Touch(m_strFolder + "/keep");
    const std::string strClip = RECORDINGS::Get().Media("mpeg2.mpg");
    EXPECT_EQ(0, TOOL_Run({"list", "--storage", m_strFolder}).s32Status);
    EXPECT_EQ(2, TOOL_Run({"record", strClip, "--storage", m_strFolder}).s32Status);
    EXPECT_EQ(2, TOOL_Run({"play", "none.mkv", "--frames", "--storage", m_strFolder}).s32Status);
    EXPECT_EQ(2, TOOL_Run({"snapshot", "none.mkv", "out.jpg", "--storage", m_strFolder}).s32Status);
    EXPECT_TRUE(IsMounted());
    EXPECT_TRUE(TEST_Exists(strKeep));
}

TEST_F(MountedFolder, EndsARecordingAtOnceWhenTheFileSystemIsFull)
{
    const std::string strLong = RECORDINGS::Get().Media("long.ts");
    const TOOL_RESULT_S stResult = TOOL_Run({"record", strLong, "--storage", m_strFolder, "--format", "ts"});
    EXPECT_EQ(1, stResult.s32Status);
    EXPECT_EQ(1u, Count(stResult.strErr, "quarrin: storage full\n")) << stResult.strErr;
    EXPECT_TRUE(IsMounted());
    EXPECT_EQ(1u, TEST_List(m_strFolder + "/rec").size()); // what fitted is kept and finished
}

TEST_F(MountedFolder, ReportsNoFileWhoseTrailerFoundNoRoom)
{
    const std::string strLong = RECORDINGS::Get().Media("long.ts");
    const TOOL_RESULT_S stResult = TOOL_Run({"record", strLong, "--storage", m_strFolder, "--format", "mp4"});
    EXPECT_EQ(1, stResult.s32Status);
    EXPECT_EQ("", stResult.strOut);
    EXPECT_EQ(1u, Count(stResult.strErr, ".mp4 cannot be read again: its trailer is missing\n")) << stResult.strErr;
    EXPECT_EQ(1u, TEST_List(m_strFolder + "/rec").size()); // under a finished name, as the library left it
}

TEST_F(MountedFolder, SaysThatAShortFileCouldNotBeRemoved)
{
    TOOL_START_S stStart;
    stStart.vecArgs = {"record", RECORDINGS::Get().Media("long.ts"), "--storage", m_strFolder, "--format", "ts"};
    TOOL_PROCESS tool(stStart);
    ASSERT_TRUE(tool.WaitForProgress(1)) << tool.Err();
    const std::string strPath = m_strFolder + "/rec/" + TEST_List(m_strFolder + "/rec").at(0);
    ASSERT_EQ(0, mount("/dev/null", strPath.c_str(), nullptr, MS_BIND, nullptr)); // what is mounted on is not removed
    tool.Signal(SIGINT);
    EXPECT_EQ(1, tool.Wait());
    EXPECT_EQ(1u, Count(tool.Err(), " is shorter than 5 s and could not be removed\n")) << tool.Err();
    EXPECT_EQ("", tool.Out());
    EXPECT_EQ(0, umount(strPath.c_str()));
}

TEST_F(MountedFolder, SaysThatAFileCouldNotBeFinished)
{
    TOOL_START_S stStart;
    stStart.vecArgs = {"record", "test", "--storage", m_strFolder, "--format", "ts"};
    TOOL_PROCESS tool(stStart);
    ASSERT_TRUE(tool.WaitForProgress(6)) << tool.Err();
    const std::string strPath = m_strFolder + "/rec/" + TEST_List(m_strFolder + "/rec").at(0);
    ASSERT_EQ(0, mount("/dev/null", strPath.c_str(), nullptr, MS_BIND, nullptr)); // nor is it renamed
    tool.Signal(SIGINT);
    EXPECT_EQ(1, tool.Wait());
    EXPECT_EQ(1u, Count(tool.Err(), " could not be finished\n")) << tool.Err();
    EXPECT_EQ("", tool.Out());
    EXPECT_EQ(0, umount(strPath.c_str()));
}

TEST(LinkedFolder, OfRecordingsIsRefusedInOneLineByEveryCommand)
{
    const std::string strFolder = RECORDINGS::Get().NewFolder();
    const std::string strTarget = RECORDINGS::Get().NewFolder();
    const std::string strFile = TEST_Touch(strTarget + "/2024-01-01-00-00-00.To.2024-01-01-00-05-00.ts", "not ours");
    ASSERT_EQ(0, symlink(strTarget.c_str(), (strFolder + "/rec").c_str()));
    const std::string strClip = RECORDINGS::Get().Media("clip.mp4");
    const std::string strName = strFile.substr(strFile.rfind('/') + 1);
    const std::vector<std::vector<std::string>> vecCommands = {
        {"record", strClip, "--storage", strFolder, "--quota", "1K"},
        {"list", "--storage", strFolder},
        {"play", strName, "--frames", "--storage", strFolder},
        {"snapshot", strName, strTarget + "/out.jpg", "--storage", strFolder}};
    for (const std::vector<std::string> &vecArgs : vecCommands)
    {
        const TOOL_RESULT_S stResult = TOOL_Run(vecArgs);
        EXPECT_EQ(2, stResult.s32Status) << vecArgs[0];
        EXPECT_EQ("", stResult.strOut);
        EXPECT_EQ("quarrin: the folder " + strFolder +
                      "/rec is a symbolic link; recordings lie in a folder of their own\n",
                  stResult.strErr);
    }
    EXPECT_EQ(std::vector<std::string>{strName}, TEST_List(strTarget));
    EXPECT_EQ("not ours", TEST_ReadFile(strFile));
}

TEST(LinkedFolder, OfTheStorageIsAsGoodAsARealOne)
{
    const std::string strFolder = RECORDINGS::Get().NewFolder();
    const std::string strLink = strFolder + ".link";
    ASSERT_EQ(0, symlink(strFolder.c_str(), strLink.c_str()));
    ASSERT_EQ(0, mkdir((strFolder + "/rec").c_str(), 0700));
    TEST_Touch(strFolder + "/rec/2024-01-01-00-00-00.To.2024-01-01-00-05-00.ts", "x");
    const TOOL_RESULT_S stResult = TOOL_Run({"list", "--storage", strLink});
    EXPECT_EQ(0, stResult.s32Status) << stResult.strErr;
    EXPECT_EQ(1u, Count(stResult.strOut, "2024-01-01-00-00-00.To."));
    EXPECT_EQ(0, unlink(strLink.c_str()));
}

TEST_F(MountedFolder, OfRecordingsIsRefusedInOneLine)
{
    const std::string strStorage = RECORDINGS::Get().NewFolder();
    ASSERT_EQ(0, mkdir((strStorage + "/rec").c_str(), 0700));
    ASSERT_EQ(0, mount("tmpfs", (strStorage + "/rec").c_str(), "tmpfs", 0, "size=64k"));
    const TOOL_RESULT_S stResult = TOOL_Run({"list", "--storage", strStorage});
    EXPECT_EQ(0, umount((strStorage + "/rec").c_str()));
    EXPECT_EQ(2, stResult.s32Status);
    EXPECT_EQ(1u, Count(stResult.strErr, "rec is on another file system than " + strStorage)) << stResult.strErr;
}
