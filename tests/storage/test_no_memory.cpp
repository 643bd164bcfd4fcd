// Memory that runs out in the storage's calls: they say so, or give nothing.

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "storage/quota_test.h"
#include "support/failing_new.h"

using namespace libquarrin;

namespace
{

class StorageNoMemory : public QUOTA_TEST
{
protected:
    void SetUp() override
    {
        CARD_TEST::SetUp();
        InitMounted();
        m_strFile = AddFile(1, 100);
        FAKE_PLATFORM_Reset();
    }

    /// Every call with too little memory said so, and there were some; the one with enough had success.
    static void ExpectTold(const std::vector<uint32_t> &vecResults, uint32_t u32NoMemory)
    {
        ASSERT_LE(2u, vecResults.size());
        EXPECT_EQ(std::vector<uint32_t>(vecResults.size() - 1, u32NoMemory),
                  std::vector<uint32_t>(vecResults.begin(), vecResults.end() - 1));
        EXPECT_EQ(0u, vecResults.back());
    }

    /// A function that makes a text makes an empty one without memory.
    template <typename MAKE> static void ExpectEmpty(const MAKE &fnMake)
    {
        ExpectTold(TEST_FailEachNew([&] { return fnMake().empty() ? 1u : 0u; }), 1);
    }

    /// What a check on this thread does while its s32Nth allocation fails. False: it made fewer.
    bool CheckFails(int32_t s32Nth)
    {
        return TEST_WithFailingNew(s32Nth, [this] { EXPECT_EQ(0, Check()); });
    }

    std::string m_strFile;
};

} // namespace

TEST_F(StorageNoMemory, ForATextGivesAnEmptyOne)
{
    ExpectEmpty([] { return QN_STORAGE_GenerateRecordFile("/mnt", "rec", 1000, 2000, "comment", "mkv"); });
    ExpectEmpty([] { return QN_STORAGE_GenerateRecordingFile("/mnt", "rec", 1000, "comment", "mkv"); });
    ExpectEmpty([] { return QN_STORAGE_GenerateImageFile("/mnt", "rec", 1000, "comment", "jpg"); });
    ExpectEmpty([] { return QN_STORAGE_GetFilenameComment("2024-03-01-08-15-00.[a comment of some length].mkv"); });
    ExpectEmpty([] { return QN_STORAGE_PrettierTime(1000); });
}

TEST_F(StorageNoMemory, ForAnExtensionRefusesTheName)
{
    tm stStart = {};
    tm stEnd = {};
    std::string strExt;
    ExpectTold(TEST_FailEachNew(
                   [&]
                   {
                       EXPECT_EQ("", strExt);
                       return static_cast<uint32_t>(QN_STORAGE_GetFilenameInfo(
                           "2024-03-01-08-15-00.an-extension-that-takes-memory", stStart, stEnd, strExt));
                   }),
               0xffffffffu);
    EXPECT_EQ("an-extension-that-takes-memory", strExt);
}

TEST_F(StorageNoMemory, ForAFilesRecordLeavesIt)
{
    tagQN_FILE_INFO_S stInfo;
    ExpectTold(TEST_FailEachNew(
                   [&]
                   {
                       EXPECT_EQ("", stInfo.strName);
                       return static_cast<uint32_t>(QN_STORAGE_GetFileInfo(m_strFile.c_str(), &stInfo));
                   }),
               6);
    EXPECT_EQ(m_strFile, stInfo.strPath);
}

TEST_F(StorageNoMemory, ForAListGivesNone)
{
    AddFile(2, 100);
    const std::string strFolder = Folder(0);
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    ExpectTold(TEST_FailEachNew(
                   [&]
                   {
                       EXPECT_TRUE(vecFiles.empty());
                       return static_cast<uint32_t>(QN_STORAGE_ScanFolder(strFolder.c_str(), vecFiles));
                   }),
               6);
    EXPECT_EQ(2u, vecFiles.size());
}

TEST_F(StorageNoMemory, ForTheListOfACheckIsNoReasonToDelete)
{
    AddFile(2, 100);
    SetQuota(150, 0, true);
    int32_t s32Nth = 1;
    for (; CheckFails(s32Nth) && Checks() == 0; ++s32Nth)
    {
        EXPECT_EQ(2u, TEST_List(Folder(0)).size()) << s32Nth;
        EXPECT_FALSE(IsFull());
    }
    EXPECT_LT(4, s32Nth);
}

TEST_F(StorageNoMemory, ForTheListOfACheckBringsAnotherASecondLater)
{
    SetQuota(50, 0, true);
    const double dBegin = TEST_Seconds();
    ASSERT_TRUE(CheckFails(1));
    EXPECT_EQ(0, Checks());
    EXPECT_TRUE(TEST_WaitFor(
        [this]
        {
            QN_EVENT_PushEvent(m_pHandle, static_cast<QN_EVENT_E>(5), nullptr); // keeps the event thread awake
            return Checks() > 0;
        },
        10000));
    EXPECT_GE(TEST_Seconds() - dBegin, 0.95);
    EXPECT_TRUE(WaitForIdle());
    EXPECT_FALSE(TEST_Exists(m_strFile));
}

TEST_F(StorageNoMemory, ForTheClaimOfADeletionLeavesTheFile)
{
    SetQuota(50, 0, true);
    int32_t s32Nth = 1;
    for (; Checks() == 0; ++s32Nth)
    {
        ASSERT_TRUE(CheckFails(s32Nth)); // until the list is there
        ASSERT_GT(100, s32Nth);
    }
    EXPECT_TRUE(TEST_Exists(m_strFile));
    EXPECT_FALSE(FAKE_PLATFORM_Logged("Quota[0] remove " + m_strFile));
    EXPECT_TRUE(FAKE_PLATFORM_Logged("Quota[0] remove finsih 100B|50B|50B"));
    EXPECT_EQ(0, Check());
    EXPECT_FALSE(TEST_Exists(m_strFile));
}
