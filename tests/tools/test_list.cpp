// The list command: names are made up here, the times are those of the names.

#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "recordings.h"

class List : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_strStorage = RECORDINGS::Get().NewFolder();
        m_strFolder = m_strStorage + "/rec/";
        ASSERT_EQ(0, mkdir(m_strFolder.c_str(), 0777));
    }

    nlohmann::json Json(const std::string &strTimeZone = "") const
    {
        TOOL_START_S stStart;
        stStart.vecArgs = {"list", "--storage", m_strStorage, "--json"};
        stStart.strTimeZone = strTimeZone;
        const TOOL_RESULT_S stResult = TOOL_Run(stStart);
        EXPECT_EQ(0, stResult.s32Status);
        EXPECT_EQ("", stResult.strErr);
        return nlohmann::json::parse(stResult.strOut);
    }

    std::string m_strStorage;
    std::string m_strFolder;
};

TEST_F(List, GivesEveryFieldAsJsonInTheOrderOfTheStarts)
{
    TEST_Touch(m_strFolder + "2024-07-01-12-00-00.To.2024-07-01-12-01-30.ts", "12345");
    TEST_Touch(m_strFolder + "2024-03-01-08-15-00.To.2024-03-01-08-20-00.[front door].mp4", "123");
    const nlohmann::json stFiles = Json();
    ASSERT_EQ(2u, stFiles.size());
    const nlohmann::json stExpected = {
        {"name", "2024-03-01-08-15-00.To.2024-03-01-08-20-00.[front door].mp4"},
        {"path", m_strFolder + "2024-03-01-08-15-00.To.2024-03-01-08-20-00.[front door].mp4"},
        {"start", "2024-03-01T08:15:00Z"},
        {"end", "2024-03-01T08:20:00Z"},
        {"seconds", 300},
        {"bytes", 3},
        {"container", "mp4"},
        {"comment", "front door"},
        {"in_progress", false}};
    EXPECT_EQ(stExpected, stFiles[0]);
    EXPECT_EQ("ts", stFiles[1]["container"]);
    EXPECT_EQ("", stFiles[1]["comment"]);
    EXPECT_EQ(90, stFiles[1]["seconds"]);
}

TEST_F(List, GivesUtcInEveryTimeZone)
{
    TEST_Touch(m_strFolder + "2024-03-10-02-30-00.To.2024-03-10-03-30-00.mkv", "1"); // in no clock of New York
    for (const char *pszZone : {"UTC0", "America/New_York", "Asia/Kolkata", "ABC+11:30DEF,0/0,366/23"})
    {
        const nlohmann::json stFiles = Json(pszZone);
        EXPECT_EQ("2024-03-10T02:30:00Z", stFiles[0]["start"]) << pszZone;
        EXPECT_EQ("2024-03-10T03:30:00Z", stFiles[0]["end"]) << pszZone;
    }
}

TEST_F(List, ShowsARecordingInProgressWithoutAnEnd)
{
    TEST_Touch(m_strFolder + "2024-03-01-08-15-00.To.unknown.mov", "1");
    const nlohmann::json stFiles = Json();
    EXPECT_TRUE(stFiles[0]["in_progress"]);
    EXPECT_TRUE(stFiles[0]["end"].is_null());
    EXPECT_TRUE(stFiles[0]["seconds"].is_null());
    EXPECT_NE(std::string::npos, TOOL_Run({"list", "--storage", m_strStorage}).strOut.find("in progress"));
}

TEST_F(List, TakesAFinishedRecordingForFinishedWhateverItsCommentSays)
{
    TEST_Touch(m_strFolder + "2024-03-01-08-15-00.To.2024-03-01-08-15-10.[a.To.unknown].mkv", "1");
    TEST_Touch(m_strFolder + "2024-03-01-08-16-00.To.unknown.[b.To.unknown].mkv", "1");
    const nlohmann::json stFiles = Json();
    EXPECT_FALSE(stFiles[0]["in_progress"]);
    EXPECT_EQ(10, stFiles[0]["seconds"]);
    EXPECT_TRUE(stFiles[1]["in_progress"]);
}

TEST_F(List, KeepsEveryByteOfANameInTheJson)
{
    TEST_Touch(m_strFolder + "2024-03-01-08-15-00.[\xff \x9b%].jpg", "1");
    TEST_Touch(m_strFolder + "2024-03-01-08-15-01.[\xe2\x80\xae\xc2\x9b\x7f Tür].jpg", "1");
    const nlohmann::json stFiles = Json();
    ASSERT_EQ(2u, stFiles.size());
    EXPECT_EQ("2024-03-01-08-15-00.%5B%FF%20%9B%25%5D.jpg", stFiles[0]["name_bytes"]);
    EXPECT_EQ(m_strFolder + "2024-03-01-08-15-00.%5B%FF%20%9B%25%5D.jpg", stFiles[0]["path_bytes"]);
    EXPECT_EQ("%FF%20%9B%25", stFiles[0]["comment_bytes"]);
    EXPECT_FALSE(stFiles[1].contains("name_bytes"));
    EXPECT_EQ("\xe2\x80\xae\xc2\x9b\x7f Tür", stFiles[1]["comment"]);
}

TEST_F(List, SendsNothingToATerminalThatItWouldObey)
{
    const std::string strEvil = "\x1b[2J\r\n\xc2\x9b\xe2\x80\xae\xe2\x80\xa8\x9b";
    TEST_Touch(m_strFolder + "2024-03-01-08-15-00.[" + strEvil + "].jpg", "1");
    TEST_Touch(m_strFolder + strEvil + ".jpg", "1"); // the library logs that it cannot read the name
    for (const std::vector<std::string> &vecArgs :
         {std::vector<std::string>{"list", "--storage", m_strStorage, "--verbose"},
          std::vector<std::string>{"list", "--storage", m_strStorage, "--json"},
          std::vector<std::string>{"play", strEvil, "--frames", "--storage", m_strStorage},
          std::vector<std::string>{"list", "--storage", strEvil}, std::vector<std::string>{strEvil}})
    {
        const TOOL_RESULT_S stResult = TOOL_Run(vecArgs);
        const std::string strAll = stResult.strOut + stResult.strErr;
        for (const std::string strPart : {"\x1b", "\r", "\x9b", "\xe2\x80\xae", "\xe2\x80\xa8"})
        {
            EXPECT_EQ(std::string::npos, strAll.find(strPart)) << strAll;
        }
    }
    const std::string strErr = TOOL_Run({"list", "--storage", m_strStorage, "--verbose"}).strErr;
    EXPECT_NE(std::string::npos, strErr.find("\\x1b[2J\\r")) << strErr;
    EXPECT_NE(std::string::npos, strErr.find("[WARN][")) << strErr;
}

TEST_F(List, StaysValidJsonWithNamesThatNobodyShouldGive)
{
    TEST_Touch(m_strFolder + "2024-03-01-08-15-00.[\"\\\n\t].jpg", "1");
    TEST_Touch(m_strFolder + "2024-03-01-08-15-01.[\xff\xfe].jpg", "1");
    TEST_Touch(m_strFolder + "9999-99-99-99-99-99.mkv", "1");
    const nlohmann::json stFiles = Json();
    ASSERT_EQ(3u, stFiles.size());
    EXPECT_EQ("\"\\\n\t", stFiles[0]["comment"]);
}

TEST_F(List, ShowsATableWithOneLinePerFile)
{
    TEST_Touch(m_strFolder + "2024-03-01-08-15-00.To.2024-03-01-09-20-05.[door].mp4", std::string(1536, 'x'));
    TEST_Touch(m_strFolder + "2024-03-01-10-15-00.[evil\x1b[2J\n].jpg", "1");
    const TOOL_RESULT_S stResult = TOOL_Run({"list", "--storage", m_strStorage});
    EXPECT_EQ(0, stResult.s32Status);
    const std::vector<std::string> vecLines = TOOL_Parts(stResult.strOut, '\n');
    ASSERT_EQ(3u, vecLines.size());
    EXPECT_EQ("START (UTC)          END (UTC)            LENGTH    SIZE   CONTAINER  COMMENT        FILE", vecLines[0]);
    EXPECT_EQ("2024-03-01 08:15:00  2024-03-01 09:20:05  01:05:05  1.5KB  mp4        door           "
              "2024-03-01-08-15-00.To.2024-03-01-09-20-05.[door].mp4",
              vecLines[1]);
    EXPECT_EQ(std::string::npos, stResult.strOut.find('\x1b'));
}

TEST_F(List, IsEmptyForAFolderWithoutRecordingsAndMakesNoneThere)
{
    const std::string strEmpty = RECORDINGS::Get().NewFolder();
    const TOOL_RESULT_S stResult = TOOL_Run({"list", "--storage", strEmpty, "--json"});
    EXPECT_EQ(0, stResult.s32Status);
    EXPECT_EQ("[]\n", stResult.strOut);
    EXPECT_TRUE(TEST_List(strEmpty).empty());
}

TEST_F(List, KeepsItsResultApartFromWhatTheLibraryPrints)
{
    TEST_Touch(m_strFolder + "notes.txt", "1"); // the library logs that it cannot read the name
    const TOOL_RESULT_S stResult = TOOL_Run({"list", "--storage", m_strStorage, "--json", "--verbose"});
    EXPECT_EQ("[]\n", stResult.strOut);
    EXPECT_NE(std::string::npos, stResult.strErr.find("[WARN][")) << stResult.strErr;
}
