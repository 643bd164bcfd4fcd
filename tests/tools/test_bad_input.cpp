// Bad input: one line on standard error, status 2, nothing on standard output, and the recordings as they were.

#include <sys/stat.h>
#include <unistd.h>

#include "recordings.h"

class BadInput : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_strStorage = RECORDINGS::Get().NewFolder();
        m_strRecording = m_strStorage + "/rec/2024-03-01-08-15-00.To.2024-03-01-08-20-00.mkv";
        ASSERT_EQ(0, mkdir((m_strStorage + "/rec").c_str(), 0777));
        TEST_Touch(m_strRecording, "no media at all");
    }

    void ExpectRefused(const TOOL_START_S &stStart, const std::string &strText)
    {
        const TOOL_RESULT_S stResult = TOOL_Run(stStart);
        std::string strLine;
        for (const std::string &strArg : stStart.vecArgs)
        {
            strLine += strArg + " ";
        }
        SCOPED_TRACE(strLine);
        EXPECT_EQ(2, stResult.s32Status);
        EXPECT_EQ("", stResult.strOut);
        EXPECT_EQ(1u, TOOL_Parts(stResult.strErr, '\n').size()) << stResult.strErr;
        EXPECT_EQ(0u, stResult.strErr.find("quarrin: ")) << stResult.strErr;
        EXPECT_NE(std::string::npos, stResult.strErr.find(strText)) << stResult.strErr;
        EXPECT_EQ(1u, TEST_List(m_strStorage + "/rec").size());
        EXPECT_EQ("no media at all", TEST_ReadFile(m_strRecording));
    }

    void ExpectRefused(const std::vector<std::string> &vecArgs, const std::string &strText)
    {
        TOOL_START_S stStart;
        stStart.vecArgs = vecArgs;
        ExpectRefused(stStart, strText);
    }

    std::string m_strStorage;
    std::string m_strRecording;
};

TEST_F(BadInput, OfTheCommandLine)
{
    ExpectRefused(std::vector<std::string>(), "subcommand");
    ExpectRefused({"rewind", "--storage", m_strStorage}, "rewind");
    ExpectRefused({"list", "--storage", m_strStorage, "--colour"}, "--colour");
    ExpectRefused({"list"}, "--storage");
    ExpectRefused({"record", "--storage", m_strStorage}, "INPUT");
    ExpectRefused({"record", "test", "--storage", m_strStorage, "--format", "avi"}, "--format");
    ExpectRefused({"record", "test", "--storage", m_strStorage, "--split", "4"}, "thrown away");
    ExpectRefused({"record", "test", "--storage", m_strStorage, "--split", "0"}, "thrown away");
    ExpectRefused({"record", "test", "--storage", m_strStorage, "--split", "-9"}, "--split");
    ExpectRefused({"record", "test", "--storage", m_strStorage, "--split", "ten"}, "--split");
    ExpectRefused({"record", "test", "--storage", m_strStorage, "--duration", "0"}, "--duration");
    ExpectRefused({"record", "test", "--storage", m_strStorage, "--durable", "0"}, "--durable");
    ExpectRefused({"record", "test", "--storage", m_strStorage, "--quota", "much"}, "--quota");
    ExpectRefused({"record", "test", "--storage", m_strStorage, "--quota", "5G"}, "percentage");
    ExpectRefused({"record", "test", "--storage", m_strStorage, "--name", "a/b"}, "--name");
    ExpectRefused({"play", m_strRecording, "--storage", m_strStorage}, "--frames");
    ExpectRefused({"play", m_strRecording, "--storage", m_strStorage, "--frames", "--output", "-"}, "standard output");
}

TEST_F(BadInput, OfTheInputOfARecording)
{
    RECORDINGS &recordings = RECORDINGS::Get();
    ExpectRefused({"record", "/nowhere/film.mp4", "--storage", m_strStorage}, "No such file");
    ExpectRefused({"record", m_strRecording, "--storage", m_strStorage}, "Invalid data");
    ExpectRefused({"record", recordings.Media("mpeg2.mpg"), "--storage", m_strStorage}, "no H.264 or H.265 video");
    ExpectRefused({"record", "tcp://127.0.0.1:1", "--storage", m_strStorage}, "refused");
    ExpectRefused({"record", "nonsense://x", "--storage", m_strStorage}, "nonsense://x");
}

TEST_F(BadInput, OfBFrames)
{
    ExpectRefused({"record", RECORDINGS::Get().Media("bframes.mp4"), "--storage", m_strStorage},
                  "B-frames, which cannot be recorded; --transcode");
}

TEST_F(BadInput, OfAnInputThatMakesNoFolderForItself)
{
    const std::string strNew = m_strStorage + "/new";
    ExpectRefused({"record", "/nowhere/film.mp4", "--storage", strNew}, "No such file");
    EXPECT_FALSE(TEST_Exists(strNew));
}

TEST_F(BadInput, OfTheStorageFolder)
{
    const std::string strClip = RECORDINGS::Get().Media("clip.ts");
    for (const char *pszCommand : {"record", "play", "snapshot", "list"})
    {
        for (const std::string &strFolder : {std::string("/nowhere/at/all"), m_strRecording})
        {
            std::vector<std::string> vecArgs = {pszCommand, "--storage", strFolder};
            const std::string strCommand = pszCommand;
            if (strCommand != "list")
            {
                vecArgs.push_back(strCommand == "record" ? strClip : "x.mkv");
            }
            if (strCommand == "snapshot")
            {
                vecArgs.push_back("x.jpg");
            }
            if (strCommand == "play")
            {
                vecArgs.push_back("--frames");
            }
            ExpectRefused(vecArgs, strFolder);
        }
    }
}

TEST_F(BadInput, OfAFolderThatCannotBeWritten)
{
    TOOL_START_S stStart;
    stStart.bPlainUser = true;
    stStart.vecArgs = {"record", RECORDINGS::Get().Media("clip.ts"), "--storage", m_strStorage};
    ASSERT_EQ(0, chmod((m_strStorage + "/rec").c_str(), 0555));
    ExpectRefused(stStart, "cannot write into the folder " + m_strStorage + "/rec: Permission denied");
    ASSERT_EQ(0, chmod((m_strStorage + "/rec").c_str(), 0777));
    ASSERT_EQ(0, chmod(m_strStorage.c_str(), 0555));
    stStart.vecArgs.back() = m_strStorage + "/below";
    ExpectRefused(stStart, "cannot make the folder " + m_strStorage + "/below: Permission denied");
    ASSERT_EQ(0, chmod(m_strStorage.c_str(), 0777));
}

TEST_F(BadInput, OfTheFileThatIsPlayed)
{
    const std::string strClip = RECORDINGS::Get().Media("clip.ts");
    ExpectRefused({"play", "none.mkv", "--storage", m_strStorage, "--frames"}, "none.mkv: No such file");
    ExpectRefused({"play", m_strRecording, "--storage", m_strStorage, "--frames"}, "damaged");
    ExpectRefused({"play", strClip, "--storage", m_strStorage, "--frames"}, "no recording");
    ExpectRefused({"play", m_strStorage, "--storage", m_strStorage, "--frames"}, "no recording");
    ExpectRefused({"snapshot", m_strRecording, m_strStorage + "/a.jpg", "--storage", m_strStorage}, "damaged");
    EXPECT_FALSE(TEST_Exists(m_strStorage + "/a.jpg"));
}

TEST_F(BadInput, OfWhatPlayAndSnapshotWrite)
{
    const std::string strGood = m_strStorage + "/2024-03-01-08-15-00.To.2024-03-01-08-15-06.ts";
    ASSERT_EQ(0, link(RECORDINGS::Get().Media("clip.ts").c_str(), strGood.c_str()));
    const std::vector<std::string> vecPlay = {"play", strGood, "--storage", m_strStorage, "--output"};
    const auto fnPlay = [&vecPlay](const std::string &strOutput)
    {
        std::vector<std::string> vecArgs = vecPlay;
        vecArgs.push_back(strOutput);
        return vecArgs;
    };
    ExpectRefused(fnPlay(m_strStorage + "/out.unknown"), "names no container");
    ExpectRefused(fnPlay(m_strStorage + "/out.jpg"), "names no container");
    ExpectRefused(fnPlay("/nowhere/out.mp4"), "No such file");
    ExpectRefused({"play", strGood, "--storage", m_strStorage, "--frames", "--seek", "60"}, "ends before that time");
    ExpectRefused(fnPlay(m_strRecording), "is not overwritten");
    ExpectRefused(fnPlay(strGood), "is not overwritten");
    const std::vector<std::string> vecStill = {"snapshot", strGood, "--storage", m_strStorage};
    const auto fnStill = [&vecStill](const std::string &strOutput, const std::string &strAt)
    {
        std::vector<std::string> vecArgs = vecStill;
        vecArgs.insert(vecArgs.end(), {strOutput, "--at", strAt});
        return vecArgs;
    };
    ExpectRefused(fnStill(m_strRecording, "1"), "is not overwritten");
    ExpectRefused(fnStill("/nowhere/out.jpg", "1"), "cannot write /nowhere/out.jpg");
    ExpectRefused(fnStill(m_strStorage + "/late.jpg", "60"), "ends before that time");
    EXPECT_FALSE(TEST_Exists(m_strStorage + "/late.jpg"));
}

TEST(Help, IsAResult)
{
    const TOOL_RESULT_S stResult = TOOL_Run({"record", "--help"});
    EXPECT_EQ(0, stResult.s32Status);
    EXPECT_EQ("", stResult.strErr);
    for (const char *pszOption :
         {"--storage", "--format", "--split", "--duration", "--name", "--quota", "--no-auto-delete", "--transcode"})
    {
        EXPECT_NE(std::string::npos, stResult.strOut.find(pszOption)) << pszOption;
    }
}

TEST(Help, TellsTheVersionOfTheLibrary)
{
    EXPECT_EQ("1.0.0\n", TOOL_Run(std::vector<std::string>{"--version"}).strOut);
}
