// Moving a damaged file aside: the command line, to the letter, and what a shell makes of it.

#include "session_fixture.h"

#include <climits>
#include <cstdlib>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

using namespace libquarrin;

class ErrorFile : public SESSION_TEST
{
protected:
    // The command line for a name, without quoting.
    std::string Line(const std::string &strName, const std::string &strBase, int32_t s32Volume = 0)
    {
        return "mv \"" + Folder(s32Volume) + "/" + strName + "\" \"" + Folder(s32Volume) + "/" + strBase +
               ".To.temp.ts\"";
    }

    // The last command line that was run.
    static std::string LastCommand()
    {
        const std::vector<std::string> vecCommands = FAKE_PLATFORM_Commands();
        return vecCommands.empty() ? "" : vecCommands.back();
    }
};

TEST_F(ErrorFile, RefusesANullHandle)
{
    EXPECT_EQ(1u, QN_RecordErrorFileClear(nullptr, QN_VOLUME_ID_E_0, "a.mkv"));
}

TEST_F(ErrorFile, NeedsAMountedCard)
{
    for (int32_t s32State = 0; s32State < 4; ++s32State)
    {
        m_pHandle->enState = static_cast<QN_STATE_E>(s32State);
        const std::string strText = "storage not mounted, state=" + std::to_string(s32State);
        const std::string strPrinted =
            TEST_Printed([&] { EXPECT_EQ(3u, QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "a.mkv")); });
        EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_RecordErrorFileClear", strText));
        EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[ERROR\\]\\[QN_RecordErrorFileClear:\\d+\\] " + strText));
    }
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("mv "));
}

TEST_F(ErrorFile, NeedsAnEnabledVolume)
{
    m_pHandle->astVolume[1].bEnable = 0;
    for (const int32_t s32Volume : {1, -1, 3, INT_MIN, INT_MAX})
    {
        const std::string strText = "volume " + std::to_string(s32Volume) + " not enabled";
        const std::string strPrinted = TEST_Printed(
            [&]
            { EXPECT_EQ(3u, QN_RecordErrorFileClear(m_pHandle, static_cast<QN_VOLUME_ID_E>(s32Volume), "a.mkv")); });
        EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_RecordErrorFileClear", strText));
        EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[ERROR\\]\\[QN_RecordErrorFileClear:\\d+\\] " + strText));
    }
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("mv "));
}

TEST_F(ErrorFile, NeedsAName)
{
    EXPECT_EQ(2u, QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, nullptr));
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("mv "));
}

TEST_F(ErrorFile, RunsExactlyOneLineAndPrintsIt)
{
    const struct
    {
        const char *pszName;
        const char *pszBase;
        QN_VOLUME_ID_E enVolume;
    } astCases[] = {
        {"clip.a.mkv", "clip", QN_VOLUME_ID_E_0},
        {"clip", "clip", QN_VOLUME_ID_E_1},
        {".hidden.ts", "", QN_VOLUME_ID_E_2},
        {"", "", QN_VOLUME_ID_E_0},
        {"2024-03-01-08-15-00.To.unknown.[door].mp4", "2024-03-01-08-15-00", QN_VOLUME_ID_E_0},
        {"with blank 'and' quote & more; (x).mkv", "with blank 'and' quote & more; (x)", QN_VOLUME_ID_E_0},
        {"gr\xc3\xbc\xc3\x9f-100%s%n.mkv", "gr\xc3\xbc\xc3\x9f-100%s%n", QN_VOLUME_ID_E_0},
    };
    for (const auto &stCase : astCases)
    {
        const size_t before = FAKE_PLATFORM_Commands().size();
        const size_t logs = FAKE_PLATFORM_Logs().size();
        const std::string strPrinted =
            TEST_Printed([&] { EXPECT_EQ(0u, QN_RecordErrorFileClear(m_pHandle, stCase.enVolume, stCase.pszName)); });
        const std::string strLine = Line(stCase.pszName, stCase.pszBase, stCase.enVolume);
        EXPECT_EQ(before + 1, FAKE_PLATFORM_Commands().size());
        EXPECT_EQ(strLine, LastCommand());
        EXPECT_EQ("volume_abs_path==" + strLine + "\n", strPrinted);
        EXPECT_EQ(logs, FAKE_PLATFORM_Logs().size());
    }
}

TEST_F(ErrorFile, GivesTheCommandsResult)
{
    for (const int32_t s32Result : {0, 1, 7, 256, -1})
    {
        FAKE_PLATFORM_Answer("mv ", s32Result);
        EXPECT_EQ(static_cast<uint32_t>(s32Result), QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "a.mkv"));
    }
}

TEST_F(ErrorFile, IsCutAt511Characters)
{
    const size_t fixed = Line("", "").size();
    const size_t fits = (511 - fixed) / 2;
    for (const size_t length : {fits - 1, fits, fits + 1, fits + 40, size_t{4000}})
    {
        const std::string strName(length, 'n');
        QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, strName.c_str());
        EXPECT_EQ(Line(strName, strName).substr(0, 511), LastCommand());
    }
}

TEST_F(ErrorFile, EscapesWhatTheShellWouldRead)
{
    QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "a\"b$c`d\\e.ts");
    EXPECT_EQ(Line("a\\\"b\\$c\\`d\\\\e.ts", "a\\\"b\\$c\\`d\\\\e"), LastCommand());
}

TEST_F(ErrorFile, MovesThatFileAndDoesNothingElse)
{
    const std::string astrNames[] = {
        "plain.mkv",           "quote\"; touch " + std::string("x") + "; \".mkv",
        "$(touch x).mkv",      "`touch x`.mkv",
        "back\\slash\\.mkv",   "ends with backslash\\",
        "$HOME ${IFS} $.mkv",  "'single'\nand line.mkv",
        "!history! *?[a].mkv",
    };
    FAKE_PLATFORM_OnCommand([this](const std::string &strCommand)
                            { return system(("cd '" + m_dir.strPath + "' && " + strCommand).c_str()); });
    for (const std::string &strName : astrNames)
    {
        TEST_Touch(Folder(0) + "/" + strName, strName);
        EXPECT_EQ(0u, QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, strName.c_str())) << strName;
        const std::string strMoved = strName.substr(0, strName.find('.')) + ".To.temp.ts";
        EXPECT_EQ(std::vector<std::string>{strMoved}, Names());
        EXPECT_EQ(strName, TEST_ReadFile(Folder(0) + "/" + strMoved));
        remove((Folder(0) + "/" + strMoved).c_str());
    }
    EXPECT_EQ((std::vector<std::string>{"dev", "mnt"}), TEST_List(m_dir.strPath)) << "nothing else was made";
}

TEST_F(ErrorFile, IsNotMovedIntoAFolderOrThroughALink)
{
    const std::string strTarget = Folder(0) + "/clip.To.temp.ts";
    const std::string strElsewhere = m_dir.strPath + "/elsewhere";
    ASSERT_EQ(0, mkdir(strElsewhere.c_str(), 0755));
    TEST_Touch(Folder(0) + "/clip.mkv", "damaged");
    const std::vector<std::function<void()>> vecPlanted = {
        [&] { ASSERT_EQ(0, mkdir(strTarget.c_str(), 0755)); },
        [&] { ASSERT_EQ(0, symlink(strElsewhere.c_str(), strTarget.c_str())); },
        [&] { ASSERT_EQ(0, symlink("/nowhere", strTarget.c_str())); },
    };
    for (const std::function<void()> &fnPlant : vecPlanted)
    {
        ASSERT_NO_FATAL_FAILURE(fnPlant());
        const size_t logs = FAKE_PLATFORM_Logs().size();
        EXPECT_NE(0u, QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "clip.mkv"));
        ASSERT_EQ(logs + 1, FAKE_PLATFORM_Logs().size());
        EXPECT_EQ(3, FAKE_PLATFORM_Logs().back().s32Level);
        EXPECT_EQ(0u, FAKE_PLATFORM_Logs().back().strPrefix.find("QN_RecordErrorFileClear["));
        EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("mv "));
        ASSERT_EQ(0, remove(strTarget.c_str()));
    }
    TEST_Touch(strTarget); // an older one is replaced, as ever
    EXPECT_EQ(0u, QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "clip.mkv"));
    EXPECT_EQ(Line("clip.mkv", "clip"), LastCommand());
}

TEST_F(ErrorFile, StaysWhereAVolumesFolderIsALink)
{
    const std::string strHost = m_dir.strPath + "/host";
    ASSERT_EQ(0, mkdir(strHost.c_str(), 0755));
    const std::string strFile = TEST_Touch(strHost + "/a.mkv", "the host's");
    ASSERT_EQ(0, rmdir(Folder(0).c_str()));
    ASSERT_EQ(0, symlink(strHost.c_str(), Folder(0).c_str()));
    FAKE_PLATFORM_OnCommand([](const std::string &strCommand) { return system(strCommand.c_str()); });
    const std::string strPrinted = TEST_Printed(
        [&]
        {
            EXPECT_EQ(7u, QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "a.mkv"));
            EXPECT_EQ(7u, QN_RecordErrorFileClear(m_pHandle, QN_VOLUME_ID_E_0, "a.mkv"));
        });
    EXPECT_EQ(0, FAKE_PLATFORM_CommandCount("mv "));
    EXPECT_EQ("the host's", TEST_ReadFile(strFile));
    EXPECT_EQ(std::vector<std::string>{"a.mkv"}, TEST_List(strHost));
    const std::string strText = "folder " + Folder(0) + " is refused: its name goes through a symbolic link";
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "QN_VOLUME_OpenFolder", strText));
    int32_t s32Told = 0;
    for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
    {
        s32Told += stLog.strText == strText ? 1 : 0;
    }
    EXPECT_EQ(1, s32Told) << "one line a mount";
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[ERROR\\]\\[QN_VOLUME_OpenFolder:\\d+\\] " + strText));
}
