// Capacity figures of a file system, and the short texts of sizes.

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include "storage/failing_calls.h"
#include "storage/storage_support.h"
#include "support/card.h"

using namespace libquarrin;

namespace
{

class Capacity : public ::testing::Test
{
protected:
    Capacity()
    {
        FAKE_PLATFORM_Reset();
    }

    TEMP_DIR m_dir;
};

tagQN_STORAGE_INFO_S Marked()
{
    tagQN_STORAGE_INFO_S stInfo = {};
    stInfo.u32TotalKB = 1;
    stInfo.u32FreeKB = 2;
    stInfo.u32UsedKB = 3;
    stInfo.dUsedPercent = 4.5;
    return stInfo;
}

void ExpectUntouched(const tagQN_STORAGE_INFO_S &stInfo)
{
    EXPECT_EQ(1u, stInfo.u32TotalKB);
    EXPECT_EQ(2u, stInfo.u32FreeKB);
    EXPECT_EQ(3u, stInfo.u32UsedKB);
    EXPECT_EQ(4.5, stInfo.dUsedPercent);
}

} // namespace

TEST_F(Capacity, TotalSizeIsBlocksTimesBlockSize)
{
    struct statvfs stVfs = {};
    ASSERT_EQ(0, statvfs(m_dir.strPath.c_str(), &stVfs));
    const uint64_t u64Expected = static_cast<uint64_t>(stVfs.f_blocks) * stVfs.f_bsize;
    EXPECT_EQ(static_cast<int64_t>(u64Expected), QN_STORAGE_GetMountedTotalSize(m_dir.strPath.c_str()));
    EXPECT_GT(QN_STORAGE_GetMountedTotalSize(m_dir.strPath.c_str()), 0);
}

TEST_F(Capacity, TotalSizeOfAMissingPathIsZero)
{
    const STDOUT_CAPTURE out;
    EXPECT_EQ(0, QN_STORAGE_GetMountedTotalSize((m_dir.strPath + "/missing").c_str()));
    EXPECT_EQ(0, QN_STORAGE_GetMountedTotalSize(std::string(10000, 'x').c_str()));
    EXPECT_EQ(0, QN_STORAGE_GetMountedTotalSize("/proc")); // no blocks at all
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(Capacity, InfoHoldsTheFileSystemsFigures)
{
    struct statvfs stBefore = {};
    struct statvfs stAfter = {};
    tagQN_STORAGE_INFO_S stInfo = Marked();
    // Other programs write to the file system too: compare in a moment in which nothing changed.
    do
    {
        ASSERT_EQ(0, statvfs(m_dir.strPath.c_str(), &stBefore));
        ASSERT_EQ(0, QN_STORAGE_GetStorageInfo(m_dir.strPath.c_str(), &stInfo));
        ASSERT_EQ(0, statvfs(m_dir.strPath.c_str(), &stAfter));
    } while (stBefore.f_bfree != stAfter.f_bfree);
    const uint64_t u64Block = stBefore.f_bsize;
    EXPECT_EQ(static_cast<uint32_t>((stBefore.f_blocks * u64Block) >> 10), stInfo.u32TotalKB);
    EXPECT_EQ(static_cast<uint32_t>((stBefore.f_bfree * u64Block) >> 10), stInfo.u32FreeKB); // not f_bavail
    EXPECT_EQ(stInfo.u32TotalKB - stInfo.u32FreeKB, stInfo.u32UsedKB);
    EXPECT_DOUBLE_EQ(stInfo.u32UsedKB * 100.0 / stInfo.u32TotalKB, stInfo.dUsedPercent);
}

TEST_F(Capacity, InfoOfAMissingPathFailsSilently)
{
    STDOUT_CAPTURE out;
    testing::internal::CaptureStderr();
    tagQN_STORAGE_INFO_S stInfo = Marked();
    EXPECT_EQ(-1, QN_STORAGE_GetStorageInfo((m_dir.strPath + "/missing").c_str(), &stInfo));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ("", out.Text());
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    ExpectUntouched(stInfo);
}

TEST_F(Capacity, InfoOfAnEmptyFileSystemIsNotANumber)
{
    tagQN_STORAGE_INFO_S stInfo = Marked();
    ASSERT_EQ(0, QN_STORAGE_GetStorageInfo("/proc", &stInfo));
    EXPECT_EQ(0u, stInfo.u32TotalKB);
    EXPECT_EQ(0u, stInfo.u32FreeKB);
    EXPECT_EQ(0u, stInfo.u32UsedKB);
    EXPECT_TRUE(std::isnan(stInfo.dUsedPercent));
}

TEST_F(Capacity, AFailingQueryIsReportedOnStandardErrorAndLeavesTheInfo)
{
    tagQN_STORAGE_INFO_S stInfo = Marked();
    int32_t s32Result = 0;
    int64_t s64Total = -1;
    testing::internal::CaptureStderr();
    TEST_WithFailingCall(TEST_CALL_STATVFS, EIO,
                         [&]
                         {
                             s32Result = QN_STORAGE_GetStorageInfo(m_dir.strPath.c_str(), &stInfo);
                             s64Total = QN_STORAGE_GetMountedTotalSize(m_dir.strPath.c_str());
                         });
    const std::string strError = testing::internal::GetCapturedStderr();
    EXPECT_EQ(-1, s32Result);
    EXPECT_EQ(std::string("statvfs failed: ") + strerror(EIO) + "\n", strError);
    EXPECT_EQ(0, s64Total);
    ExpectUntouched(stInfo);
}

TEST(PrettierSize, UnitsBeginAboveTheirPowerOfTwo)
{
    const struct
    {
        uint64_t u64Bytes;
        const char *pszText;
    } astCases[] = {
        {0, "0B"},
        {1, "1B"},
        {1023, "1023B"},
        {1024, "1024B"},
        {1025, "1.0KB"},
        {1536, "1.5KB"},
        {1048575, "1024.0KB"},
        {1048576, "1024.0KB"},
        {1048577, "1.0MB"},
        {1572864, "1.5MB"},
        {1073741823, "1024.0MB"},
        {1073741824, "1024.0MB"},
        {1073741825, "1.0GB"},
        {2147483648, "2.0GB"}, // would be negative as a 32-bit number
        {4294967295, "4.0GB"},
        {4294967296, "4.0GB"}, // its low word is 0
        {5368709120, "5.0GB"},
        {5905580032, "5.5GB"},
        {1099511627776, "1024.0GB"}, // there is no larger unit
        {UINT64_MAX, "17179869184.0GB"},
    };
    for (const auto &stCase : astCases)
    {
        EXPECT_EQ(stCase.pszText, QN_STORAGE_PrettierSize(stCase.u64Bytes)) << stCase.u64Bytes;
    }
}
