// A card that is really full: with automatic deletion, without it, and with room that the file system only believes in.

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "pump.h"
#include "rig.h"
#include "support/card.h"

using namespace libquarrin;

namespace
{

constexpr int64_t MIB = 1024 * 1024;
constexpr size_t OLD_FILE_BYTES = 512 * 1024;

class CardFull : public CARD_REAL
{
protected:
    static CARD_PARAM_S Small()
    {
        CARD_PARAM_S stParam;
        stParam.s64Bytes = 16 * MIB;
        return stParam;
    }

    // The mounted card with a session that records. The quota is a half of the card.
    void Begin(bool bAutoDelete)
    {
        m_upRig = std::make_unique<CARD_RIG>(Small());
        m_upRig->stParam.astVolume[0].u32QuotaPercent = 50;
        m_upRig->stParam.astVolume[0].u32ReserveBytes = static_cast<uint32_t>(MIB);
        m_upRig->stParam.astVolume[0].bAutoDelete = bAutoDelete;
        m_upRig->Init();
        ASSERT_TRUE(m_upRig->WaitListening());
        ASSERT_TRUE(m_upRig->InMounted());
        m_upPump = std::make_unique<PUMP>(m_upRig->pHandle, QN_FILE_FMT_E_MKV, true, "new");
        ASSERT_EQ(0u, m_upPump->Start());
        ASSERT_TRUE(m_upPump->WaitWritten(10));
        pthread_mutex_lock(&m_upPump->pSession->stMutex);
        m_strInProgress = m_upPump->pSession->strFilePath;
        pthread_mutex_unlock(&m_upPump->pSession->stMutex);
    }

    // The n-th of the older recordings: the first four from before today, the others from after, so that the file in
    // progress stands in the middle of the list.
    std::string OldFile(int32_t i) const
    {
        char szName[96];
        snprintf(szName, sizeof(szName), "/%d-01-01-00-00-%02d.To.%d-01-01-00-05-00.[old].mkv", i < 4 ? 2010 : 2100, i,
                 i < 4 ? 2010 : 2100);
        return m_upRig->Folder() + szName;
    }

    // Writes older recordings until the card takes no byte more; their number.
    int32_t Fill() const
    {
        const std::string strData(OLD_FILE_BYTES, 'o');
        for (int32_t i = 0; i < 60; ++i)
        {
            const int s32Fd = open(OldFile(i).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            size_t uDone = 0;
            while (s32Fd >= 0 && uDone < strData.size())
            {
                const ssize_t sNow = write(s32Fd, strData.data() + uDone, strData.size() - uDone);
                if (sNow <= 0)
                {
                    break;
                }
                uDone += static_cast<size_t>(sNow);
            }
            if (s32Fd >= 0)
            {
                close(s32Fd);
            }
            if (uDone < strData.size())
            {
                return s32Fd >= 0 ? i + 1 : i;
            }
        }
        return 0;
    }

    uint64_t FreeBytes() const
    {
        struct statvfs stVfs = {};
        (void)statvfs(m_upRig->card.MountDir().c_str(), &stVfs);
        return static_cast<uint64_t>(stVfs.f_bfree) * stVfs.f_bsize;
    }

    // The older recordings that are still there, as their numbers.
    std::vector<int32_t> OldLeft(int32_t s32Files) const
    {
        std::vector<int32_t> vecLeft;
        for (int32_t i = 0; i < s32Files; ++i)
        {
            if (TEST_Exists(OldFile(i)))
            {
                vecLeft.push_back(i);
            }
        }
        return vecLeft;
    }

    // The oldest are gone, in order, and not more than was needed.
    void CheckDeleted(int32_t s32Files) const
    {
        const std::vector<int32_t> vecLeft = OldLeft(s32Files);
        ASSERT_FALSE(vecLeft.empty());
        EXPECT_GT(vecLeft.front(), 4); // beyond the file in progress
        for (size_t i = 1; i < vecLeft.size(); ++i)
        {
            EXPECT_EQ(vecLeft[i - 1] + 1, vecLeft[i]);
        }
        const int64_t s64Quota = QN_STORAGE_GetMountedTotalSize(m_upRig->card.MountDir().c_str()) / 2;
        int64_t s64Old = 0;
        for (const int32_t i : vecLeft)
        {
            s64Old += static_cast<int64_t>(TEST_ReadFile(OldFile(i)).size()); // the last one is cut short
        }
        EXPECT_LT(s64Old, s64Quota - MIB);
        EXPECT_GT(s64Old, s64Quota - MIB - 2 * MIB);
    }

    // Two splits: what is recorded between them is whole.
    void RecordWhole()
    {
        ASSERT_TRUE(m_upPump->WaitWritten(5));
        ASSERT_NE("", m_upPump->Split());
        ASSERT_TRUE(m_upPump->WaitWritten(40));
        const std::string strKey = m_upPump->Split();
        ASSERT_NE("", strKey);
        std::string strPath;
        ASSERT_TRUE(TEST_WaitFor(
            [&]
            {
                for (const std::string &strFinished : m_upRig->Finished())
                {
                    strPath = strFinished.find("/" + strKey) != std::string::npos ? strFinished : strPath;
                }
                return !strPath.empty();
            },
            RIG_WAIT_MS));
        // A file that is split off in the second of its name has its final name before its trailer.
        ASSERT_TRUE(m_upRig->WaitIdle());
        EXPECT_EQ("", PUMP::WhatIsWrong(strPath));
    }

    // Writes out what the kernel holds back for the card; an error is what some tests are about.
    static void SyncCard(const CARD_RIG &rig)
    {
        const int s32Dir = open(rig.card.MountDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        (void)syncfs(s32Dir);
        close(s32Dir);
    }

    bool IsInProgressThere() const
    {
        return TEST_Exists(m_strInProgress);
    }

    std::unique_ptr<CARD_RIG> m_upRig; ///< outlives the pump
    std::unique_ptr<PUMP> m_upPump;
    std::string m_strInProgress;
};

} // namespace

TEST_F(CardFull, OldestGoButNeverTheFileThatIsWritten)
{
    ASSERT_NO_FATAL_FAILURE(Begin(true));
    const int32_t s32Files = Fill();
    ASSERT_GT(s32Files, 20);
    ASSERT_TRUE(TEST_WaitFor([&] { return static_cast<int32_t>(OldLeft(s32Files).size()) < s32Files; }, RIG_WAIT_MS));
    ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("remove finsih", RIG_WAIT_MS));
    ASSERT_TRUE(m_upRig->WaitIdle());
    EXPECT_TRUE(IsInProgressThere());
    EXPECT_FALSE(FAKE_PLATFORM_Logged("remove " + m_strInProgress));
    CheckDeleted(s32Files);
    EXPECT_EQ(QN_STORAGE_STATE_E_NORMAL, m_upRig->pHandle->enStorageState.load());
    EXPECT_GT(FreeBytes(), static_cast<uint64_t>(4 * MIB));
    ASSERT_NO_FATAL_FAILURE(RecordWhole());
    m_upPump->Stop();
}

TEST_F(CardFull, RecordingStartedOnAFullCardMakesRoomForItself)
{
    ASSERT_NO_FATAL_FAILURE(Begin(true));
    m_upPump->Stop();
    const int32_t s32Files = Fill();
    ASSERT_GT(s32Files, 20);
    ASSERT_LT(FreeBytes(), static_cast<uint64_t>(MIB));
    ASSERT_EQ(0u, QN_RecordStorageUpdate(m_upRig->pHandle, QN_VOLUME_ID_E_0, 1)); // as a host does before it starts
    ASSERT_TRUE(m_upRig->WaitIdle());
    ASSERT_EQ(0u, m_upPump->Start());
    ASSERT_NO_FATAL_FAILURE(RecordWhole());
    m_upPump->Stop();
    CheckDeleted(s32Files);
}

TEST_F(CardFull, WithoutDeletionFramesAreDroppedUntilTheHostAllowsIt)
{
    ASSERT_NO_FATAL_FAILURE(Begin(false));
    const int32_t s32Files = Fill();
    ASSERT_GT(s32Files, 20);
    ASSERT_TRUE(TEST_WaitFor([this] { return m_upRig->pHandle->enStorageState.load() == QN_STORAGE_STATE_E_FULL; },
                             RIG_WAIT_MS));
    QN_STORAGE_STATE_E enState = QN_STORAGE_STATE_E_NORMAL;
    EXPECT_EQ(0u, QN_GetStorageState(m_upRig->pHandle, &enState));
    EXPECT_EQ(QN_STORAGE_STATE_E_FULL, enState);
    ASSERT_TRUE(m_upRig->WaitIdle());
    const int64_t s64Written = m_upPump->Written();
    const int64_t s64Bytes = QN_REcordGetWriteBytes(m_upPump->pSession);
    TEST_SleepMs(200); // a hundred frames; nothing may happen, so there is nothing to wait for
    EXPECT_EQ(s64Written, m_upPump->Written());
    EXPECT_EQ(s64Bytes, QN_REcordGetWriteBytes(m_upPump->pSession));
    EXPECT_EQ(s32Files, static_cast<int32_t>(OldLeft(s32Files).size()));

    ASSERT_EQ(0u, QN_RecordStorageUpdate(m_upRig->pHandle, QN_VOLUME_ID_E_0, 1));
    ASSERT_TRUE(m_upPump->WaitWritten(1));
    ASSERT_TRUE(FAKE_PLATFORM_WaitLogged("remove finsih", RIG_WAIT_MS)); // the next check of the throttle
    ASSERT_TRUE(m_upRig->WaitIdle());
    EXPECT_TRUE(IsInProgressThere());
    CheckDeleted(s32Files);
    ASSERT_NO_FATAL_FAILURE(RecordWhole());
    m_upPump->Stop();
}

TEST_F(CardFull, RoomThatTheFileSystemOnlyBelievesInEndsNothingButTheFile)
{
    CARD_PARAM_S stParam;
    stParam.s64ThinBytes = 16 * MIB; // of 64
    CARD_RIG rig(stParam);
    rig.Init();
    ASSERT_TRUE(rig.WaitListening());
    ASSERT_TRUE(rig.InMounted());
    const std::string strKept = rig.Folder() + "/2010-01-01-00-00-00.To.2010-01-01-00-05-00.mkv";
    TEST_Touch(strKept, std::string(MIB, 'k'));
    SyncCard(rig);
    PUMP pump(rig.pHandle, QN_FILE_FMT_E_TS, true, "thin");
    ASSERT_EQ(0u, pump.Start());
    ASSERT_TRUE(pump.WaitWritten(20));
    TEST_Touch(rig.card.MountDir() + "/ballast", std::string(32 * MIB, 'b'));
    SyncCard(rig); // now the card finds out
    ASSERT_NE("", pump.Split());
    ASSERT_TRUE(pump.WaitWritten(20));
    pump.Stop();
    ASSERT_TRUE(rig.card.Grow(128 * MIB));
    ASSERT_TRUE(rig.card.Out(CARD_PULL_CUT));
    ASSERT_TRUE(rig.WaitFor(QN_STATE_E_UNPLUGIN));
    ASSERT_TRUE(rig.InMounted());
    EXPECT_EQ(std::string(MIB, 'k'), TEST_ReadFile(strKept));
    pump.Stop(); // marked by the pull
    ASSERT_EQ(0u, pump.Start());
    ASSERT_TRUE(pump.WaitWritten(20));
    const std::string strKey = pump.Split();
    ASSERT_TRUE(TEST_WaitFor(
        [&]
        {
            const std::vector<std::string> vecFiles = rig.Finished();
            return std::any_of(vecFiles.begin(), vecFiles.end(),
                               [&strKey](const std::string &strPath)
                               { return strPath.find("/" + strKey) != std::string::npos; });
        },
        RIG_WAIT_MS));
    pump.Stop();
}
