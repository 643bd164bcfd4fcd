// Sessions that get H.265 key frames with damaged parameter sets, with the real back end.

#include "session_fixture.h"

#include <algorithm>

extern "C"
{
#include <libavutil/log.h>
}

#include "support/h265_sets.h"

using namespace libquarrin;

class DamagedSets : public SESSION_TEST, public ::testing::WithParamInterface<int32_t>
{
protected:
    void SetUp() override
    {
        SESSION_TEST::SetUp();
        av_log_set_level(AV_LOG_QUIET);
    }

    void TearDown() override
    {
        av_log_set_level(AV_LOG_INFO);
        SESSION_TEST::TearDown();
    }

    static const std::vector<TEST_FRAME_S> &Pictures()
    {
        return TEST_EncodeH265(64, 64, 25, 4, 8);
    }

    tagQN_RECORD_HANDLER_S *StartReal(bool bAudio = false)
    {
        tagQN_RECORD_PARAM_S stParam = {};
        stParam.enFormat = static_cast<QN_FILE_FMT_E>(GetParam());
        stParam.stVideo = TEST_VideoParam(QN_CODEC_H265, Pictures());
        if (bAudio)
        {
            stParam.stAudio = TEST_AudioParam();
        }
        stParam.bAutoSplit = 1;
        stParam.u32SplitSeconds = 60;
        tagQN_RECORD_HANDLER_S *pSession = nullptr;
        EXPECT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
        EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr));
        FAKE_PLATFORM_Reset();
        return pSession;
    }

    void Hand(tagQN_RECORD_HANDLER_S *pSession, const TEST_FRAME_S &stFrame, bool bVideo = true)
    {
        std::vector<uint8_t> vecData = stFrame.vecData;
        EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, vecData.data(), static_cast<uint32_t>(vecData.size()), m_u64Pts,
                                          stFrame.bKey ? 1 : 0, bVideo ? 1 : 0));
        m_u64Pts += 40;
    }

    // A group of pictures, its key frame damaged or not.
    void HandGroup(tagQN_RECORD_HANDLER_S *pSession, bool bDamaged)
    {
        Hand(pSession, bDamaged ? H265_WithSps(Pictures()[0], H265_CutSps()) : Pictures()[0]);
        for (size_t i = 1; i < 4; ++i)
        {
            Hand(pSession, Pictures()[i]);
        }
    }

    static size_t Warnings()
    {
        const std::vector<FAKE_LOG_S> vecLogs = FAKE_PLATFORM_Logs();
        return static_cast<size_t>(
            std::count_if(vecLogs.begin(), vecLogs.end(),
                          [](const FAKE_LOG_S &st)
                          {
                              return st.s32Level == 4 && st.strPrefix.find("QN_RecordWriteFrame[") == 0 &&
                                     st.strText == "H.265 parameter sets are damaged, waiting for the next key frame";
                          }));
    }

    // Ends the session; the packets of video in each of its files, the oldest first. All of them begin with a key
    // frame.
    std::vector<size_t> End(tagQN_RECORD_HANDLER_S *pSession)
    {
        Age(pSession, 30);
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
        std::vector<size_t> vecCounts;
        for (const std::string &strName : Names())
        {
            const TEST_MEDIA_S stMedia = TEST_ReadMedia(Folder(0) + "/" + strName, false, true);
            const int32_t s32Video = stMedia.VideoStream();
            const std::vector<TEST_PACKET_S> vecPackets = stMedia.Of(s32Video);
            vecCounts.push_back(vecPackets.size());
            // A transport stream does not tell without a look into its packets.
            EXPECT_TRUE(vecPackets.empty() || vecPackets[0].bKey || GetParam() == QN_FILE_FMT_E_TS) << strName;
        }
        return vecCounts;
    }

    bool IsByTheFirst() const // FFmpeg takes the sets from the first picture
    {
        return GetParam() == QN_FILE_FMT_E_MP4 || GetParam() == QN_FILE_FMT_E_MOV;
    }

    uint64_t m_u64Pts = 1000;
};

INSTANTIATE_TEST_SUITE_P(Containers, DamagedSets, ::testing::Values(0, 1, 2, 3),
                         [](const auto &stTest)
                         { return std::string(QN_STORAGE_FmtType2FileExt(static_cast<QN_FILE_FMT_E>(stTest.param))); });

TEST_P(DamagedSets, AFirstFileBeginsWithTheNextSoundKeyFrame)
{
    tagQN_RECORD_HANDLER_S *pSession = StartReal();
    HandGroup(pSession, true);
    EXPECT_EQ(IsByTheFirst() ? QN_RECORD_STATE_WAIT_KEY : QN_RECORD_STATE_RUNNING, pSession->enRecordState.load());
    HandGroup(pSession, true);
    HandGroup(pSession, false);
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pSession->enRecordState.load());
    HandGroup(pSession, true); // in a file that has video it is harmless
    EXPECT_EQ(IsByTheFirst() ? 1u : 0u, Warnings()) << "one line for each file";
    EXPECT_EQ((std::vector<size_t>{IsByTheFirst() ? 8u : 16u}), End(pSession));
}

TEST_P(DamagedSets, ANextFileBeginsWithTheNextSoundKeyFrame)
{
    tagQN_RECORD_HANDLER_S *pSession = StartReal();
    HandGroup(pSession, false);
    Age(pSession, 70);
    HandGroup(pSession, true); // stays in the first file of those that take their sets from a picture
    HandGroup(pSession, true);
    EXPECT_EQ(IsByTheFirst() ? 1u : 0u, Warnings()) << "one line for each file";
    HandGroup(pSession, false);
    HandGroup(pSession, true);
    EXPECT_EQ(IsByTheFirst() ? 1u : 0u, Warnings());
    EXPECT_EQ((IsByTheFirst() ? std::vector<size_t>{12, 8} : std::vector<size_t>{4, 16}), End(pSession));
}

TEST_P(DamagedSets, EveryFileHasALineOfItsOwn)
{
    tagQN_RECORD_HANDLER_S *pSession = StartReal();
    for (int32_t i = 1; i <= 3; ++i)
    {
        HandGroup(pSession, true);
        HandGroup(pSession, false);
        EXPECT_EQ(IsByTheFirst() ? i : 0, static_cast<int32_t>(Warnings()));
        Age(pSession, 60 + 10 * i);
    }
    (void)End(pSession);
}

TEST_P(DamagedSets, APausedFileWithVideoGoesOnWithAnyKeyFrame)
{
    tagQN_RECORD_HANDLER_S *pSession = StartReal();
    HandGroup(pSession, false);
    EXPECT_EQ(0u, QN_RecordPause(pSession));
    EXPECT_EQ(0u, QN_RecordResume(pSession));
    HandGroup(pSession, true);
    EXPECT_EQ(0u, Warnings());
    EXPECT_EQ(std::vector<size_t>{8}, End(pSession));
}

// A key frame that ends the wait is dropped while the storage is full: the file has no video yet.
TEST_P(DamagedSets, AFileThatWasHeldUpByAFullStorageBeginsWithASoundKeyFrame)
{
    tagQN_RECORD_HANDLER_S *pSession = StartReal(true);
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    HandGroup(pSession, false);
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pSession->enRecordState.load());
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_NORMAL;
    HandGroup(pSession, true);
    Hand(pSession, TEST_EncodeAac()[0], false);
    HandGroup(pSession, false);
    EXPECT_EQ(IsByTheFirst() ? 1u : 0u, Warnings());
    EXPECT_EQ(std::vector<size_t>{IsByTheFirst() ? 4u : 8u}, End(pSession));
}
