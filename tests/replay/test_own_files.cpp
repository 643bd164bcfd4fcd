// What hosts are told about the library's own files: what a replay says of them, what becomes of raw AAC, and of more
// than a day in one transport stream. docs/hosts.md has it.

#include <string>
#include <vector>

#include "support/card.h"
#include "support/streams.h"

using namespace libquarrin;

namespace
{

struct CONTAINER_S
{
    QN_FILE_FMT_E enFormat;
    const char *pszExt;
    uint32_t u32VideoTicks; ///< a second
    uint64_t u64AudioTicks;
    bool bStartCodes;
    bool bAdts;
};

constexpr CONTAINER_S CONTAINERS[] = {
    {QN_FILE_FMT_E_MKV, "mkv", 1000, 1000, false, false},
    {QN_FILE_FMT_E_TS, "ts", 90000, 90000, true, true},
    {QN_FILE_FMT_E_MP4, "mp4", 90000, 48000, false, false},
    {QN_FILE_FMT_E_MOV, "mov", 90000, 48000, false, false},
};

/// What came out of a replay.
struct REPLAYED_S
{
    tagQN_METADATA_S stMetadata = {};
    size_t uVideo = 0;
    size_t uAudio = 0;
    size_t uStartCodes = 0;
    size_t uAdts = 0;
    uint64_t u64LastVideo = 0;
    uint64_t u64LastAudio = 0;
};

class OwnFiles : public CARD_TEST
{
protected:
    // Two seconds of pictures at 25 and as much sound at 48000.
    std::string Write(const CONTAINER_S &stContainer, bool bAdts) const
    {
        const std::vector<TEST_FRAME_S> &vecVideo = TEST_EncodeH264(64, 64, 25, 5, 50);
        const std::vector<TEST_FRAME_S> &vecAudio = TEST_EncodeAac(48000, 2, 90, bAdts);
        tagQN_RECORD_PARAM_S stParam = {};
        stParam.enFormat = stContainer.enFormat;
        stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, vecVideo);
        stParam.stAudio = TEST_AudioParam();
        const std::string strPath = m_dir.strPath + "/2024-03-01-08-15-00.To.2024-03-01-08-15-02." + stContainer.pszExt;
        void *pWriter = FFMUXER_WriteOpen(&stParam, strPath.c_str());
        EXPECT_NE(nullptr, pWriter);
        for (size_t uVideo = 0, uAudio = 0; uVideo < vecVideo.size() || uAudio < vecAudio.size();)
        {
            const uint64_t u64Video = uVideo * 40;
            const uint64_t u64Audio = uAudio * 1024 / 48;
            const bool bVideo = uAudio == vecAudio.size() || (uVideo < vecVideo.size() && u64Video <= u64Audio);
            const TEST_FRAME_S &stFrame = bVideo ? vecVideo[uVideo++] : vecAudio[uAudio++];
            FFMUXER_WriteFrame(pWriter, const_cast<uint8_t *>(stFrame.vecData.data()),
                               static_cast<uint32_t>(stFrame.vecData.size()), 1000 + (bVideo ? u64Video : u64Audio),
                               stFrame.bKey || !bVideo, bVideo);
        }
        EXPECT_EQ(0, FFMUXER_WriteClose(pWriter));
        return strPath;
    }

    REPLAYED_S Replay(const std::string &strPath)
    {
        REPLAYED_S stReplayed;
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        EXPECT_EQ(0u, QN_ReplayOpenByFilePath(m_pHandle, strPath, {}, pReplay));
        EXPECT_EQ(0u, QN_ReplayReadMetadata(pReplay, &stReplayed.stMetadata));
        uint8_t *pu8Data = nullptr;
        uint32_t u32Len = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        while (QN_ReplayReadFrame(pReplay, &pu8Data, &u32Len, &u64Pts, &bKey, &bVideo) == 0)
        {
            (bVideo ? stReplayed.uVideo : stReplayed.uAudio) += 1;
            (bVideo ? stReplayed.u64LastVideo : stReplayed.u64LastAudio) = u64Pts;
            const bool bCode = u32Len > 4 && pu8Data[0] == 0 && pu8Data[1] == 0 && pu8Data[2] == 0 && pu8Data[3] == 1;
            stReplayed.uStartCodes += bVideo && bCode ? 1 : 0;
            stReplayed.uAdts += !bVideo && u32Len > 7 && pu8Data[0] == 0xff && (pu8Data[1] & 0xf6) == 0xf0 ? 1 : 0;
            QN_ReplayFreeFrame(pReplay, pu8Data);
        }
        QN_ReplayClose(pReplay);
        return stReplayed;
    }
};

} // namespace

TEST_F(OwnFiles, TellOfNoAudioAndGiveItAllTheSame)
{
    InitMounted();
    for (const CONTAINER_S &stContainer : CONTAINERS)
    {
        SCOPED_TRACE(stContainer.pszExt);
        const REPLAYED_S stReplayed = Replay(Write(stContainer, true));
        EXPECT_EQ(0u, stReplayed.stMetadata.bHasAudio);
        EXPECT_EQ(50u, stReplayed.uVideo);
        EXPECT_EQ(90u, stReplayed.uAudio);
        EXPECT_EQ(1u, stReplayed.stMetadata.u32VideoTimeBaseNum);
        EXPECT_EQ(stContainer.u32VideoTicks, stReplayed.stMetadata.u32VideoTimeBaseDen);
        EXPECT_EQ(49u * stContainer.u32VideoTicks / 25, stReplayed.u64LastVideo);
        // The last of 90 frames of 1024 samples; what the host handed in was rounded to milliseconds.
        EXPECT_NEAR(89 * 1024 / 48000.0,
                    static_cast<double>(stReplayed.u64LastAudio) / static_cast<double>(stContainer.u64AudioTicks),
                    0.002);
        EXPECT_EQ(stContainer.bStartCodes ? 50u : 0u, stReplayed.uStartCodes);
        EXPECT_EQ(stContainer.bAdts ? 90u : 0u, stReplayed.uAdts);
    }
}

TEST_F(OwnFiles, OfRawAacHaveNoSoundThatPlays)
{
    const auto fnAudio = [this](const CONTAINER_S &stContainer)
    {
        const TEST_MEDIA_S stMedia = TEST_ReadMedia(Write(stContainer, false), true, true);
        EXPECT_EQ(2u, stMedia.vecStreams.size()) << stContainer.pszExt;
        const int32_t s32Video = stMedia.VideoStream();
        EXPECT_EQ(50u, stMedia.Of(s32Video).size()) << stContainer.pszExt;
        return stMedia;
    };
    const TEST_MEDIA_S stMkv = fnAudio(CONTAINERS[0]);
    EXPECT_TRUE(stMkv.Of(stMkv.AudioStream()).empty());
    const TEST_MEDIA_S stTs = fnAudio(CONTAINERS[1]);
    EXPECT_EQ(0, stTs.vecStreams[static_cast<size_t>(stTs.AudioStream())].s32Decoded);
    for (const CONTAINER_S &stContainer : {CONTAINERS[2], CONTAINERS[3]})
    {
        const TEST_MEDIA_S stMp4 = fnAudio(stContainer);
        EXPECT_EQ(90u, stMp4.Of(stMp4.AudioStream()).size());
        EXPECT_TRUE(stMp4.vecStreams[static_cast<size_t>(stMp4.AudioStream())].vecExtradata.empty());
    }
}

TEST_F(OwnFiles, OfMoreThanADayBeginTheirTimeAnewInATransportStream)
{
    const std::vector<TEST_FRAME_S> &vecVideo = TEST_EncodeH264(64, 64, 25, 5, 50);
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = QN_FILE_FMT_E_TS;
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, vecVideo);
    const std::string strPath = m_dir.strPath + "/2024-03-01-08-15-00.To.2024-03-02-11-15-00.ts";
    void *pWriter = FFMUXER_WriteOpen(&stParam, strPath.c_str());
    ASSERT_NE(nullptr, pWriter);
    for (uint64_t u64Hour = 0; u64Hour < 28; u64Hour++)
    {
        const TEST_FRAME_S &stFrame = vecVideo[0];
        FFMUXER_WriteFrame(pWriter, const_cast<uint8_t *>(stFrame.vecData.data()),
                           static_cast<uint32_t>(stFrame.vecData.size()), 1000 + u64Hour * 3600000, true, true);
    }
    ASSERT_EQ(0, FFMUXER_WriteClose(pWriter));
    const TEST_MEDIA_S stMedia = TEST_ReadMedia(strPath);
    ASSERT_EQ(28u, stMedia.vecPackets.size());
    EXPECT_EQ(INT64_C(26) * 3600 * 90000, stMedia.vecPackets[26].s64Pts - stMedia.vecPackets[0].s64Pts);
    EXPECT_EQ(INT64_C(27) * 3600 * 90000 - (INT64_C(1) << 33),
              stMedia.vecPackets[27].s64Pts - stMedia.vecPackets[0].s64Pts);
}
