// What 32-bit targets get wrong easily: large files, times after 2038, large cards.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/card.h"

using namespace libquarrin;

namespace
{

constexpr uint64_t GIB = 1ull << 30;

// The file system that the library sees; block size 0: it sees none.
struct statvfs g_stFileSystem;

class FileSizes : public ::testing::Test
{
protected:
    // A file that takes no room on the disk.
    std::string Sparse(const std::string &strName, uint64_t u64Size)
    {
        const std::string strPath = TEST_Touch(m_dir.strPath + "/" + strName);
        EXPECT_EQ(0, truncate(strPath.c_str(), static_cast<off_t>(u64Size))) << strName;
        return strPath;
    }

    TEMP_DIR m_dir;
};

class LargeCards : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_stFileSystem = {};
    }

    void TearDown() override
    {
        g_stFileSystem = {};
    }
};

} // namespace

// The library's statvfs with 64-bit figures, which is this one of the C library on every target.
extern "C" int FakeStatvfs(const char *pszPath, struct statvfs *pstVfs) __asm__("statvfs64");
extern "C" int FakeStatvfs(const char *, struct statvfs *pstVfs)
{
    if (g_stFileSystem.f_bsize == 0)
    {
        errno = ENOENT;
        return -1;
    }
    *pstVfs = g_stFileSystem;
    return 0;
}

TEST_F(FileSizes, FilesBetweenTwoAndFourGibibytesAreListedWithTheirSize)
{
    Sparse("2024-01-01-00-00-00.To.2024-01-01-00-01-00.mkv", 2 * GIB - 1);
    Sparse("2024-01-01-00-01-00.To.2024-01-01-00-02-00.mkv", 2 * GIB);
    Sparse("2024-01-01-00-02-00.To.2024-01-01-00-03-00.mkv", 3 * GIB);
    Sparse("2024-01-01-00-03-00.To.2024-01-01-00-04-00.mkv", 4 * GIB - 1);
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    ASSERT_EQ(0, QN_STORAGE_ScanFolder(m_dir.strPath.c_str(), vecFiles));
    ASSERT_EQ(4u, vecFiles.size());
    EXPECT_EQ(2 * GIB - 1, vecFiles[0].u64Size);
    EXPECT_EQ(2 * GIB, vecFiles[1].u64Size);
    EXPECT_EQ(3 * GIB, vecFiles[2].u64Size);
    EXPECT_EQ(4 * GIB - 1, vecFiles[3].u64Size);
}

TEST_F(FileSizes, FilesOverFourGibibytesAreCataloguedModuloTheWord)
{
    const std::string strEven = Sparse("2024-01-01-00-00-00.mkv", 4 * GIB);
    const std::string strOdd = Sparse("2024-01-01-00-01-00.mkv", 9 * GIB + 5);
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    ASSERT_EQ(0, QN_STORAGE_ScanFolder(m_dir.strPath.c_str(), vecFiles));
    ASSERT_EQ(2u, vecFiles.size());
    EXPECT_EQ(0u, vecFiles[0].u64Size);
    EXPECT_EQ(GIB + 5, vecFiles[1].u64Size);
    tagQN_FILE_INFO_S stInfo;
    ASSERT_EQ(0, QN_STORAGE_GetFileInfo(strOdd.c_str(), &stInfo));
    EXPECT_EQ(GIB + 5, stInfo.u64Size);
    ASSERT_EQ(0, QN_STORAGE_GetFileInfo(strEven.c_str(), &stInfo));
    EXPECT_EQ(0u, stInfo.u64Size);
}

TEST(LateTimes, SurviveNamingAndParsing)
{
    const struct
    {
        time_t tTime;
        const char *pszText;
    } astCases[] = {
        {2147483647, "2038-01-19-03-14-07"},   // the last second of a signed word
        {2147483648, "2038-01-19-03-14-08"},   // negative as one
        {4294967295, "2106-02-07-06-28-15"},   // the last second of an unsigned word
        {4294967296, "2106-02-07-06-28-16"},   // 0 as one
        {253402300799, "9999-12-31-23-59-59"}, // the last of four digits
    };
    for (const auto &stCase : astCases)
    {
        EXPECT_EQ(stCase.pszText, QN_STORAGE_PrettierTime(stCase.tTime));
        const std::string strPath =
            QN_STORAGE_GenerateRecordFile("/d", "f", stCase.tTime - 60, stCase.tTime, "door", "mp4");
        tm stStart = {};
        tm stEnd = {};
        std::string strExt;
        ASSERT_EQ(0, QN_STORAGE_GetFilenameInfo(strPath.substr(strlen("/d/f/")).c_str(), stStart, stEnd, strExt));
        EXPECT_EQ(stCase.tTime - 60, timegm(&stStart));
        EXPECT_EQ(stCase.tTime, timegm(&stEnd));
    }
}

TEST_F(FileSizes, TimesAfter2038AreCataloguedInOrder)
{
    setenv("TZ", "UTC", 1);
    tzset();
    TEST_Touch(m_dir.strPath + "/2106-02-07-06-28-16.mkv");
    TEST_Touch(m_dir.strPath + "/2038-01-19-03-14-08.To.2038-01-19-03-15-08.mkv");
    TEST_Touch(m_dir.strPath + "/2024-01-01-00-00-00.mkv");
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    ASSERT_EQ(0, QN_STORAGE_ScanFolder(m_dir.strPath.c_str(), vecFiles));
    ASSERT_EQ(3u, vecFiles.size());
    EXPECT_EQ(1704067200, vecFiles[0].tStart);
    EXPECT_EQ(2147483648, vecFiles[1].tStart);
    EXPECT_EQ(2147483708, vecFiles[1].tEnd);
    EXPECT_EQ(4294967296, vecFiles[2].tStart);
}

TEST_F(LargeCards, HaveTheirTotalSizeInBytes)
{
    g_stFileSystem.f_bsize = 65536;
    g_stFileSystem.f_frsize = 65536;
    g_stFileSystem.f_blocks = 0x80000001u;
    EXPECT_EQ(0x800000010000, QN_STORAGE_GetMountedTotalSize("/"));
    g_stFileSystem.f_blocks = 0x100000001ull; // more blocks than a word counts
    EXPECT_EQ(0x1000000010000, QN_STORAGE_GetMountedTotalSize("/"));
}

TEST_F(LargeCards, HaveTheirFiguresInKibibytes)
{
    g_stFileSystem.f_bsize = 4096;
    g_stFileSystem.f_frsize = 4096;
    g_stFileSystem.f_blocks = 0x20000000; // 2 TiB: the bytes do not fit into a word, the KiB do
    g_stFileSystem.f_bfree = 0x08000000;
    tagQN_STORAGE_INFO_S stInfo = {};
    ASSERT_EQ(0, QN_STORAGE_GetStorageInfo("/", &stInfo));
    EXPECT_EQ(0x80000000u, stInfo.u32TotalKB);
    EXPECT_EQ(0x20000000u, stInfo.u32FreeKB);
    EXPECT_EQ(0x60000000u, stInfo.u32UsedKB);
    EXPECT_DOUBLE_EQ(75.0, stInfo.dUsedPercent);
}
