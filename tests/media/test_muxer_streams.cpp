// The FFmpeg writer: what its files say about their streams, and what plays.

#include "muxer_fixture.h"

#include <algorithm>

extern "C"
{
#include <libavcodec/codec_id.h>
#include <libavutil/channel_layout.h>
}

using namespace libquarrin;

class MuxerStreams : public MUXER_TEST
{
};

TEST_F(MuxerStreams, H264HasItsSizeAndItsParameterSets)
{
    for (int32_t s32Format : {0, 2, 3})
    {
        const tagQN_RECORD_PARAM_S stParam = H264(s32Format);
        Open(stParam);
        Write(TEST_EncodeH264(), true, 1000, 40);
        const TEST_MEDIA_S stMedia = Finish();
        ASSERT_EQ(1u, stMedia.vecStreams.size());
        const TEST_MEDIA_STREAM_S &st = stMedia.vecStreams[0];
        EXPECT_TRUE(st.bVideo);
        EXPECT_EQ(AV_CODEC_ID_H264, st.s32CodecId);
        EXPECT_EQ(64, st.s32Width);
        EXPECT_EQ(64, st.s32Height);
        EXPECT_TRUE(TEST_Holds(st.vecExtradata, TEST_Payload(stParam.stVideo.stSps)));
        EXPECT_TRUE(TEST_Holds(st.vecExtradata, TEST_Payload(stParam.stVideo.stPps)));
    }
}

TEST_F(MuxerStreams, H264TakesTheParameterSetsOfTheHostEvenWhenTheFramesHaveOthers)
{
    for (int32_t s32Format : {0, 2, 3})
    {
        tagQN_RECORD_PARAM_S stParam = H264(s32Format);
        const tagQN_STREAM_PARAM_S stOther = TEST_VideoParam(QN_CODEC_H264, TEST_EncodeH264(128, 96), 128, 96);
        stParam.stVideo.stSps = stOther.stSps;
        Open(stParam);
        Write(TEST_EncodeH264(), true, 1000, 40);
        const TEST_MEDIA_S stMedia = Finish();
        ASSERT_EQ(1u, stMedia.vecStreams.size());
        EXPECT_TRUE(TEST_Holds(stMedia.vecStreams[0].vecExtradata, TEST_Payload(stOther.stSps)));
    }
}

TEST_F(MuxerStreams, H264WithoutParameterSetsTakesThoseOfTheFirstFrameInMp4AndMov)
{
    for (int32_t s32Format : {2, 3})
    {
        tagQN_RECORD_PARAM_S stParam = H264(s32Format);
        const tagQN_STREAM_PARAM_S stOwn = stParam.stVideo;
        stParam.stVideo.stSps = tagQN_BYTES{nullptr, 0};
        stParam.stVideo.stPps = tagQN_BYTES{nullptr, 100}; // a length without bytes counts as none
        Open(stParam);
        Write(TEST_EncodeH264(), true, 1000, 40);
        const TEST_MEDIA_S stMedia = Finish();
        ASSERT_EQ(1u, stMedia.vecStreams.size());
        EXPECT_TRUE(TEST_Holds(stMedia.vecStreams[0].vecExtradata, TEST_Payload(stOwn.stSps)));
        EXPECT_EQ(15u, stMedia.vecPackets.size());
    }
}

TEST_F(MuxerStreams, H264WithoutParameterSetsPlaysInMpegTs)
{
    tagQN_RECORD_PARAM_S stParam = H264(1);
    stParam.stVideo.stSps = tagQN_BYTES{nullptr, 0};
    stParam.stVideo.stPps = tagQN_BYTES{nullptr, 0};
    Open(stParam);
    Write(TEST_EncodeH264(), true, 1000, 40);
    const TEST_MEDIA_S stMedia = Finish(true, true);
    ASSERT_EQ(1u, stMedia.vecStreams.size());
    EXPECT_EQ(15, stMedia.vecStreams[0].s32Decoded);
}

TEST_F(MuxerStreams, H264WithoutParameterSetsIsRefusedByMatroska)
{
    tagQN_RECORD_PARAM_S stParam = H264(0);
    stParam.stVideo.stSps = tagQN_BYTES{nullptr, 0};
    stParam.stVideo.stPps = tagQN_BYTES{nullptr, 0};
    ExpectRefused(stParam, {"avformat_write_header failed! Invalid data found when processing input\n"});
}

TEST_F(MuxerStreams, H264TakesOneParameterSetAlone)
{
    tagQN_RECORD_PARAM_S stParam = H264(1);
    stParam.stVideo.stPps = tagQN_BYTES{nullptr, 0};
    Open(stParam);
    Write(TEST_EncodeH264(), true, 1000, 40);
    EXPECT_EQ(15, Finish(true, true).vecStreams[0].s32Decoded);
}

// The SPS without its start code; stSps holds VPS and SPS.
static std::vector<uint8_t> H265Sps(const tagQN_STREAM_PARAM_S &stParam)
{
    const std::vector<uint8_t> vecSets = TEST_Payload(stParam.stSps);
    const std::vector<uint8_t> vecCode = {0, 0, 0, 1};
    const auto itCode = std::search(vecSets.begin(), vecSets.end(), vecCode.begin(), vecCode.end());
    return std::vector<uint8_t>(itCode + 4, vecSets.end());
}

TEST_F(MuxerStreams, H265InMatroskaHasTheParameterSetsOfTheHost)
{
    // Sets of another size than the frames show where they come from.
    tagQN_RECORD_PARAM_S stParam = H265(0);
    const tagQN_STREAM_PARAM_S stOther = TEST_VideoParam(QN_CODEC_H265, TEST_EncodeH265(128, 96), 128, 96);
    stParam.stVideo.stSps = stOther.stSps;
    stParam.stVideo.stPps = stOther.stPps;
    Open(stParam);
    Write(TEST_EncodeH265(), true, 1000, 40);
    const TEST_MEDIA_S stMedia = Finish();
    ASSERT_EQ(1u, stMedia.vecStreams.size());
    const TEST_MEDIA_STREAM_S &st = stMedia.vecStreams[0];
    EXPECT_EQ(AV_CODEC_ID_HEVC, st.s32CodecId);
    EXPECT_EQ(64, st.s32Width);
    EXPECT_EQ(64, st.s32Height);
    ASSERT_FALSE(st.vecExtradata.empty());
    EXPECT_EQ(1, st.vecExtradata[0]); // a decoder configuration record, ISO/IEC 14496-15
    EXPECT_TRUE(TEST_Holds(st.vecExtradata, H265Sps(stOther)));
    EXPECT_TRUE(TEST_Holds(st.vecExtradata, TEST_Payload(stOther.stPps)));
}

// VPS, SPS and PPS of the frames, and all three in one piece, with start codes of three or four bytes.
static std::vector<uint8_t> H265Sets(bool bShort)
{
    const tagQN_STREAM_PARAM_S stParam = TEST_VideoParam(QN_CODEC_H265, TEST_EncodeH265());
    std::vector<uint8_t> vecAll(stParam.stSps.pu8Data, stParam.stSps.pu8Data + stParam.stSps.u32Len);
    vecAll.insert(vecAll.end(), stParam.stPps.pu8Data, stParam.stPps.pu8Data + stParam.stPps.u32Len);
    std::vector<uint8_t> vecOut;
    for (size_t i = 0; i < vecAll.size(); ++i)
    {
        const bool bCode =
            i + 4 <= vecAll.size() && vecAll[i] == 0 && vecAll[i + 1] == 0 && vecAll[i + 2] == 0 && vecAll[i + 3] == 1;
        if (!bShort || !bCode)
        {
            vecOut.push_back(vecAll[i]);
        }
    }
    return vecOut;
}

static tagQN_BYTES Bytes(std::vector<uint8_t> &vec)
{
    return tagQN_BYTES{vec.data(), static_cast<uint32_t>(vec.size())};
}

TEST_F(MuxerStreams, H265InMatroskaFindsItsSetsWhereverTheyAre)
{
    for (bool bShort : {false, true})
    {
        for (bool bInPps : {false, true})
        {
            std::vector<uint8_t> vecSets = H265Sets(bShort);
            tagQN_RECORD_PARAM_S stParam = H265(0);
            stParam.stVideo.stSps = bInPps ? tagQN_BYTES{nullptr, 0} : Bytes(vecSets);
            stParam.stVideo.stPps = bInPps ? Bytes(vecSets) : tagQN_BYTES{nullptr, 0};
            Open(stParam);
            Write(TEST_EncodeH265(), true, 1000, 40);
            const TEST_MEDIA_S stMedia = Finish(true, true);
            ASSERT_EQ(1u, stMedia.vecStreams.size());
            EXPECT_EQ(15, stMedia.vecStreams[0].s32Decoded);
            EXPECT_EQ(0, stMedia.vecStreams[0].s32DecodeErrors);
        }
    }
}

TEST_F(MuxerStreams, H265InMatroskaNeedsAllThreeSets)
{
    for (int32_t s32Missing : {32, 33, 34})
    {
        FAKE_PLATFORM_Reset();
        std::vector<uint8_t> vecSets = H265Sets(false);
        for (size_t i = 0; i + 4 < vecSets.size(); ++i)
        {
            const bool bCode = vecSets[i] == 0 && vecSets[i + 1] == 0 && vecSets[i + 2] == 0 && vecSets[i + 3] == 1;
            if (bCode && (vecSets[i + 4] >> 1 & 63) == s32Missing)
            {
                vecSets[i + 4] = 35 << 1; // an access unit delimiter instead
            }
        }
        tagQN_RECORD_PARAM_S stParam = H265(0);
        stParam.stVideo.stSps = Bytes(vecSets);
        stParam.stVideo.stPps = tagQN_BYTES{nullptr, 0};
        ExpectRefused(stParam, {"avformat_write_header failed! Invalid data found when processing input\n"});
    }
}

TEST_F(MuxerStreams, H265ElsewhereIgnoresTheParameterSetsOfTheHost)
{
    for (int32_t s32Format : {2, 3})
    {
        tagQN_RECORD_PARAM_S stParam = H265(s32Format);
        const tagQN_STREAM_PARAM_S stOther = TEST_VideoParam(QN_CODEC_H265, TEST_EncodeH265(128, 96), 128, 96);
        const tagQN_STREAM_PARAM_S stOwn = stParam.stVideo;
        stParam.stVideo.stSps = stOther.stSps;
        stParam.stVideo.stPps = stOther.stPps;
        Open(stParam);
        Write(TEST_EncodeH265(), true, 1000, 40);
        const TEST_MEDIA_S stMedia = Finish();
        ASSERT_EQ(1u, stMedia.vecStreams.size());
        const std::vector<uint8_t> &vecExtradata = stMedia.vecStreams[0].vecExtradata;
        EXPECT_TRUE(TEST_Holds(vecExtradata, H265Sps(stOwn)));
        EXPECT_FALSE(TEST_Holds(vecExtradata, H265Sps(stOther)));
    }
}

TEST_F(MuxerStreams, AacHasItsRateAndItsChannels)
{
    const struct
    {
        uint32_t u32Channels;
        int32_t s32Channels;
        uint64_t u64Mask;
    } astCases[] = {
        {2, 2, AV_CH_LAYOUT_STEREO}, {1, 1, AV_CH_LAYOUT_MONO}, {0, 1, AV_CH_LAYOUT_MONO}, {6, 1, AV_CH_LAYOUT_MONO}};
    for (const auto &stCase : astCases)
    {
        tagQN_RECORD_PARAM_S stParam = Aac(3);
        stParam.stAudio.u32Fps = stCase.u32Channels;
        stParam.stAudio.u32Width = 44100;
        Open(stParam);
        Write(TEST_EncodeAac(44100, stCase.s32Channels), false, 1000, 23);
        const TEST_MEDIA_S stMedia = Finish(true);
        ASSERT_EQ(1u, stMedia.vecStreams.size());
        const TEST_MEDIA_STREAM_S &st = stMedia.vecStreams[0];
        EXPECT_TRUE(st.bAudio);
        EXPECT_EQ(AV_CODEC_ID_AAC, st.s32CodecId);
        EXPECT_EQ(44100, st.s32SampleRate);
        EXPECT_EQ(stCase.s32Channels, st.s32Channels);
        EXPECT_EQ(stCase.u64Mask, st.u64ChannelMask);
        EXPECT_EQ(44100, st.s32TimeBaseDen);
    }
}

TEST_F(MuxerStreams, ChannelCountsOtherThanTwoAreDeclaredMono)
{
    // Frames without headers bring no configuration, so the declaration stays.
    for (uint32_t u32Channels : {0u, 1u, 2u, 3u, 6u, 0xffffffffu})
    {
        tagQN_RECORD_PARAM_S stParam = Aac(3);
        stParam.stAudio.u32Fps = u32Channels;
        Open(stParam);
        Write(TEST_EncodeAac(48000, 2, 20, false), false, 1000, 21);
        const TEST_MEDIA_S stMedia = Finish();
        ASSERT_EQ(1u, stMedia.vecStreams.size()) << u32Channels;
        EXPECT_EQ(u32Channels == 2 ? 2 : 1, stMedia.vecStreams[0].s32Channels) << u32Channels;
        EXPECT_EQ(0u, stMedia.vecStreams[0].vecExtradata.size()); // the library sets none for AAC
    }
}

TEST_F(MuxerStreams, AacLosesItsHeadersExceptInMpegTs)
{
    const std::vector<TEST_FRAME_S> &vecRaw = TEST_EncodeAac(48000, 2, 20, false);
    const std::vector<TEST_FRAME_S> &vecAdts = TEST_EncodeAac(48000, 2, 20, true);
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        Open(Aac(s32Format));
        Write(vecAdts, false, 1000, 21);
        const TEST_MEDIA_S stMedia = Finish(true);
        ASSERT_EQ(vecRaw.size(), stMedia.vecPackets.size());
        for (size_t i = 0; i < vecRaw.size(); ++i)
        {
            EXPECT_EQ(s32Format == 1 ? vecAdts[i].vecData : vecRaw[i].vecData, stMedia.vecPackets[i].vecBytes);
        }
        // The configuration that FFmpeg makes of the headers: low complexity, 48000 Hz, two channels.
        EXPECT_EQ(s32Format == 1 ? std::vector<uint8_t>() : (std::vector<uint8_t>{0x11, 0x90}),
                  stMedia.vecStreams[0].vecExtradata);
    }
}

TEST_F(MuxerStreams, VideoComesBeforeAudioAndEitherMayBeMissing)
{
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        Open(Both(s32Format));
        WriteOne(TEST_EncodeAac()[0], false, 1000); // the order of the frames does not matter
        Write(TEST_EncodeH264(), true, 1000, 40);
        TEST_MEDIA_S stMedia = Finish();
        ASSERT_EQ(2u, stMedia.vecStreams.size());
        EXPECT_EQ(0, stMedia.VideoStream());
        EXPECT_EQ(1, stMedia.AudioStream());
        Open(Aac(s32Format));
        Write(TEST_EncodeAac(), false, 1000, 21);
        stMedia = Finish();
        ASSERT_EQ(1u, stMedia.vecStreams.size());
        EXPECT_EQ(0, stMedia.AudioStream());
    }
}

TEST_F(MuxerStreams, EveryPacketKeepsItsBytesAndItsKeyFlag)
{
    const std::vector<TEST_FRAME_S> &vecFrames = TEST_EncodeH264();
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        Open(H264(s32Format));
        Write(vecFrames, true, 1000, 40);
        const TEST_MEDIA_S stMedia = Finish(true);
        ASSERT_EQ(vecFrames.size(), stMedia.vecPackets.size());
        for (size_t i = 0; i < vecFrames.size(); ++i)
        {
            const TEST_PACKET_S &st = stMedia.vecPackets[i];
            EXPECT_EQ(vecFrames[i].bKey, st.bKey) << s32Format << " " << i;
            EXPECT_EQ(st.s64Pts, st.s64Dts);
            // MPEG-TS puts an access unit delimiter before a frame; the others change start codes into lengths.
            const std::vector<uint8_t> &vec = vecFrames[i].vecData;
            EXPECT_TRUE(TEST_Holds(st.vecBytes, std::vector<uint8_t>(vec.end() - 20, vec.end())));
            EXPECT_EQ(vec.size() + (s32Format == 1 ? 6 : 0), st.vecBytes.size());
        }
    }
}

TEST_F(MuxerStreams, TheKeyFlagIsTheHosts)
{
    // Matroska takes the flag as it comes.
    const std::vector<bool> vecKeys = {true, false, true, true, false};
    Open(H264(0));
    for (size_t i = 0; i < vecKeys.size(); ++i)
    {
        TEST_FRAME_S stFrame = TEST_EncodeH264()[i];
        stFrame.bKey = vecKeys[i];
        WriteOne(stFrame, true, 1000 + i * 40);
    }
    const TEST_MEDIA_S stMedia = Finish();
    ASSERT_EQ(vecKeys.size(), stMedia.vecPackets.size());
    for (size_t i = 0; i < vecKeys.size(); ++i)
    {
        EXPECT_EQ(vecKeys[i], stMedia.vecPackets[i].bKey) << i;
    }
}

TEST_F(MuxerStreams, EveryCodecPlaysInEveryContainer)
{
    for (int32_t s32Codec = 0; s32Codec < 3; ++s32Codec)
    {
        for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
        {
            const std::string strCase = std::to_string(s32Codec) + " in " + std::to_string(s32Format);
            const std::vector<TEST_FRAME_S> &vecFrames =
                s32Codec == 0 ? TEST_EncodeH264() : (s32Codec == 1 ? TEST_EncodeH265() : TEST_EncodeAac());
            Open(s32Codec == 0 ? H264(s32Format) : (s32Codec == 1 ? H265(s32Format) : Aac(s32Format)));
            Write(vecFrames, s32Codec < 2, 1000, s32Codec < 2 ? 40 : 21);
            const TEST_MEDIA_S stMedia = Finish(true, true);
            ASSERT_EQ(1u, stMedia.vecStreams.size()) << strCase;
            EXPECT_EQ(vecFrames.size(), stMedia.vecPackets.size()) << strCase;
            // No packet has a duration: players of MP4 and MOV see the last picture end where it begins.
            const int32_t s32Hidden = s32Codec < 2 && s32Format >= 2 ? 1 : 0;
            EXPECT_EQ(static_cast<int32_t>(vecFrames.size()) - s32Hidden, stMedia.vecStreams[0].s32Decoded) << strCase;
            EXPECT_EQ(0, stMedia.vecStreams[0].s32DecodeErrors) << strCase;
        }
    }
}

TEST_F(MuxerStreams, AacWithoutHeadersMakesNoUsableMatroskaOrMpegTs)
{
    for (int32_t s32Format : {0, 1})
    {
        Open(Aac(s32Format));
        Write(TEST_EncodeAac(48000, 2, 20, false), false, 1000, 21); // each write answers 0 all the same
        const TEST_MEDIA_S stMedia = Finish(true, true);
        EXPECT_TRUE(stMedia.vecStreams.empty() || stMedia.vecStreams[0].s32Decoded == 0) << s32Format;
    }
}
