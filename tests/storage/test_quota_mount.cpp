// Quota and the life of the card: what a check found on one card, or on no card at all, does not outlive a mount.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "storage/quota_test.h"

using namespace libquarrin;

namespace
{

using STRINGS = std::vector<std::string>;

class QuotaMount : public QUOTA_TEST
{
protected:
    void SetUp() override
    {
        CARD_TEST::SetUp();
        InitMounted();
        SetPercent(90, false);
        FAKE_PLATFORM_Reset();
        FAKE_PLATFORM_OnCommand([this](const std::string &strCommand) { return Run(strCommand); });
    }

    void TearDown() override
    {
        CARD_TEST::TearDown();
        FAKE_PLATFORM_OnCommand(nullptr);
    }

    /// What a command does to the mount directory, and the folders below it.
    int32_t Run(const std::string &strCommand) const
    {
        const std::string strMake = "mkdir -p ";
        std::error_code error;
        if (strCommand.rfind("umount ", 0) == 0)
        {
            std::filesystem::remove_all(m_strMount, error);
        }
        else if (strCommand.rfind(strMake, 0) == 0)
        {
            const std::string strPath = strCommand.substr(strMake.size());
            std::filesystem::create_directories(strPath.substr(0, strPath.find(';')), error);
        }
        return error ? 1 : 0;
    }

    void SetPercent(uint32_t u32Percent, bool bAutoDelete, int32_t s32Volume = 0)
    {
        SetQuota(1, 0, bAutoDelete, s32Volume);
        m_pHandle->astVolume[s32Volume].u32QuotaType = 1;
        m_pHandle->astVolume[s32Volume].u32QuotaPercent = u32Percent;
    }

    void Push(QN_EVENT_E enEvent, std::shared_ptr<void> spPayload = nullptr)
    {
        QN_EVENT_PushEvent(m_pHandle, enEvent, std::move(spPayload));
    }

    /// Whatever the handlers posted is handled too.
    bool Settle()
    {
        return WaitForIdle() && WaitForIdle();
    }

    /// The volumes that were checked, in order.
    std::string Checked() const
    {
        std::string strVolumes;
        for (const std::string &strText : LogTexts())
        {
            if (strText.find("] quota:") != std::string::npos)
            {
                strVolumes += strText[strText.find('[') + 1];
            }
        }
        return strVolumes;
    }
};

} // namespace

TEST_F(QuotaMount, CheckBehindAnUnmountDoesNotLeaveTheNextSessionsWithoutFrames)
{
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = QN_FILE_FMT_E_TS;
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    ASSERT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
    EXPECT_EQ(0u, QN_RecordDestroy(pSession)); // posts a check
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
    Push(QN_EVENT_E_QUOTA_UPDATE, std::make_shared<QN_VOLUME_ID_E>(QN_VOLUME_ID_E_0)); // one that surely comes too late
    ASSERT_TRUE(Settle());
    EXPECT_TRUE(LoggedInfo("Quota[0] quota:0 0B|0B|0B")) << "it runs, and says what it finds";
    EXPECT_TRUE(IsFull());
    EXPECT_EQ(0u, QN_StorageMount(m_pHandle));
    ASSERT_TRUE(Settle());
    EXPECT_FALSE(IsFull());
}

TEST_F(QuotaMount, FullCardThatIsExchangedForAnEmptyOneIsForgotten)
{
    AddFile(1, 2000);
    SetQuota(1000, 0, false);
    EXPECT_EQ(0, Check());
    ASSERT_TRUE(IsFull());
    Push(QN_EVENT_E_HOTPLUG_OUT); // the line takes the folder away
    Push(QN_EVENT_E_HOTPLUG_IN);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(QN_STATE_E_MOUNTED, m_pHandle->enState.load());
    EXPECT_FALSE(IsFull());
}

TEST_F(QuotaMount, FullCardThatComesBackIsFull)
{
    SetQuota(1000, 0, false);
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    AddFile(1, 2000);
    Push(QN_EVENT_E_HOTPLUG_IN);
    ASSERT_TRUE(Settle());
    EXPECT_EQ("210", Checked());
    EXPECT_TRUE(IsFull());
}

TEST_F(QuotaMount, ChecksEachEnabledVolumeBehindTheFoldersAndTheRecordedOneLast)
{
    m_pHandle->astVolume[1].bEnable = 0;
    SetQuota(1000, 1000, false, 2); // full, whatever is there
    SetQuota(1000, 0, false, 0);
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    m_pHandle->as32QuotaCountdown[0] = 40;
    m_pHandle->astQuotaLastCheck[0] = {1000, 7};
    std::string strAtFolders = "none";
    FAKE_PLATFORM_OnCommand(
        [&](const std::string &strCommand)
        {
            strAtFolders = Checked();
            return Run(strCommand);
        });
    Push(QN_EVENT_E_MOUNT_DONE);
    ASSERT_TRUE(Settle());
    FAKE_PLATFORM_OnCommand(nullptr);
    EXPECT_EQ("", strAtFolders);
    EXPECT_EQ("20", Checked());
    EXPECT_FALSE(IsFull()); // as volume 0 has it
    EXPECT_EQ((STRINGS{"mkdir -p " + Folder(0), "mkdir -p " + Folder(2)}), FAKE_PLATFORM_Commands());
    EXPECT_EQ(40, m_pHandle->as32QuotaCountdown[0]); // the throttle is not asked
    EXPECT_EQ(0, m_pHandle->astQuotaLastCheck[0].tv_sec);
}

TEST_F(QuotaMount, BringsNoCheckWhileThereIsRoom)
{
    Push(QN_EVENT_E_MOUNT_DONE);
    ASSERT_TRUE(Settle());
    EXPECT_EQ("", Checked());
}

TEST_F(QuotaMount, OvertakenByAnUnmountBringsNoCheck)
{
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
    Push(QN_EVENT_E_MOUNT_DONE); // of the mount before
    ASSERT_TRUE(Settle());
    EXPECT_EQ("", Checked());
    EXPECT_TRUE(IsFull()); // until the next mount

    EXPECT_EQ(0u, QN_StorageMount(m_pHandle));
    ASSERT_TRUE(Settle());
    EXPECT_EQ("210", Checked());
    EXPECT_FALSE(IsFull());
}
