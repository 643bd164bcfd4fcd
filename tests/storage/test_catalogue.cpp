// Catalogue: what a folder holds, in time order, and what a single file is described as.

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "storage/storage_support.h"
#include "support/card.h"

using namespace libquarrin;

namespace
{

constexpr time_t MARCH = 1709280900; // 2024-03-01 08:15:00 UTC
constexpr uint64_t GIB = 1073741824;

class Catalogue : public ::testing::Test
{
protected:
    Catalogue() : m_zone("UTC")
    {
        FAKE_PLATFORM_Reset();
    }

    std::string Touch(const std::string &strName, const std::string &strBytes = "")
    {
        return TEST_Touch(m_dir.strPath + "/" + strName, strBytes);
    }

    std::vector<tagQN_FILE_INFO_S> Scan()
    {
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        EXPECT_EQ(0, QN_STORAGE_ScanFolder(m_dir.strPath.c_str(), vecFiles));
        return vecFiles;
    }

    std::vector<std::string> ScanNames()
    {
        std::vector<std::string> vecNames;
        for (const tagQN_FILE_INFO_S &stFile : Scan())
        {
            vecNames.push_back(stFile.strName);
        }
        return vecNames;
    }

    TIME_ZONE m_zone;
    TEMP_DIR m_dir;
};

tagQN_FILE_INFO_S Marked()
{
    tagQN_FILE_INFO_S stInfo;
    stInfo.strName = "name";
    stInfo.strPath = "path";
    stInfo.strComment = "comment";
    stInfo.strExt = "ext";
    stInfo.u64Size = 1;
    stInfo.tStart = 2;
    stInfo.tEnd = 3;
    return stInfo;
}

void ExpectMarked(const tagQN_FILE_INFO_S &stInfo)
{
    EXPECT_EQ("name", stInfo.strName);
    EXPECT_EQ("path", stInfo.strPath);
    EXPECT_EQ("comment", stInfo.strComment);
    EXPECT_EQ("ext", stInfo.strExt);
    EXPECT_EQ(1u, stInfo.u64Size);
    EXPECT_EQ(2, stInfo.tStart);
    EXPECT_EQ(3, stInfo.tEnd);
}

} // namespace

TEST_F(Catalogue, FolderIsListedInTimeOrder)
{
    Touch("2024-03-01-08-15-00.To.2024-03-01-08-20-00.mp4", "12345");
    Touch("2024-02-28-23-00-00.To.unknown.mkv");
    const std::string strReadme = Touch("readme.txt");
    mkdir((m_dir.strPath + "/2023-01-01-00-00-00").c_str(), 0755);
    STDOUT_CAPTURE out;
    const std::vector<tagQN_FILE_INFO_S> vecFiles = Scan();
    ASSERT_EQ(2u, vecFiles.size());

    EXPECT_EQ("2024-02-28-23-00-00.To.unknown.mkv", vecFiles[0].strName);
    EXPECT_EQ("mkv", vecFiles[0].strExt);
    EXPECT_EQ(1709161200, vecFiles[0].tStart);
    EXPECT_EQ(1709161200, vecFiles[0].tEnd);
    EXPECT_EQ(0u, vecFiles[0].u64Size);

    EXPECT_EQ("2024-03-01-08-15-00.To.2024-03-01-08-20-00.mp4", vecFiles[1].strName);
    EXPECT_EQ(m_dir.strPath + "/2024-03-01-08-15-00.To.2024-03-01-08-20-00.mp4", vecFiles[1].strPath);
    EXPECT_EQ("", vecFiles[1].strComment);
    EXPECT_EQ("mp4", vecFiles[1].strExt);
    EXPECT_EQ(5u, vecFiles[1].u64Size);
    EXPECT_EQ(MARCH, vecFiles[1].tStart);
    EXPECT_EQ(MARCH + 300, vecFiles[1].tEnd);

    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(4, "QN_STORAGE_ScanFolder", "Oops, " + strReadme + " not indexable"));
    EXPECT_EQ(1u, FAKE_PLATFORM_Logs().size());
    EXPECT_TRUE(out.HasLine(R"(\[WARN\]\[QN_STORAGE_ScanFolder:\d+\] Oops, .*/readme\.txt not indexable)"));
    EXPECT_EQ(1, out.Count("\n"));
}

TEST_F(Catalogue, CommentAndExtensionComeFromTheName)
{
    Touch("2024-03-01-08-15-00.To.2024-03-01-08-20-00.[door].mkv");
    const std::vector<tagQN_FILE_INFO_S> vecFiles = Scan();
    ASSERT_EQ(1u, vecFiles.size());
    EXPECT_EQ("door", vecFiles[0].strComment);
    EXPECT_EQ("mkv", vecFiles[0].strExt);
}

TEST_F(Catalogue, ExtensionOfANameWithoutADotIsEmptyWhateverStandsBeside)
{
    Touch("2024-03-01-08-15-00.mkv");
    Touch("2024-03-01-08-15-01");
    Touch("2024-03-01-08-15-02.ts");
    const std::vector<tagQN_FILE_INFO_S> vecFiles = Scan();
    ASSERT_EQ(3u, vecFiles.size());
    EXPECT_EQ("mkv", vecFiles[0].strExt);
    EXPECT_EQ("", vecFiles[1].strExt);
    EXPECT_EQ("ts", vecFiles[2].strExt);
}

TEST_F(Catalogue, MissingFolderLeavesTheVector)
{
    std::vector<tagQN_FILE_INFO_S> vecFiles = {Marked()};
    const STDOUT_CAPTURE out;
    for (const std::string &strFolder :
         {m_dir.strPath + "/missing", std::string(), Touch("file"), m_dir.strPath + "/" + std::string(5000, 'x')})
    {
        EXPECT_EQ(0, QN_STORAGE_ScanFolder(strFolder.c_str(), vecFiles));
        ASSERT_EQ(1u, vecFiles.size());
        ExpectMarked(vecFiles[0]);
    }
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(Catalogue, EmptyFolderClearsTheVector)
{
    std::vector<tagQN_FILE_INFO_S> vecFiles = {Marked(), Marked()};
    EXPECT_EQ(0, QN_STORAGE_ScanFolder(m_dir.strPath.c_str(), vecFiles));
    EXPECT_TRUE(vecFiles.empty());
}

TEST_F(Catalogue, OnlyRegularFilesAreListedAndTheRestIsSkippedSilently)
{
    const std::string strFile = Touch("2024-03-01-08-15-00.mkv");
    const std::string strFolder = m_dir.strPath + "/2024-01-01-00-00-00";
    mkdir(strFolder.c_str(), 0755);
    TEST_Touch(strFolder + "/2023-01-01-00-00-00.mkv"); // not descended into
    ASSERT_EQ(0, symlink(strFile.c_str(), (m_dir.strPath + "/2024-01-02-00-00-00.mkv").c_str()));
    ASSERT_EQ(0, symlink("/nowhere", (m_dir.strPath + "/2024-01-03-00-00-00.mkv").c_str()));
    ASSERT_EQ(0, symlink("/nowhere", (m_dir.strPath + "/notes").c_str()));
    ASSERT_EQ(0, mkfifo((m_dir.strPath + "/2024-01-04-00-00-00.mkv").c_str(), 0644));
    EXPECT_EQ(std::vector<std::string>{"2024-03-01-08-15-00.mkv"}, ScanNames());
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(Catalogue, OnlyTheStartTimeDecidesTheOrder)
{
    Touch("2024-03-01-08-15-02.To.2024-03-01-08-15-03.a", std::string(9, 'x'));
    Touch("2024-03-01-08-15-01.To.2024-03-01-09-00-00.b");
    Touch("900-06-01-00-00-00.c"); // stands last by its letters
    Touch("1960-06-01-00-00-00.d");
    Touch("2039-06-01-00-00-00.e");
    Touch("2107-06-01-00-00-00.f");
    const std::vector<std::string> vecExpected = {"900-06-01-00-00-00.c",
                                                  "1960-06-01-00-00-00.d",
                                                  "2024-03-01-08-15-01.To.2024-03-01-09-00-00.b",
                                                  "2024-03-01-08-15-02.To.2024-03-01-08-15-03.a",
                                                  "2039-06-01-00-00-00.e",
                                                  "2107-06-01-00-00-00.f"};
    EXPECT_EQ(vecExpected, ScanNames());
}

TEST_F(Catalogue, TimesReachBeyondThe32BitClock)
{
    Touch("2038-01-19-03-14-08.To.2106-02-07-06-28-16.mkv");
    const std::vector<tagQN_FILE_INFO_S> vecFiles = Scan();
    ASSERT_EQ(1u, vecFiles.size());
    EXPECT_EQ(int64_t{2147483648}, static_cast<int64_t>(vecFiles[0].tStart));
    EXPECT_EQ(int64_t{4294967296}, static_cast<int64_t>(vecFiles[0].tEnd));
}

TEST_F(Catalogue, NamesInUtcAreReadAsLocalTime)
{
    const std::string strPath = Touch("2024-03-01-08-15-00.To.2024-03-01-08-20-00.mkv");
    const struct
    {
        const char *pszZone;
        time_t tShift;
    } astCases[] = {{"UTC", 0}, {"EST5", 5 * 3600}, {"ABC-9:30", -(9 * 3600 + 1800)}};
    for (const auto &stCase : astCases)
    {
        const TIME_ZONE zone(stCase.pszZone);
        tagQN_FILE_INFO_S stInfo;
        EXPECT_EQ(0, QN_STORAGE_GetFileInfo(strPath.c_str(), &stInfo));
        EXPECT_EQ(MARCH + stCase.tShift, stInfo.tStart) << stCase.pszZone;
        EXPECT_EQ(MARCH + 300 + stCase.tShift, stInfo.tEnd) << stCase.pszZone;
        const std::vector<tagQN_FILE_INFO_S> vecFiles = Scan();
        ASSERT_EQ(1u, vecFiles.size());
        EXPECT_EQ(MARCH + stCase.tShift, vecFiles[0].tStart) << stCase.pszZone;
    }
}

TEST_F(Catalogue, OrderIsKeptInAZoneWithSummerTime)
{
    const TIME_ZONE zone("CET-1CEST,M3.5.0,M10.5.0/3");
    std::vector<std::string> vecExpected;
    for (int32_t i = 0; i < 6 * 60; i += 10) // across both changes of the clock
    {
        char szName[64];
        for (const char *pszDay : {"2024-03-31", "2024-10-27"})
        {
            snprintf(szName, sizeof(szName), "%s-%02d-%02d-00.mkv", pszDay, i / 60, i % 60);
            Touch(szName);
            vecExpected.push_back(szName);
        }
    }
    std::sort(vecExpected.begin(), vecExpected.end());
    const std::vector<tagQN_FILE_INFO_S> vecFiles = Scan();
    ASSERT_EQ(vecExpected.size(), vecFiles.size());
    for (size_t i = 1; i < vecFiles.size(); ++i)
    {
        EXPECT_LE(vecFiles[i - 1].tStart, vecFiles[i].tStart);
    }
}

TEST_F(Catalogue, SizesCountModulo32Bits)
{
    const struct
    {
        const char *pszName;
        uint64_t u64Size;
        uint64_t u64Listed;
    } astCases[] = {
        {"2024-01-01-00-00-00.a", 5 * GIB, GIB},
        {"2024-01-02-00-00-00.b", 3 * GIB, 3 * GIB}, // above 2^31 and still positive
        {"2024-01-03-00-00-00.c", 4 * GIB, 0},
        {"2024-01-04-00-00-00.d", 4 * GIB - 1, 4 * GIB - 1},
        {"2024-01-05-00-00-00.e", 4 * GIB + 7, 7},
    };
    for (const auto &stCase : astCases)
    {
        TEST_Sparse(m_dir.strPath + "/" + stCase.pszName, stCase.u64Size);
    }
    const std::vector<tagQN_FILE_INFO_S> vecFiles = Scan();
    ASSERT_EQ(5u, vecFiles.size());
    for (size_t i = 0; i < vecFiles.size(); ++i)
    {
        EXPECT_EQ(astCases[i].u64Listed, vecFiles[i].u64Size) << astCases[i].u64Size;
        tagQN_FILE_INFO_S stInfo;
        EXPECT_EQ(0, QN_STORAGE_GetFileInfo(vecFiles[i].strPath.c_str(), &stInfo));
        EXPECT_EQ(astCases[i].u64Listed, stInfo.u64Size);
    }
}

TEST_F(Catalogue, ThousandsOfFilesAreSorted)
{
    constexpr int32_t FILES = 3000;
    for (int32_t i = 0; i < FILES; ++i)
    {
        const int32_t s32Second = static_cast<int32_t>((int64_t{i} * 7919) % FILES); // every second once, mixed
        Touch(QN_STORAGE_PrettierTime(MARCH + s32Second) + ".To.unknown.ts");
    }
    const int32_t s32Before = TEST_OpenDescriptors();
    const std::vector<tagQN_FILE_INFO_S> vecFiles = Scan();
    EXPECT_EQ(s32Before, TEST_OpenDescriptors());
    ASSERT_EQ(static_cast<size_t>(FILES), vecFiles.size());
    for (int32_t i = 0; i < FILES; ++i)
    {
        ASSERT_EQ(MARCH + i, vecFiles[static_cast<size_t>(i)].tStart);
    }
}

TEST_F(Catalogue, FilesOfOneSecondAreAllListed)
{
    for (int32_t i = 0; i < 100; ++i)
    {
        Touch("2024-03-01-08-15-00.To.unknown.[" + std::to_string(i) + "].ts");
    }
    EXPECT_EQ(100u, Scan().size());
    EXPECT_EQ(TEST_List(m_dir.strPath).size(), Scan().size());
}

TEST_F(Catalogue, FolderStandsInThePathAsItIsGiven)
{
    Touch("2024-03-01-08-15-00.mkv");
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    EXPECT_EQ(0, QN_STORAGE_ScanFolder((m_dir.strPath + "/.//").c_str(), vecFiles));
    ASSERT_EQ(1u, vecFiles.size());
    EXPECT_EQ(m_dir.strPath + "/.///2024-03-01-08-15-00.mkv", vecFiles[0].strPath);
}

TEST_F(Catalogue, FileInfoReplacesEveryField)
{
    const std::string strPath = Touch("2024-03-01-08-15-00.To.2024-03-01-08-20-00.[door].mkv", "123");
    tagQN_FILE_INFO_S stInfo = Marked();
    EXPECT_EQ(0, QN_STORAGE_GetFileInfo(strPath.c_str(), &stInfo));
    EXPECT_EQ("2024-03-01-08-15-00.To.2024-03-01-08-20-00.[door].mkv", stInfo.strName);
    EXPECT_EQ(strPath, stInfo.strPath);
    EXPECT_EQ("door", stInfo.strComment);
    EXPECT_EQ("mkv", stInfo.strExt);
    EXPECT_EQ(3u, stInfo.u64Size);
    EXPECT_EQ(MARCH, stInfo.tStart);
    EXPECT_EQ(MARCH + 300, stInfo.tEnd);

    stInfo = Marked();
    EXPECT_EQ(0, QN_STORAGE_GetFileInfo(Touch("2024-03-01-08-15-00").c_str(), &stInfo));
    EXPECT_EQ("", stInfo.strComment);
    EXPECT_EQ("", stInfo.strExt);
    EXPECT_EQ(MARCH, stInfo.tEnd);
}

TEST_F(Catalogue, FileInfoOfABareNameTakesItFromTheWorkingDirectory)
{
    Touch("2024-03-01-08-15-00.mkv");
    char szBefore[4096];
    ASSERT_NE(nullptr, getcwd(szBefore, sizeof(szBefore)));
    ASSERT_EQ(0, chdir(m_dir.strPath.c_str()));
    tagQN_FILE_INFO_S stInfo;
    EXPECT_EQ(0, QN_STORAGE_GetFileInfo("2024-03-01-08-15-00.mkv", &stInfo));
    ASSERT_EQ(0, chdir(szBefore));
    EXPECT_EQ("2024-03-01-08-15-00.mkv", stInfo.strName);
    EXPECT_EQ("2024-03-01-08-15-00.mkv", stInfo.strPath);
}

TEST_F(Catalogue, FileInfoOfAnythingButAFileSucceedsWithoutData)
{
    const std::string strFile = Touch("2024-03-01-08-15-00.mkv");
    const std::string strLink = m_dir.strPath + "/2024-03-01-08-15-01.mkv";
    const std::string strFifo = m_dir.strPath + "/2024-03-01-08-15-02.mkv";
    ASSERT_EQ(0, symlink(strFile.c_str(), strLink.c_str()));
    ASSERT_EQ(0, mkfifo(strFifo.c_str(), 0644));
    for (const std::string &strPath : {m_dir.strPath, m_dir.strPath + "/", strLink, strFifo})
    {
        tagQN_FILE_INFO_S stInfo = Marked();
        EXPECT_EQ(0, QN_STORAGE_GetFileInfo(strPath.c_str(), &stInfo)) << strPath;
        ExpectMarked(stInfo);
    }
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(Catalogue, FileInfoOfAMissingPathFailsWithoutAWarning)
{
    STDOUT_CAPTURE out;
    for (const std::string &strPath : {m_dir.strPath + "/2024-03-01-08-15-00.mkv", std::string(),
                                       m_dir.strPath + "/" + std::string(300, 'x'), std::string(10000, '/') + "x"})
    {
        tagQN_FILE_INFO_S stInfo = Marked();
        EXPECT_EQ(-1, QN_STORAGE_GetFileInfo(strPath.c_str(), &stInfo));
        ExpectMarked(stInfo);
    }
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    EXPECT_EQ("", out.Text());
}

TEST_F(Catalogue, FileInfoOfAnUnreadableNameWarns)
{
    const std::string strPath = Touch("notes.txt");
    STDOUT_CAPTURE out;
    tagQN_FILE_INFO_S stInfo = Marked();
    EXPECT_EQ(-1, QN_STORAGE_GetFileInfo(strPath.c_str(), &stInfo));
    ExpectMarked(stInfo);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(4, "QN_STORAGE_GetFileInfo", "Oops, " + strPath + " not indexable"));
    EXPECT_TRUE(out.HasLine(R"(\[WARN\]\[QN_STORAGE_GetFileInfo:\d+\] Oops, .*/notes\.txt not indexable)"));
}

TEST_F(Catalogue, RecordsCanBeCopiedAndMoved)
{
    const tagQN_FILE_INFO_S stFirst = Marked();
    tagQN_FILE_INFO_S stCopy = stFirst;
    ExpectMarked(stCopy);
    tagQN_FILE_INFO_S stMoved;
    stMoved = std::move(stCopy);
    ExpectMarked(stMoved);
}
