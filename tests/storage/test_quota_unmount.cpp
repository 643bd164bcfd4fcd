// Quota against the rest of the handle: files that a session is writing are spared, an unmount finds no folder open,
// and a switch that is turned while a check runs counts.

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "storage/failing_calls.h"
#include "storage/storage_support.h"
#include "support/card.h"

using namespace libquarrin;

namespace
{

constexpr int32_t GRACE_MS = 200; // what an unmount that does not wait would need at most to be seen

// A back end that leaves a file of 1000 bytes.
void *OpenFile(tagQN_RECORD_PARAM_S * /*pstParam*/, const char *pszPath)
{
    TEST_Touch(pszPath, std::string(1000, 'x'));
    return new int32_t(0);
}

int32_t WriteNothing(void * /*pWriter*/, const unsigned char * /*pu8Data*/, uint32_t /*u32Len*/, uint64_t /*u64Pts*/,
                     bool /*bKey*/, bool /*bVideo*/)
{
    return 0;
}

int32_t CloseFile(void *pWriter)
{
    delete static_cast<int32_t *>(pWriter);
    return 0;
}

tagQN_MEDIA_API_S FileTable()
{
    tagQN_MEDIA_API_S stTable = {};
    stTable.pfnWriteOpen = OpenFile;
    stTable.pfnWriteFrame = WriteNothing;
    stTable.pfnWriteClose = CloseFile;
    return stTable;
}

class QuotaUnmount : public CARD_TEST
{
protected:
    void SetUp() override
    {
        CARD_TEST::SetUp();
        InitMounted();
        FAKE_PLATFORM_Reset();
    }

    /// Holds a check of volume 0 up in the middle of its listing: its warning about a name finds standard output full.
    void BlockCheckInListing()
    {
        FAKE_PLATFORM_Reset();
        WatchUnmount();
        TEST_Touch(Folder(0) + "/notes");
        m_upOut = std::make_unique<BLOCKED_STDOUT>();
        QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_QUOTA_THROTTLE, std::make_shared<QN_VOLUME_ID_E>(QN_VOLUME_ID_E_0));
        m_bListing = FAKE_PLATFORM_WaitLogged("notes not indexable") && !TEST_OpenBelow(m_strMount).empty();
    }

    /// Notes what umount would find of ours when its line is issued.
    void WatchUnmount()
    {
        FAKE_PLATFORM_OnCommand(
            [this](const std::string &strCommand)
            {
                if (strCommand.rfind("umount ", 0) == 0)
                {
                    m_s32OpenAtUnmount = static_cast<int32_t>(TEST_OpenBelow(m_strMount).size());
                }
                return 0;
            });
    }

    /// Runs fnUnmount beside the held-up check, and lets the check go on afterwards.
    void UnmountBeside(const std::function<void()> &fnUnmount)
    {
        std::thread host(fnUnmount);
        // An unmount that does not wait comes now, and finds the folder open.
        const bool bEarly = TEST_WaitFor([] { return FAKE_PLATFORM_CommandCount("umount") > 0; }, GRACE_MS);
        m_upOut->Release();
        host.join();
        m_upOut.reset();
        EXPECT_TRUE(m_bListing); // failures are printed only now that there is room for them
        EXPECT_FALSE(bEarly);
        EXPECT_EQ(1, FAKE_PLATFORM_CommandCount("umount " + m_strMount + "; rm -rf " + m_strMount));
        EXPECT_EQ(0, m_s32OpenAtUnmount.load());
    }

    /// A session that begins a file of 1000 bytes at once.
    tagQN_RECORD_HANDLER_S *StartSession()
    {
        tagQN_RECORD_PARAM_S stParam = {};
        stParam.enFormat = QN_FILE_FMT_E_TS;
        tagQN_RECORD_HANDLER_S *pSession = nullptr;
        EXPECT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
        pSession->pstMediaApi = &m_stTable;
        EXPECT_EQ(0u, QN_RecordStart(pSession, "door"));
        return pSession;
    }

    std::atomic<int32_t> m_s32OpenAtUnmount{-1};
    std::unique_ptr<BLOCKED_STDOUT> m_upOut;
    bool m_bListing = false;
    tagQN_MEDIA_API_S m_stTable = FileTable();
};

} // namespace

TEST_F(QuotaUnmount, HostsUnmountWaitsForTheListingOfACheck)
{
    BlockCheckInListing();
    UnmountBeside([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); });
    EXPECT_EQ(QN_STATE_E_UNMOUNTED, m_pHandle->enState.load());
}

TEST_F(QuotaUnmount, UnmountOfTheEndWaitsForTheListingOfACheck)
{
    BlockCheckInListing();
    UnmountBeside([this] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
    EXPECT_EQ(nullptr, m_pHandle);
}

TEST_F(QuotaUnmount, UnmountWaitsForTheFoldersThatAMountMakes)
{
    FAKE_PLATFORM_Reset();
    FAKE_PLATFORM_Stall("mkdir -p");
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_MOUNT_DONE, nullptr);
    ASSERT_TRUE(FAKE_PLATFORM_WaitStalled());
    std::thread host([this] { EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle)); });
    EXPECT_FALSE(TEST_WaitFor([] { return FAKE_PLATFORM_CommandCount("umount") > 0; }, GRACE_MS));
    FAKE_PLATFORM_Release();
    host.join();
    const std::vector<std::string> vecExpected = {"mkdir -p " + Folder(0), "mkdir -p " + Folder(1),
                                                  "mkdir -p " + Folder(2),
                                                  "umount " + m_strMount + "; rm -rf " + m_strMount};
    EXPECT_EQ(vecExpected, FAKE_PLATFORM_Commands());
}

TEST_F(QuotaUnmount, UnmountRightAfterASessionFindsNothingOpen)
{
    for (int32_t i = 0; i < 500; ++i)
    {
        TEST_Touch(Folder(0) + "/" + QN_STORAGE_PrettierTime(i) + ".ts"); // the check takes its time
    }
    const STDOUT_CAPTURE out;
    for (int32_t i = 0; i < 20; ++i)
    {
        FAKE_PLATFORM_Reset();
        WatchUnmount();
        m_s32OpenAtUnmount = -1;
        tagQN_RECORD_HANDLER_S *pSession = StartSession();
        EXPECT_EQ(0u, QN_RecordDestroy(pSession)); // posts a check
        EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
        EXPECT_EQ(0, m_s32OpenAtUnmount.load());
        ASSERT_TRUE(WaitForIdle());
        m_pHandle->as32QuotaCountdown[0] = 0; // the next one checks too
        ASSERT_EQ(0u, QN_StorageMount(m_pHandle));
    }
}

TEST_F(QuotaUnmount, FileThatASessionIsWritingIsNeverDeleted)
{
    const std::string strOld = TEST_Touch(Folder(0) + "/2024-01-01-00-00-00.ts", std::string(100, 'x'));
    const STDOUT_CAPTURE out;
    tagQN_RECORD_HANDLER_S *pSession = StartSession();
    const std::string strWriting = pSession->strFilePath;
    ASSERT_TRUE(TEST_Exists(strWriting));
    m_pHandle->astVolume[0].u32QuotaBytes = 500;
    m_pHandle->astVolume[0].bAutoDelete = true;
    FAKE_PLATFORM_Reset();
    EXPECT_EQ(0, QN_STORAGE_QuotaCheck(m_pHandle, QN_VOLUME_ID_E_0));
    EXPECT_TRUE(TEST_Exists(strWriting));
    EXPECT_FALSE(TEST_Exists(strOld));
    EXPECT_FALSE(FAKE_PLATFORM_Logged("remove " + strWriting));
    EXPECT_TRUE(FAKE_PLATFORM_Logged("Quota[0] quota:1 1.1KB|500B|500B")); // it counts as used
    EXPECT_TRUE(FAKE_PLATFORM_Logged("Quota[0] remove finsih 1000B|500B|500B"));
    EXPECT_EQ(QN_STORAGE_STATE_E_NORMAL, m_pHandle->enStorageState.load());

    // Once the recording is finished its file is one of many.
    pthread_mutex_lock(&pSession->stMutex);
    pSession->tFileStart -= 60;
    pthread_mutex_unlock(&pSession->stMutex);
    m_pHandle->as32QuotaCountdown[0] = 100; // not by the check that the end of the session posts
    m_pHandle->astQuotaLastCheck[0].tv_sec = time(nullptr);
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    ASSERT_TRUE(WaitForIdle());
    ASSERT_EQ(1u, TEST_List(Folder(0)).size());
    EXPECT_EQ(0, QN_STORAGE_QuotaCheck(m_pHandle, QN_VOLUME_ID_E_0));
    EXPECT_TRUE(TEST_List(Folder(0)).empty());
}

TEST_F(QuotaUnmount, OlderFileOfASessionIsSparedWhileYoungerOnesGo)
{
    const STDOUT_CAPTURE out;
    tagQN_RECORD_HANDLER_S *pSession = StartSession();
    const std::string strWriting = pSession->strFilePath;
    const std::string strYoung = TEST_Touch(Folder(0) + "/2090-01-01-00-00-00.ts", std::string(100, 'x'));
    m_pHandle->astVolume[0].u32QuotaBytes = 1050;
    EXPECT_EQ(0, QN_STORAGE_QuotaCheck(m_pHandle, QN_VOLUME_ID_E_0));
    EXPECT_TRUE(TEST_Exists(strWriting));
    EXPECT_FALSE(TEST_Exists(strYoung));
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}

TEST_F(QuotaUnmount, DeletionSwitchedOnWhileACheckRunsEndsTheFullState)
{
    m_pHandle->astVolume[0].u32QuotaBytes = 0;
    m_pHandle->astVolume[0].bAutoDelete = false;
    EXPECT_EQ(0, QN_STORAGE_QuotaCheck(m_pHandle, QN_VOLUME_ID_E_0));
    ASSERT_EQ(QN_STORAGE_STATE_E_FULL, m_pHandle->enStorageState.load());
    m_pHandle->as32QuotaCountdown[0] = 0;
    BlockCheckInListing();
    const uint32_t u32Result = QN_RecordStorageUpdate(m_pHandle, QN_VOLUME_ID_E_0, 1); // posts nothing: it was full
    m_upOut->Release();
    EXPECT_TRUE(WaitForIdle());
    m_upOut.reset();
    EXPECT_TRUE(m_bListing);
    EXPECT_EQ(0u, u32Result);
    EXPECT_EQ(QN_STORAGE_STATE_E_NORMAL, m_pHandle->enStorageState.load());
}

TEST_F(QuotaUnmount, NameThatIsBeingDeletedIsNotGivenToAStart)
{
    const STDOUT_CAPTURE out;
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = QN_FILE_FMT_E_TS;
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    ASSERT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
    pSession->pstMediaApi = &m_stTable;
    m_pHandle->astVolume[0].u32QuotaBytes = 0;
    m_pHandle->astVolume[0].bAutoDelete = true;
    std::thread host;
    const auto fnStart = [&](const std::string & /*strPath*/)
    {
        if (host.joinable())
        {
            return; // the next one: the start may wait for this name
        }
        host = std::thread([pSession] { EXPECT_EQ(0u, QN_RecordStart(pSession, "door")); });
        // Whoever does not wait has its file within this time.
        TEST_WaitFor([pSession] { return pSession->enRecordState.load() == QN_RECORD_STATE_WAIT_KEY; }, GRACE_MS);
    };
    // What a power cut left, under the names of this second and the next ones.
    const time_t tNow = time(nullptr);
    for (int32_t i = 0; i < 5; ++i)
    {
        TEST_Touch(QN_STORAGE_GenerateRecordingFile(m_strMount.c_str(), "rec", tNow + i, "door", "ts"), "old");
    }
    TEST_BeforeRemove(fnStart, [this] { EXPECT_EQ(0, QN_STORAGE_QuotaCheck(m_pHandle, QN_VOLUME_ID_E_0)); });
    host.join();
    EXPECT_EQ(1000u, TEST_ReadFile(pSession->strFilePath).size()) << "the check deleted a recording that had begun";
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}
