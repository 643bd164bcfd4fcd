// The road of one frame: which ones reach the file, and what is posted for them.

#include "session_fixture.h"

using namespace libquarrin;

class Frames : public SESSION_TEST
{
protected:
    // The bytes of the frames that reached the first writer.
    static std::vector<std::string> Written(size_t writer = 0)
    {
        std::vector<std::string> vecBytes;
        const std::vector<FAKE_WRITER_S> vecWriters = FAKE_MEDIA_Writers();
        if (writer < vecWriters.size())
        {
            for (const FAKE_FRAME_S &stFrame : vecWriters[writer].vecFrames)
            {
                vecBytes.push_back(stFrame.strBytes);
            }
        }
        return vecBytes;
    }

    // Video off, audio on.
    tagQN_RECORD_HANDLER_S *StartAudioOnly(bool bSplit = false)
    {
        tagQN_RECORD_PARAM_S stParam = Param();
        stParam.stVideo.bEnable = 0;
        stParam.bAutoSplit = bSplit ? 1 : 0;
        stParam.u32SplitSeconds = 60;
        tagQN_RECORD_HANDLER_S *pSession = Make(stParam);
        EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr));
        return pSession;
    }
};

using STRINGS = std::vector<std::string>;

TEST_F(Frames, RefuseNulls)
{
    uint8_t u8Data = 1;
    EXPECT_EQ(1u, QN_RecordWriteFrame(nullptr, &u8Data, 1, 0, 1, 1));
    EXPECT_EQ(1u, QN_RecordWriteFrame(nullptr, nullptr, 0, 0, 1, 1));
    tagQN_RECORD_HANDLER_S *pSession = Start();
    EXPECT_EQ(2u, QN_RecordWriteFrame(pSession, nullptr, 0, 0, 1, 1));
    EXPECT_EQ(2u, QN_RecordWriteFrame(pSession, nullptr, 5, 0, 1, 1));
    EXPECT_EQ(QN_RECORD_STATE_WAIT_KEY, pSession->enRecordState.load()) << "the session was not touched";
    EXPECT_TRUE(Written().empty());
}

TEST_F(Frames, AreDroppedWhenNothingIsRecorded)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    ASSERT_TRUE(WaitForIdle());
    StallDispatcher();
    for (const int32_t s32State : {0, 3, 5})
    {
        SetState(pSession, s32State);
        EXPECT_EQ(0u, Video(pSession, "dropped", true)) << s32State;
        EXPECT_EQ(0u, Audio(pSession, "dropped", true)) << s32State;
        EXPECT_EQ(s32State, pSession->enRecordState.load());
    }
    EXPECT_EQ(STRINGS{"first"}, Written());
    EXPECT_TRUE(Ring().empty());
    SetState(pSession, 2);
}

TEST_F(Frames, WaitForTheFirstVideoKeyFrame)
{
    tagQN_RECORD_HANDLER_S *pSession = Start();
    ASSERT_TRUE(WaitForIdle());
    StallDispatcher();
    EXPECT_EQ(0u, Audio(pSession, "audio", true));
    EXPECT_EQ(0u, Audio(pSession, "audio", false));
    EXPECT_EQ(0u, Video(pSession, "video", false));
    EXPECT_TRUE(Written().empty());
    EXPECT_TRUE(Ring().empty());
    EXPECT_EQ(QN_RECORD_STATE_WAIT_KEY, pSession->enRecordState.load());
    EXPECT_EQ(0, pSession->tRunStart);

    const time_t tBefore = time(nullptr);
    EXPECT_EQ(0u, Video(pSession, "key", true));
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pSession->enRecordState.load());
    EXPECT_LE(tBefore, pSession->tRunStart);
    EXPECT_GE(time(nullptr), pSession->tRunStart);
    EXPECT_EQ(0u, Audio(pSession, "audio", false));
    EXPECT_EQ(0u, Video(pSession, "video", false));
    EXPECT_EQ((STRINGS{"key", "audio", "video"}), Written());
}

TEST_F(Frames, WaitForAMarkedAudioFrameWithoutVideo)
{
    tagQN_RECORD_HANDLER_S *pSession = StartAudioOnly();
    EXPECT_EQ(0u, Audio(pSession, "unmarked", false));
    EXPECT_EQ(QN_RECORD_STATE_WAIT_KEY, pSession->enRecordState.load());
    EXPECT_EQ(0u, Audio(pSession, "marked", true));
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pSession->enRecordState.load());
    EXPECT_EQ(0u, Audio(pSession, "next", false));
    EXPECT_EQ((STRINGS{"marked", "next"}), Written());
}

TEST_F(Frames, WaitForAKeyFrameAgainAfterAPause)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    Age(pSession, 50);
    EXPECT_EQ(0u, QN_RecordPause(pSession));
    EXPECT_EQ(0u, Video(pSession, "paused", true));
    EXPECT_EQ(0u, QN_RecordResume(pSession));
    EXPECT_EQ(0u, Video(pSession, "no key", false));
    EXPECT_EQ(0u, Audio(pSession, "audio", true));
    EXPECT_EQ(QN_RECORD_STATE_RESUMED, pSession->enRecordState.load());
    const time_t tBefore = time(nullptr);
    EXPECT_EQ(0u, Video(pSession, "key", true));
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pSession->enRecordState.load());
    EXPECT_LE(tBefore, pSession->tRunStart) << "a new run";
    EXPECT_EQ((STRINGS{"first", "key"}), Written());
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size());
}

TEST_F(Frames, AreDroppedWhileTheStorageIsFull)
{
    tagQN_RECORD_HANDLER_S *pSession = Start(0);
    ASSERT_TRUE(WaitForIdle());
    StallDispatcher();
    m_pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    const time_t tBefore = time(nullptr);
    EXPECT_EQ(0u, Video(pSession, "key", true));
    EXPECT_EQ(0u, Video(pSession, "video", false));
    EXPECT_EQ(QN_RECORD_STATE_RUNNING, pSession->enRecordState.load()) << "the wait ends all the same";
    EXPECT_LE(tBefore, pSession->tRunStart);
    EXPECT_TRUE(Written().empty());
    EXPECT_TRUE(Ring().empty()) << "no split and no quota check";
    EXPECT_EQ(1u, FAKE_MEDIA_Writers().size());

    m_pHandle->enStorageState = QN_STORAGE_STATE_E_NORMAL;
    EXPECT_EQ(0u, Video(pSession, "room", false));
    EXPECT_EQ(STRINGS{"room"}, Written());
}

TEST_F(Frames, ReachTheBackEndAsTheyAre)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    std::string strBytes("a\0b", 3);
    uint8_t *pu8Bytes = reinterpret_cast<uint8_t *>(&strBytes[0]);
    EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, pu8Bytes, 3, 0xfedcba9876543210u, 5, 7)); // any value is true
    EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, pu8Bytes, 1, 0, 0, 0));
    const std::vector<FAKE_FRAME_S> vecFrames = FAKE_MEDIA_Writers()[0].vecFrames;
    ASSERT_EQ(3u, vecFrames.size());
    EXPECT_EQ(strBytes, vecFrames[1].strBytes);
    EXPECT_EQ(0xfedcba9876543210u, vecFrames[1].u64Pts);
    EXPECT_TRUE(vecFrames[1].bKey);
    EXPECT_TRUE(vecFrames[1].bVideo);
    EXPECT_EQ("a", vecFrames[2].strBytes);
    EXPECT_EQ(0u, vecFrames[2].u64Pts);
    EXPECT_FALSE(vecFrames[2].bKey);
    EXPECT_FALSE(vecFrames[2].bVideo);
}

TEST_F(Frames, OfNoBytesAreEmptyPackets)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    uint8_t u8Data = 1;
    EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, &u8Data, 0, 7, 0, 1));
    EXPECT_EQ((STRINGS{"first", ""}), Written());
}

TEST_F(Frames, AreNotReportedWhenTheBackEndFails)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    ASSERT_TRUE(WaitForIdle());
    StallDispatcher();
    const size_t logs = FAKE_PLATFORM_Logs().size();
    FAKE_MEDIA_FailWrites();
    EXPECT_EQ(0u, Video(pSession, "lost", false));
    EXPECT_EQ(2u, Written().size());
    EXPECT_EQ(1u, Ring().size()) << "the quota check comes all the same";
    EXPECT_EQ(logs, FAKE_PLATFORM_Logs().size());
}

TEST_F(Frames, PostOneQuotaCheckEach)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    ASSERT_TRUE(WaitForIdle());
    StallDispatcher();
    EXPECT_EQ(0u, Video(pSession, "video", false));
    EXPECT_EQ(0u, Audio(pSession, "audio", true));
    const std::vector<tagQN_EVENT_SLOT_S> vecRing = Ring();
    ASSERT_EQ(2u, vecRing.size());
    EXPECT_NE(vecRing[0].spPayload, vecRing[1].spPayload);
    for (const tagQN_EVENT_SLOT_S &stSlot : vecRing)
    {
        EXPECT_EQ(QN_EVENT_E_QUOTA_THROTTLE, stSlot.enEvent);
        ASSERT_NE(nullptr, stSlot.spPayload);
        EXPECT_EQ(QN_VOLUME_ID_E_0, *static_cast<QN_VOLUME_ID_E *>(stSlot.spPayload.get()));
    }
}

TEST_F(Frames, OfSeveralThreadsAllArriveOnce)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    constexpr int32_t EACH = 200;
    const auto fnWrite = [pSession](bool bVideo)
    {
        for (int32_t i = 0; i < EACH; ++i)
        {
            bVideo ? Video(pSession, "v" + std::to_string(i), i % 10 == 0) : Audio(pSession, "a" + std::to_string(i));
        }
    };
    std::thread video(fnWrite, true);
    std::thread audio(fnWrite, false);
    video.join();
    audio.join();
    STRINGS vecVideo;
    STRINGS vecAudio;
    const std::vector<FAKE_FRAME_S> vecFrames = FAKE_MEDIA_Writers()[0].vecFrames;
    for (const FAKE_FRAME_S &stFrame : vecFrames)
    {
        (stFrame.bVideo ? vecVideo : vecAudio).push_back(stFrame.strBytes);
    }
    ASSERT_EQ(static_cast<size_t>(EACH) + 1, vecVideo.size());
    ASSERT_EQ(static_cast<size_t>(EACH), vecAudio.size());
    for (size_t i = 0; i < static_cast<size_t>(EACH); ++i)
    {
        EXPECT_EQ("v" + std::to_string(i), vecVideo[i + 1]);
        EXPECT_EQ("a" + std::to_string(i), vecAudio[i]);
    }
}
