// Every system call of a recording fails once: the first, the second, the third, until a run passes untouched. With a
// quota in bytes, and with one in per cent; both delete.

#include <cerrno>
#include <functional>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "card/sim/faults.h"
#include "session.h"
#include "support/process.h"
#include "verdict.h"
#include "virtual_clock.h"

using namespace libquarrin;

static constexpr int64_t NOON = 1700049600;
static constexpr uint32_t KEPT_PICTURES = 50;
static constexpr int32_t MOST_CALLS = 2000; // a loop that does not end is a failure of the test's own

/// One kind of call, what it fails with, and whether the calls behind it fail as well.
struct KIND_S
{
    const char *pszName;
    FAULT_CALL_E enCall;
    int32_t s32Errno;
    int32_t s32Times;  ///< -1: all from there on
    bool bFramesMayGo; ///< data or the file itself is refused
};

class NthFailure : public RELIABILITY_TEST, public ::testing::WithParamInterface<KIND_S>
{
protected:
    void SetUp() override
    {
        RELIABILITY_TEST::SetUp();
        FAKE_PLATFORM_OnCommand([this](const std::string &strLine) { return MakeFolder(strLine); });
    }

    void TearDown() override
    {
        FAKE_PLATFORM_Reset(); // the commands of the next test are not this one's
        RELIABILITY_TEST::TearDown();
    }

    /// Record, split, stop, list, replay, destroy: sixty pictures in two files and a third that is too short to be
    /// kept.
    void RunOnce(QN_FILE_FMT_E enFormat)
    {
        CLOCK_Set((NOON + 100 * ++m_s32Runs) * 1000);
        if (QN_Init(&m_stParam, m_pHandle) != 0)
        {
            return;
        }
        WaitForState(QN_STATE_E_MOUNTED);
        FED_S stFed = Make(enFormat, 6);
        if (QN_RecordStart(stFed.pSession, nullptr) == 0)
        {
            WriteOnClock(stFed, 25);
            CLOCK_Step(6000); // the next key frame splits
            WriteOnClock(stFed, 25);
            CLOCK_Step(6000);
            WriteOnClock(stFed, 10);
        }
        Stop(stFed);
        EXPECT_TRUE(WaitForIdle());
        ReplayAll();
        EXPECT_EQ(0u, QN_Destroy(m_pHandle));
        m_pHandle = nullptr;
    }

    /// The library's folders are made by lines of the shell: here by the call that such a line comes down to.
    int32_t MakeFolder(const std::string &strLine) const
    {
        const std::string strMake = "mkdir -p ";
        if (strLine.rfind(strMake + m_strMount + "/", 0) != 0)
        {
            return 0;
        }
        return mkdir(strLine.substr(strMake.size()).c_str(), 0755) == 0 || errno == EEXIST ? 0 : 1;
    }

    void ReplayAll()
    {
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        QN_STORAGE_ScanFolder(Folder(0).c_str(), vecFiles);
        for (const tagQN_FILE_INFO_S &stFile : vecFiles)
        {
            tagQN_REPLAY_PARAM_S stParam = {};
            tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
            if (QN_ReplayOpenByFilePath(m_pHandle, stFile.strPath, stParam, pReplay) != 0)
            {
                continue;
            }
            uint8_t *pu8Data = nullptr;
            uint32_t u32Size = 0;
            uint64_t u64Pts = 0;
            bool bKey = false;
            bool bVideo = false;
            while (QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo) == 0)
            {
                EXPECT_EQ(0u, QN_ReplayFreeFrame(pReplay, pu8Data));
            }
            QN_ReplayClose(pReplay);
        }
    }

    /// Takes away what a run left; the older recording stays. Pictures in what was there.
    uint32_t CountAndClear(const std::string &strKeep)
    {
        uint32_t u32Found = 0;
        for (const std::string &strName : TEST_List(Folder(0)))
        {
            if (strName != strKeep)
            {
                const TEST_MEDIA_S stMedia = TEST_ReadMedia(Folder(0) + "/" + strName, false);
                u32Found += static_cast<uint32_t>(stMedia.vecPackets.size());
                EXPECT_EQ(0, remove((Folder(0) + "/" + strName).c_str()));
            }
        }
        return u32Found;
    }

    /// Gives the volume a part of the file system, most of which is free.
    void SetPercent(bool bPercent)
    {
        m_stParam.astVolume[0].u32QuotaType = bPercent ? 1 : 0;
        m_stParam.astVolume[0].u32QuotaPercent = 95;
        m_stParam.astVolume[0].bAutoDelete = true;
    }

    /// The loop of one container and one kind of quota.
    void RunUntilUntouched(const KIND_S &stKind, QN_FILE_FMT_E enFormat, bool bPercent)
    {
        SetPercent(bPercent);
        RunOnce(enFormat); // FFmpeg and the C library keep what they make on the first use
        CountAndClear(KEEP);
        const int32_t s32Descriptors = PROCESS_DescriptorCount();
        const int32_t s32Threads = PROCESS_ThreadCount();
        int32_t s32Touched = 1;
        int32_t s32Nth = 0;
        while (s32Touched > 0 && s32Nth < MOST_CALLS && !HasFailure())
        {
            SCOPED_TRACE(std::string(stKind.pszName) + " number " + std::to_string(++s32Nth) + " fails" +
                         (bPercent ? ", quota in per cent" : ""));
            FAULTS_Begin(m_strMount.c_str());
            const FAULT_S stFault = {s32Nth, stKind.s32Times, stKind.s32Errno, 0};
            FAULTS_Set(stKind.enCall, &stFault);
            RunOnce(enFormat);
            s32Touched = FAULTS_Touched(stKind.enCall);
            FAULTS_Begin(nullptr);
            EXPECT_EQ(m_strBytes, TEST_ReadFile(Folder(0) + "/" + KEEP));
            const uint32_t u32Found = CountAndClear(KEEP);
            if (!stKind.bFramesMayGo || s32Touched == 0)
            {
                EXPECT_GE(u32Found, KEPT_PICTURES);
            }
            EXPECT_TRUE(TEST_WaitFor([s32Threads] { return PROCESS_ThreadCount() <= s32Threads; }));
            EXPECT_EQ(s32Descriptors, PROCESS_DescriptorCount());
        }
        EXPECT_EQ(0, s32Touched);
        EXPECT_GT(s32Nth, 1) << "no such call was made";
        FIGURES_Say("%s, %s, quota in %s: %d runs until one passed untouched", stKind.pszName,
                    QN_STORAGE_FmtType2FileExt(enFormat), bPercent ? "per cent" : "bytes", s32Nth);
    }

    static constexpr const char *KEEP = "2020-01-01-00-00-00.To.2020-01-01-00-01-00.mkv"; // an earlier recording
    const std::string m_strBytes = std::string(5000, 'k');
    int32_t m_s32Runs = 0;
};

TEST_P(NthFailure, LeavesNothingBehindAndHarmsNoEarlierRecording)
{
    const PROCESS_LIMIT limit(300);
    const KIND_S &stKind = GetParam();
    InitMounted();
    EXPECT_EQ(0u, QN_Destroy(m_pHandle));
    m_pHandle = nullptr;
    TEST_Touch(Folder(0) + "/" + KEEP, m_strBytes);
    for (const QN_FILE_FMT_E enFormat : {QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_MP4})
    {
        RunUntilUntouched(stKind, enFormat, false);
        RunUntilUntouched(stKind, enFormat, true);
    }
}

INSTANTIATE_TEST_SUITE_P(Each, NthFailure,
                         ::testing::Values(KIND_S{"open", FAULT_CALL_OPEN, EIO, 1, true},
                                           KIND_S{"write", FAULT_CALL_WRITE, EIO, 1, true},
                                           KIND_S{"writeFull", FAULT_CALL_WRITE, ENOSPC, -1, true},
                                           KIND_S{"rename", FAULT_CALL_RENAME, EIO, 1, false},
                                           KIND_S{"renameAll", FAULT_CALL_RENAME, EROFS, -1, false},
                                           KIND_S{"unlink", FAULT_CALL_UNLINK, EIO, 1, false},
                                           KIND_S{"statfs", FAULT_CALL_STATFS, EIO, 1, false},
                                           KIND_S{"statfsAll", FAULT_CALL_STATFS, EIO, -1, false},
                                           KIND_S{"mkdir", FAULT_CALL_MKDIR, ENOSPC, 1, false}),
                         [](const auto &stInfo) { return std::string(stInfo.param.pszName); });
