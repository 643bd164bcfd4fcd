// Files in a volume folder that nobody here has named.

#include <algorithm>
#include <cstdint>
#include <cstring>
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

constexpr size_t NAME_BYTES = 255; // the longest name of the usual file systems

class HostileNames : public ::testing::Test
{
protected:
    HostileNames() : m_zone("UTC")
    {
        FAKE_PLATFORM_Reset();
    }

    /// The one file of the folder, described both ways; both must agree.
    tagQN_FILE_INFO_S Only()
    {
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        EXPECT_EQ(0, QN_STORAGE_ScanFolder(m_dir.strPath.c_str(), vecFiles));
        EXPECT_EQ(1u, vecFiles.size());
        if (vecFiles.size() != 1)
        {
            return tagQN_FILE_INFO_S();
        }
        tagQN_FILE_INFO_S stInfo;
        EXPECT_EQ(0, QN_STORAGE_GetFileInfo(vecFiles[0].strPath.c_str(), &stInfo));
        EXPECT_EQ(vecFiles[0].strComment, stInfo.strComment);
        EXPECT_EQ(vecFiles[0].strExt, stInfo.strExt);
        EXPECT_EQ(vecFiles[0].tStart, stInfo.tStart);
        EXPECT_EQ(vecFiles[0].tEnd, stInfo.tEnd);
        return vecFiles[0];
    }

    TIME_ZONE m_zone;
    TEMP_DIR m_dir;
};

/// Seconds of a date that need not exist.
time_t Utc(int32_t s32Year, int32_t s32Month, int32_t s32Day, int32_t s32Hour, int32_t s32Min, int32_t s32Sec)
{
    tm stTime = {};
    stTime.tm_year = s32Year - 1900;
    stTime.tm_mon = s32Month - 1;
    stTime.tm_mday = s32Day;
    stTime.tm_hour = s32Hour;
    stTime.tm_min = s32Min;
    stTime.tm_sec = s32Sec;
    return timegm(&stTime);
}

} // namespace

TEST_F(HostileNames, AbsurdDatesAreNormalised)
{
    const struct
    {
        const char *pszName;
        time_t tStart;
        time_t tEnd;
    } astCases[] = {
        {"9999-99-99-99-99-99.mkv", Utc(9999, 99, 99, 99, 99, 99), Utc(9999, 99, 99, 99, 99, 99)},
        {"9999-99-99-99-99-99.To.0000-00-00-00-00-00.mkv", Utc(9999, 99, 99, 99, 99, 99), Utc(0, 0, 0, 0, 0, 0)},
        {"0000-00-00-00-00-00.ts", Utc(0, 0, 0, 0, 0, 0), Utc(0, 0, 0, 0, 0, 0)},
        {"2024-02-30-24-60-60.ts", Utc(2024, 3, 2, 1, 1, 0), Utc(2024, 3, 2, 1, 1, 0)},
        {"-999--9--9--9--9--9.ts", Utc(-999, -9, -9, -9, -9, -9), Utc(-999, -9, -9, -9, -9, -9)},
        {"+024-+3-+1- 8-\t5-\n0.ts", Utc(24, 3, 1, 8, 5, 0), Utc(24, 3, 1, 8, 5, 0)},
        {" 2024-03-01-08-15-00.To. 2024-03-01-08-20-00.ts", Utc(2024, 3, 1, 8, 15, 0), Utc(2024, 3, 1, 8, 20, 0)},
    };
    for (const auto &stCase : astCases)
    {
        const std::string strPath = TEST_Touch(m_dir.strPath + "/" + stCase.pszName);
        const tagQN_FILE_INFO_S stInfo = Only();
        EXPECT_EQ(stCase.tStart, stInfo.tStart) << stCase.pszName;
        EXPECT_EQ(stCase.tEnd, stInfo.tEnd) << stCase.pszName;
        remove(strPath.c_str());
    }
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(HostileNames, LongestNamesAreKeptWhole)
{
    const std::string strTime = "2024-03-01-08-15-00.To.unknown";
    const std::string strComment(NAME_BYTES - strTime.size() - strlen(".[].mkv"), 'c');
    TEST_Touch(m_dir.strPath + "/" + strTime + ".[" + strComment + "].mkv");
    const tagQN_FILE_INFO_S stInfo = Only();
    EXPECT_EQ(NAME_BYTES, stInfo.strName.size());
    EXPECT_EQ(strComment, stInfo.strComment);
    EXPECT_EQ("mkv", stInfo.strExt);
}

TEST_F(HostileNames, LongestExtensionIsKeptWhole)
{
    const std::string strExt(NAME_BYTES - strlen("2024-03-01-08-15-00."), 'e');
    TEST_Touch(m_dir.strPath + "/2024-03-01-08-15-00." + strExt);
    EXPECT_EQ(strExt, Only().strExt);
}

TEST_F(HostileNames, DeepFoldersAreListed)
{
    std::string strFolder = m_dir.strPath;
    while (strFolder.size() < 3500) // just below what one path may be long
    {
        strFolder += "/" + std::string(200, 'd');
        ASSERT_EQ(0, mkdir(strFolder.c_str(), 0755));
    }
    const std::string strName = "2024-03-01-08-15-00.[" + std::string(100, 'c') + "].mkv";
    TEST_Touch(strFolder + "/" + strName);
    TEST_Touch(strFolder + "/notes");
    const STDOUT_CAPTURE out;
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    EXPECT_EQ(0, QN_STORAGE_ScanFolder(strFolder.c_str(), vecFiles));
    ASSERT_EQ(1u, vecFiles.size());
    EXPECT_EQ(strFolder + "/" + strName, vecFiles[0].strPath);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(4, "QN_STORAGE_ScanFolder", "Oops, " + strFolder + "/notes not indexable"));
}

TEST_F(HostileNames, BinaryNamesAreWarnedAboutByteForByte)
{
    std::string strBinary;
    for (int32_t i = 1; i < 256; ++i)
    {
        if (i != '/')
        {
            strBinary.push_back(static_cast<char>(i));
        }
    }
    const std::string strPath = m_dir.strPath + "/" + strBinary;
    TEST_Touch(strPath);
    if (!TEST_Exists(strPath))
    {
        GTEST_SKIP() << "the file system of the temporary directory takes no binary names";
    }
    STDOUT_CAPTURE out;
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    EXPECT_EQ(0, QN_STORAGE_ScanFolder(m_dir.strPath.c_str(), vecFiles));
    EXPECT_TRUE(vecFiles.empty());
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(4, "QN_STORAGE_ScanFolder", "Oops, " + strPath + " not indexable"));
    EXPECT_TRUE(out.Has("] Oops, " + strPath + " not indexable\n"));
}

TEST_F(HostileNames, NamesAreNeverTakenForFormats)
{
    const std::string strBad = TEST_Touch(m_dir.strPath + "/%s%s%s%n%n%n%99999d");
    TEST_Touch(m_dir.strPath + "/2024-03-01-08-15-00.[%n%s%n].%s");
    STDOUT_CAPTURE out;
    const tagQN_FILE_INFO_S stInfo = Only();
    EXPECT_EQ("%n%s%n", stInfo.strComment);
    EXPECT_EQ("%s", stInfo.strExt);
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(4, "QN_STORAGE_ScanFolder", "Oops, " + strBad + " not indexable"));
    EXPECT_TRUE(out.Has("Oops, " + strBad + " not indexable\n"));
}

TEST_F(HostileNames, BracketsInAnyOrder)
{
    const struct
    {
        const char *pszName;
        const char *pszComment;
    } astCases[] = {{"2024-03-01-08-15-00.]a[.mkv", ""},       {"2024-03-01-08-15-00.[[[[.mkv", ""},
                    {"2024-03-01-08-15-00.]]]].mkv", ""},      {"2024-03-01-08-15-00.[a][b].mkv", "a][b"},
                    {"2024-03-01-08-15-00.[].mkv", ""},        {"2024-03-01-08-15-00.[\x01\xff].mkv", "\x01\xff"},
                    {"2024-03-01-08-15-00.mkv.[door]", "door"}};
    for (const auto &stCase : astCases)
    {
        const std::string strPath = TEST_Touch(m_dir.strPath + "/" + stCase.pszName);
        EXPECT_EQ(stCase.pszComment, Only().strComment) << stCase.pszName;
        remove(strPath.c_str());
    }
}

TEST_F(HostileNames, QuotaDeletesByTheAbsurdDateAndNothingElse)
{
    const std::string strMount = m_dir.strPath + "/mnt";
    const std::string strFolder = strMount + "/rec";
    mkdir(strMount.c_str(), 0755);
    mkdir(strFolder.c_str(), 0755);
    // Year 9999 is the newest, whatever its month.
    const std::string strFar = TEST_Touch(strFolder + "/9999-99-99-99-99-99.mkv", std::string(100, 'x'));
    const std::string strNow = TEST_Touch(strFolder + "/2024-03-01-08-15-00.mkv", std::string(100, 'x'));
    const std::string strOdd = TEST_Touch(strFolder + "/-999-01-01-00-00-00.mkv", std::string(100, 'x'));
    const std::string strNotes = TEST_Touch(strFolder + "/notes", std::string(1000, 'x'));
    tagQN_STORAGE_PARAM_S stParam;
    stParam.strDevice = m_dir.strPath + "/dev/qnhost" + std::to_string(getpid());
    stParam.s32PartitionNo = 1;
    stParam.pszMountPoint = strMount;
    stParam.astVolume[0].bEnable = 1;
    stParam.astVolume[0].pszFolder = "rec";
    stParam.astVolume[0].u32QuotaBytes = 201;
    stParam.astVolume[0].bAutoDelete = true;
    tagQN_HANDLER_S *pHandle = nullptr;
    const STDOUT_CAPTURE out;
    ASSERT_EQ(0u, QN_Init(&stParam, pHandle));
    EXPECT_TRUE(TEST_WaitFor([pHandle] { return pHandle->enState.load() == QN_STATE_E_UNPLUGIN; })); // no device
    EXPECT_EQ(0, QN_STORAGE_QuotaCheck(pHandle, QN_VOLUME_ID_E_0));
    QN_Destroy(pHandle);
    EXPECT_FALSE(TEST_Exists(strOdd));
    EXPECT_TRUE(TEST_Exists(strNow));
    EXPECT_TRUE(TEST_Exists(strFar));
    EXPECT_TRUE(TEST_Exists(strNotes)); // neither counted nor deleted
}
