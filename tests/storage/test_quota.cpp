// Quota: when a volume counts as full, and what is deleted then.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "storage/failing_calls.h"
#include "storage/quota_test.h"

using namespace libquarrin;

namespace
{

class Quota : public QUOTA_TEST
{
protected:
    void SetUp() override
    {
        CARD_TEST::SetUp();
        InitMounted();
        FAKE_PLATFORM_Reset();
    }
};

} // namespace

TEST_F(Quota, MountMakesTheFoldersOfTheEnabledVolumes)
{
    m_pHandle->astVolume[1].bEnable = 0;
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        m_pHandle->astQuotaLastCheck[i] = {1000 + i, 7};
        m_pHandle->as32QuotaCountdown[i] = 40 + i;
    }
    EXPECT_EQ(0, QN_STORAGE_QuotaInit(m_pHandle));
    const std::vector<std::string> vecExpected = {"mkdir -p " + m_strMount + "/rec",
                                                  "mkdir -p " + m_strMount + "/event"};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        EXPECT_EQ(i == 1 ? 1001 : 0, m_pHandle->astQuotaLastCheck[i].tv_sec) << i;
        EXPECT_EQ(i == 1 ? 7 : 0, m_pHandle->astQuotaLastCheck[i].tv_usec) << i;
        EXPECT_EQ(40 + i, m_pHandle->as32QuotaCountdown[i]) << i;
    }
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(Quota, FoldersThatCannotBeMadeStopNothing)
{
    FAKE_PLATFORM_Answer("mkdir", 1);
    m_pHandle->astQuotaLastCheck[0] = {1000, 7};
    EXPECT_EQ(0, QN_STORAGE_QuotaInit(m_pHandle));
    EXPECT_EQ(3u, FAKE_PLATFORM_Commands().size());
    EXPECT_EQ(0, m_pHandle->astQuotaLastCheck[0].tv_sec);
}

TEST_F(Quota, LongPathsGiveWholeMkdirLines)
{
    m_pHandle->astVolume[0].pszFolder = std::string(2000, 'f');
    EXPECT_EQ(0, QN_STORAGE_QuotaInit(m_pHandle));
    ASSERT_EQ(3u, FAKE_PLATFORM_Commands().size());
    EXPECT_EQ("mkdir -p " + m_strMount + "/" + std::string(2000, 'f'), FAKE_PLATFORM_Commands()[0]);
}

TEST_F(Quota, TheEndOfQuotaIsQuiet)
{
    m_pHandle->astQuotaLastCheck[0] = {1000, 7};
    EXPECT_EQ(0, QN_STORAGE_QuotaDestroy(m_pHandle));
    EXPECT_EQ(1000, m_pHandle->astQuotaLastCheck[0].tv_sec);
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    EXPECT_TRUE(FAKE_PLATFORM_Commands().empty());
}

TEST_F(Quota, DisabledVolumeIsLeftAlone)
{
    const std::string strFile = AddFile(1, 1000);
    SetQuota(1, 0, true);
    m_pHandle->astVolume[0].bEnable = 0;
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    EXPECT_EQ(0, Check());
    EXPECT_TRUE(TEST_Exists(strFile));
    EXPECT_TRUE(IsFull());
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(Quota, VolumeThatDoesNotExistIsLeftAlone)
{
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    for (const int32_t s32Volume : {3, 4, -1, 1000000, INT32_MIN, INT32_MAX})
    {
        EXPECT_EQ(0, Check(s32Volume)) << s32Volume;
        EXPECT_EQ(0, Throttled(s32Volume)) << s32Volume;
    }
    EXPECT_TRUE(IsFull());
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(Quota, CheckLogsUsedRoomAndQuota)
{
    AddFile(1, 1536);
    SetQuota(3 * 1048576, 1048576, false, 0);
    EXPECT_EQ(0, Check());
    EXPECT_EQ(std::vector<std::string>{"Quota[0] quota:0 1.5KB|2.0MB|3.0MB"}, LogTexts());
    EXPECT_TRUE(LoggedInfo("Quota[0] quota:0 1.5KB|2.0MB|3.0MB"));
    EXPECT_TRUE(m_out.HasLine(R"(\[INFO\]\[QN_STORAGE_QuotaCheck:\d+\] Quota\[0\] quota:0 1\.5KB\|2\.0MB\|3\.0MB)"));

    SetQuota(1000, 100, true, 2);
    EXPECT_EQ(0, Check(2));
    EXPECT_TRUE(LoggedInfo("Quota[2] quota:1 0B|900B|1000B"));
}

TEST_F(Quota, ReserveAboveTheQuotaWrapsInTheLog)
{
    SetQuota(100, 200, false);
    EXPECT_EQ(0, Check());
    EXPECT_TRUE(LoggedInfo("Quota[0] quota:0 0B|17179869184.0GB|100B")); // an unsigned difference
    EXPECT_TRUE(IsFull());
}

TEST_F(Quota, WithoutAutoDeleteTheReserveDecidesToTheByte)
{
    const struct
    {
        uint64_t u64Used;
        uint32_t u32Quota;
        uint32_t u32Reserve;
        bool bFull;
    } astCases[] = {
        {899, 1000, 100, false},
        {900, 1000, 100, true}, // equality counts as full
        {901, 1000, 100, true},
        {5000, 1000, 100, true},
        {999, 1000, 0, false},
        {1000, 1000, 0, true},
        {1001, 1000, 0, true}, // a negative difference
        {0, 0, 0, true},
        {0, 1, 0, false},
        {0, 0xffffffffu, 0xffffffffu, true}, // neither is -1
        {0, 0xffffffffu, 0xfffffffeu, false},
        {0xffffffffu, 1, 0, true},
        {0xfffffffeu, 0xffffffffu, 0, false},
    };
    for (const auto &stCase : astCases)
    {
        const std::string strFile = AddFile(1, stCase.u64Used);
        SetQuota(stCase.u32Quota, stCase.u32Reserve, false);
        m_pHandle->enStorageState = stCase.bFull ? QN_STORAGE_STATE_E_NORMAL : QN_STORAGE_STATE_E_FULL;
        EXPECT_EQ(0, Check());
        EXPECT_EQ(stCase.bFull, IsFull()) << stCase.u64Used << " of " << stCase.u32Quota << " - " << stCase.u32Reserve;
        EXPECT_TRUE(TEST_Exists(strFile)); // nothing is ever deleted
        remove(strFile.c_str());
    }
    EXPECT_FALSE(FAKE_PLATFORM_Logged("remove"));
}

TEST_F(Quota, AutoDeleteRemovesTheOldestUntilThereIsRoom)
{
    const std::string strFourth = AddFile(4, 100);
    const std::string strSecond = AddFile(2, 100);
    const std::string strFirst = AddFile(1, 100);
    const std::string strThird = AddFile(3, 100);
    SetQuota(350, 100, true);
    EXPECT_EQ(0, Check());
    const std::vector<std::string> vecExpected = {
        "Quota[0] quota:1 400B|250B|350B",
        "Quota[0] remove " + strFirst,
        "Quota[0] remove " + strSecond, // 300 of 350 used: 50 is still below the reserve
        "Quota[0] remove finsih 200B|250B|350B",
    };
    EXPECT_EQ(vecExpected, LogTexts());
    for (const std::string &strText : vecExpected)
    {
        EXPECT_TRUE(LoggedInfo(strText)) << strText;
    }
    EXPECT_TRUE(
        m_out.HasLine(R"(\[INFO\]\[QN_STORAGE_QuotaCheck:\d+\] Quota\[0\] remove /.*2024-01-01-00-00-00.*\.ts)"));
    EXPECT_TRUE(m_out.HasLine(R"(\[INFO\]\[QN_STORAGE_QuotaCheck:\d+\] Quota\[0\] remove finsih 200B\|250B\|350B)"));
    EXPECT_FALSE(TEST_Exists(strFirst));
    EXPECT_FALSE(TEST_Exists(strSecond));
    EXPECT_TRUE(TEST_Exists(strThird));
    EXPECT_TRUE(TEST_Exists(strFourth));
    EXPECT_FALSE(IsFull());
}

TEST_F(Quota, AutoDeleteCountsEqualityAsFull)
{
    const std::string strOld = AddFile(1, 100);
    const std::string strNew = AddFile(2, 100);
    SetQuota(300, 100, true); // 300 - 200 is exactly the reserve
    EXPECT_EQ(0, Check());
    EXPECT_FALSE(TEST_Exists(strOld));
    EXPECT_TRUE(TEST_Exists(strNew));
}

TEST_F(Quota, AutoDeleteWithRoomDeletesNothingAndStillSaysThatItIsDone)
{
    const std::string strFile = AddFile(1, 100);
    SetQuota(300, 100, true);
    EXPECT_EQ(0, Check());
    const std::vector<std::string> vecExpected = {"Quota[0] quota:1 100B|200B|300B",
                                                  "Quota[0] remove finsih 100B|200B|300B"};
    EXPECT_EQ(vecExpected, LogTexts());
    EXPECT_TRUE(TEST_Exists(strFile));
}

TEST_F(Quota, AutoDeleteThatRunsOutOfFilesIsNotFull)
{
    const std::string strFile = AddFile(1, 100);
    SetQuota(50, 60, true);
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    EXPECT_EQ(0, Check());
    EXPECT_FALSE(TEST_Exists(strFile));
    EXPECT_TRUE(LoggedInfo("Quota[0] remove finsih 0B|17179869184.0GB|50B"));
    EXPECT_FALSE(IsFull());
}

TEST_F(Quota, MissingFolderIsEmpty)
{
    rmdir(Folder(0).c_str());
    SetQuota(100, 0, false);
    EXPECT_EQ(0, Check());
    EXPECT_FALSE(IsFull());
    SetQuota(100, 100, false);
    EXPECT_EQ(0, Check());
    EXPECT_TRUE(IsFull());
    SetQuota(100, 100, true);
    EXPECT_EQ(0, Check());
    EXPECT_TRUE(LoggedInfo("Quota[0] remove finsih 0B|0B|100B"));
    EXPECT_FALSE(IsFull());
}

TEST_F(Quota, FileThatCannotBeRemovedStillCountsAsFreed)
{
    const std::string strFirst = AddFile(1, 100);
    const std::string strSecond = AddFile(2, 100);
    SetQuota(150, 0, true);
    TEST_WithFailingCall(TEST_CALL_REMOVE, EPERM, [this] { EXPECT_EQ(0, Check()); });
    EXPECT_TRUE(LoggedInfo("Quota[0] remove " + strFirst));
    EXPECT_FALSE(LoggedInfo("Quota[0] remove " + strSecond));
    EXPECT_TRUE(LoggedInfo("Quota[0] remove finsih 100B|150B|150B"));
    EXPECT_TRUE(TEST_Exists(strFirst));
    EXPECT_TRUE(TEST_Exists(strSecond));
    EXPECT_FALSE(IsFull());
}

TEST_F(Quota, OnlyFilesWithATimeCountAndAreDeleted)
{
    const std::string strNotes = TEST_Touch(Folder(0) + "/notes.txt", std::string(500, 'x'));
    const std::string strFolder = Folder(0) + "/2020-01-01-00-00-00";
    mkdir(strFolder.c_str(), 0755);
    const std::string strOther = TEST_Touch(strFolder + "/2020-01-01-00-00-00.ts", std::string(500, 'x'));
    const std::string strTarget = TEST_Touch(m_dir.strPath + "/elsewhere", std::string(500, 'x'));
    ASSERT_EQ(0, symlink(strTarget.c_str(), (Folder(0) + "/2020-01-02-00-00-00.ts").c_str()));
    const std::string strPicture = TEST_Touch(Folder(0) + "/2024-01-01-00-00-00.jpg", std::string(10, 'x'));
    SetQuota(5, 0, true);
    EXPECT_EQ(0, Check());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("quota:1 10B|5B|5B"));
    EXPECT_FALSE(TEST_Exists(strPicture));
    for (const std::string &strPath : {strNotes, strOther, strTarget, Folder(0) + "/2020-01-02-00-00-00.ts"})
    {
        EXPECT_TRUE(TEST_Exists(strPath)) << strPath;
    }
}

TEST_F(Quota, VolumesHaveTheirOwnQuotas)
{
    const std::string strRec = AddFile(1, 100, 0);
    const std::string strPhoto = AddFile(1, 100, 1);
    SetQuota(50, 0, true, 0);
    SetQuota(50, 0, true, 1);
    EXPECT_EQ(0, Check(1));
    EXPECT_TRUE(TEST_Exists(strRec));
    EXPECT_FALSE(TEST_Exists(strPhoto));
}

TEST_F(Quota, FilesBeyond4GiBCountModulo32Bits)
{
    AddFile(1, uint64_t{5} << 30);
    AddFile(2, uint64_t{3} << 30);
    AddFile(3, uint64_t{3} << 30); // together above 2^32: the sum has 64 bits
    SetQuota(0xffffffffu, 0, false);
    EXPECT_EQ(0, Check());
    EXPECT_TRUE(LoggedInfo("Quota[0] quota:0 7.0GB|4.0GB|4.0GB"));
    EXPECT_TRUE(IsFull());
}

TEST_F(Quota, PercentageIsOfTheWholeFileSystemToTheByte)
{
    const uint64_t u64Total = static_cast<uint64_t>(QN_STORAGE_GetMountedTotalSize(m_strMount.c_str()));
    ASSERT_GT(u64Total, 0u);
    const uint64_t u64Quota = u64Total * 50 / 100;
    tagQN_VOLUME_PARAM_S &stVolume = m_pHandle->astVolume[0];
    SetQuota(1, 0, false); // the bytes do not count
    stVolume.u32QuotaType = 1;
    stVolume.u32QuotaPercent = 50;

    // Sizes count modulo 2^32, so the half is made of many files; one byte is missing.
    uint64_t u64Rest = u64Quota - 1;
    for (int32_t i = 0; u64Rest > 0; ++i)
    {
        const uint64_t u64Size = std::min<uint64_t>(u64Rest, 0xffffffffu);
        TEST_Sparse(Folder(0) + "/2024-01-01-00-00-00.[" + std::to_string(i) + "].ts", u64Size);
        u64Rest -= u64Size;
    }
    EXPECT_EQ(0, Check());
    EXPECT_FALSE(IsFull());
    const std::string strQuota = QN_STORAGE_PrettierSize(u64Quota);
    EXPECT_TRUE(
        LoggedInfo("Quota[0] quota:0 " + QN_STORAGE_PrettierSize(u64Quota - 1) + "|" + strQuota + "|" + strQuota));

    TEST_Sparse(Folder(0) + "/2024-01-01-00-00-00.[one more].ts", 1);
    EXPECT_EQ(0, Check());
    EXPECT_TRUE(IsFull());

    stVolume.u32QuotaType = 2; // any other type is a size
    FAKE_PLATFORM_Reset();
    EXPECT_EQ(0, Check());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("|1B|1B"));
}

TEST_F(Quota, PercentageOfAnUnknownFileSystemIsZero)
{
    m_pHandle->pszMountPoint = m_dir.strPath + "/missing";
    SetQuota(1, 0, false);
    m_pHandle->astVolume[0].u32QuotaType = 1;
    m_pHandle->astVolume[0].u32QuotaPercent = 100;
    EXPECT_EQ(0, Check());
    EXPECT_TRUE(LoggedInfo("Quota[0] quota:0 0B|0B|0B"));
    EXPECT_TRUE(IsFull());
    m_pHandle->pszMountPoint = m_strMount;
}

TEST_F(Quota, GetterSeesWhatACheckFound)
{
    SetQuota(1, 1, false);
    EXPECT_EQ(0, Check());
    QN_STORAGE_STATE_E enState = QN_STORAGE_STATE_E_NORMAL;
    EXPECT_EQ(0u, QN_GetStorageState(m_pHandle, &enState));
    EXPECT_EQ(QN_STORAGE_STATE_E_FULL, enState);
}
