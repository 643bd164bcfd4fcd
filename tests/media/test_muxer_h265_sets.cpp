// The FFmpeg writer and H.265 parameter sets that end before they have said everything.

#include "muxer_fixture.h"

#include <random>
#include <unistd.h>

#include "support/h265_sets.h"

using namespace libquarrin;

namespace
{

constexpr int32_t MKV = 0;
constexpr int32_t TS = 1;
constexpr int32_t MP4 = 2;
constexpr int32_t MOV = 3;

using BYTES = std::vector<uint8_t>;

BYTES operator+(BYTES vecFront, const BYTES &vecBack)
{
    vecFront.insert(vecFront.end(), vecBack.begin(), vecBack.end());
    return vecFront;
}

BYTES Flipped(BYTES vecBytes, size_t bit)
{
    vecBytes[bit / 8] = static_cast<uint8_t>(vecBytes[bit / 8] ^ 0x80u >> bit % 8);
    return vecBytes;
}

class MuxerH265Sets : public MUXER_TEST
{
protected:
    // Three pictures behind a key frame, twice.
    static const std::vector<TEST_FRAME_S> &Frames()
    {
        return TEST_EncodeH265(64, 64, 25, 4, 8);
    }

    static size_t Warnings()
    {
        size_t u32Count = 0;
        for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
        {
            u32Count += stLog.s32Level == 4 && stLog.strPrefix.find("FFMUXER_WriteFrame[") == 0 &&
                                stLog.strText == "H.265 parameter sets are damaged, waiting for the next key frame"
                            ? 1
                            : 0;
        }
        EXPECT_EQ(u32Count, FAKE_PLATFORM_Logs().size());
        return u32Count;
    }

    // A file that is offered these frames one after the other, 40 ms apart.
    TEST_MEDIA_S Record(int32_t s32Format, const std::vector<TEST_FRAME_S> &vecFrames, bool bDecode = false)
    {
        FAKE_PLATFORM_Reset();
        const STDOUT_CAPTURE capture;
        Open(H265(s32Format));
        Write(vecFrames, true, 1000, 40);
        return Finish(false, bDecode);
    }

    // Frames() with another unit in place of the first SPS.
    static std::vector<TEST_FRAME_S> Beginning(const BYTES &vecSps)
    {
        std::vector<TEST_FRAME_S> vecFrames = Frames();
        vecFrames[0] = H265_WithSps(vecFrames[0], vecSps);
        return vecFrames;
    }

    // Whether a file may begin with a frame that has this unit as its SPS.
    bool MayBegin(const BYTES &vecSps, int32_t s32Format = MP4)
    {
        const size_t u32Packets = Record(s32Format, Beginning(vecSps)).vecPackets.size();
        EXPECT_EQ(u32Packets == 8 ? 0u : 1u, Warnings());
        EXPECT_TRUE(u32Packets == 8 || u32Packets == 4) << u32Packets;
        return u32Packets == 8;
    }
};

H265_SPS_S Plain()
{
    return H265_SPS_S();
}

H265_SPS_S WithSets(std::vector<H265_SET_S> vecSets, uint32_t u32Distance = 0)
{
    H265_SPS_S stSps;
    stSps.vecSets = std::move(vecSets);
    stSps.u32Distance = u32Distance;
    return stSps;
}

H265_SET_S ByDifference(uint32_t u32Pictures)
{
    H265_SET_S stSet;
    stSet.bByDifference = true;
    stSet.u32Pictures = u32Pictures;
    return stSet;
}

// Every part of the syntax, each alone and all of them.
std::vector<H265_SPS_S> Kinds()
{
    std::vector<H265_SPS_S> vecKinds(9, Plain());
    vecKinds[1].u32SubLayers = 6;
    vecKinds[1].u32SubLayerFlags = 3;
    vecKinds[1].bOrderOfEach = true;
    vecKinds[2].u32SubLayers = 2;
    vecKinds[2].u32SubLayerFlags = 1;
    vecKinds[3].u32Chroma = 3;
    vecKinds[3].bWindow = true;
    vecKinds[4].u32ScalingLists = 1;
    vecKinds[4].bPcm = true;
    vecKinds[5].u32ScalingLists = 2;
    vecKinds[6].u32ScalingLists = 3;
    // A set told by the difference to one of n pictures says of n + 1 whether they are used; all of them stay here.
    vecKinds[7] = WithSets({{1, 0}, {4, 2}, ByDifference(6), ByDifference(7), {0, 0}, ByDifference(0), {2, 2}}, 40);
    vecKinds[8] = vecKinds[7];
    vecKinds[8].u32SubLayers = 3;
    vecKinds[8].u32SubLayerFlags = 2;
    vecKinds[8].bOrderOfEach = true;
    vecKinds[8].u32Chroma = 3;
    vecKinds[8].u32Size = 8191;
    vecKinds[8].bWindow = true;
    vecKinds[8].u32ScalingLists = 3;
    vecKinds[8].bPcm = true;
    return vecKinds;
}

} // namespace

TEST_F(MuxerH265Sets, AFileBeginsWithTheNextSoundKeyFrame)
{
    for (const int32_t s32Format : {MP4, MOV})
    {
        const TEST_MEDIA_S stMedia = Record(s32Format, Beginning(H265_CutSps()), true);
        EXPECT_EQ(1u, Warnings());
        ASSERT_EQ(4u, stMedia.vecPackets.size());
        EXPECT_TRUE(stMedia.vecPackets[0].bKey);
        EXPECT_EQ(0, stMedia.vecPackets[0].s64Pts) << "the frames left out do not count";
        EXPECT_EQ(0, stMedia.vecStreams[0].s32DecodeErrors);
        EXPECT_EQ(4, stMedia.vecStreams[0].s32Decoded);
    }
}

TEST_F(MuxerH265Sets, AFileWithNoSoundKeyFrameHasNoVideo)
{
    std::vector<TEST_FRAME_S> vecFrames = Beginning(H265_CutSps());
    vecFrames[4] = vecFrames[0];
    for (const int32_t s32Format : {MP4, MOV})
    {
        EXPECT_TRUE(Record(s32Format, vecFrames).vecPackets.empty());
        EXPECT_EQ(1u, Warnings()) << "one for each file";
    }
}

TEST_F(MuxerH265Sets, TheAudioGoesOnMeanwhile)
{
    const STDOUT_CAPTURE capture;
    tagQN_RECORD_PARAM_S stParam = H265(MP4);
    stParam.stAudio = TEST_AudioParam();
    Open(stParam);
    const std::vector<TEST_FRAME_S> vecFrames = Beginning(H265_CutSps());
    for (size_t i = 0; i < 8; ++i)
    {
        WriteOne(vecFrames[i], true, 1000 + i * 40);
        WriteOne(TEST_EncodeAac()[i], false, 1000 + i * 21);
    }
    const TEST_MEDIA_S stMedia = Finish();
    EXPECT_EQ(4u, stMedia.Of(stMedia.VideoStream()).size());
    EXPECT_EQ(8u, stMedia.Of(stMedia.AudioStream()).size());
}

TEST_F(MuxerH265Sets, ASetThatIsDamagedLaterInAFileIsWritten)
{
    std::vector<TEST_FRAME_S> vecFrames = Frames();
    vecFrames[4] = H265_WithSps(vecFrames[4], H265_CutSps());
    for (const int32_t s32Format : {MP4, MOV})
    {
        EXPECT_EQ(8u, Record(s32Format, vecFrames).vecPackets.size());
        EXPECT_EQ(0u, Warnings());
    }
}

TEST_F(MuxerH265Sets, MatroskaIsNotOpenedWithOneThatIsCut)
{
    const TEST_FRAME_S stKey = H265_WithSps(Frames()[0], H265_CutSps());
    const std::pair<size_t, size_t> place = H265_PlaceOfSps(stKey);
    tagQN_RECORD_PARAM_S stParam = H265(MKV);
    BYTES vecSets(stKey.vecData.begin(), stKey.vecData.begin() + static_cast<ptrdiff_t>(place.first + place.second));
    stParam.stVideo.stSps = {vecSets.data(), static_cast<uint32_t>(vecSets.size())};
    ExpectRefused(stParam, {"avformat_write_header failed! Invalid data found when processing input\n"});
    // The same in stPps.
    stParam.stVideo.stSps = stParam.stVideo.stPps;
    vecSets =
        vecSets + BYTES(stParam.stVideo.stPps.pu8Data, stParam.stVideo.stPps.pu8Data + stParam.stVideo.stPps.u32Len);
    stParam.stVideo.stPps = {vecSets.data(), static_cast<uint32_t>(vecSets.size())};
    FAKE_PLATFORM_Reset();
    ExpectRefused(stParam, {"avformat_write_header failed! Invalid data found when processing input\n"});
}

// FFmpeg sees one stream of bytes: an SPS at the end of the one is cut unless the other one begins with a start code.
TEST_F(MuxerH265Sets, MatroskaTakesBothSetsAsOneStream)
{
    const STDOUT_CAPTURE capture;
    tagQN_RECORD_PARAM_S stParam = H265(MKV);
    BYTES vecAll(stParam.stVideo.stSps.pu8Data, stParam.stVideo.stSps.pu8Data + stParam.stVideo.stSps.u32Len);
    vecAll =
        vecAll + BYTES(stParam.stVideo.stPps.pu8Data, stParam.stVideo.stPps.pu8Data + stParam.stVideo.stPps.u32Len);
    // All three in the first, and an SPS on the border behind them, which goes on in the second.
    const BYTES vecSecond = BYTES{0, 0, 0, 1} + H265_MakeSps(Plain());
    vecAll = vecAll + BYTES(vecSecond.begin(), vecSecond.begin() + 20);
    BYTES vecRest(vecSecond.begin() + 20, vecSecond.end());
    stParam.stVideo.stSps = {vecAll.data(), static_cast<uint32_t>(vecAll.size())};
    stParam.stVideo.stPps = {vecRest.data(), static_cast<uint32_t>(vecRest.size())};
    Open(stParam);
}

TEST_F(MuxerH265Sets, EveryPartOfTheSyntaxIsReadToItsEnd)
{
    const std::vector<H265_SPS_S> vecKinds = Kinds();
    for (size_t i = 0; i < vecKinds.size(); ++i)
    {
        EXPECT_TRUE(MayBegin(H265_MakeSps(vecKinds[i]))) << i;
        EXPECT_TRUE(MayBegin(H265_MakeSps(vecKinds[i]), MOV)) << i;
        EXPECT_TRUE(MayBegin(H265_MakeSps(vecKinds[i], 0))) << i << ", nothing behind the sets";
        for (const int32_t s32Less : {1, 2, 3, 8, 9, 30})
        {
            EXPECT_FALSE(MayBegin(H265_MakeSps(vecKinds[i], s32Less))) << i << " less " << s32Less;
        }
    }
}

TEST_F(MuxerH265Sets, AnSpsCutAtAnyByteBeforeTheEndOfItsSetsIsRefused)
{
    const BYTES vecWhole = H265_MakeSps(Kinds()[7]);
    const BYTES vecNeeded = H265_MakeSps(Kinds()[7], 0);
    for (size_t i = 1; i < vecWhole.size(); ++i)
    {
        EXPECT_EQ(i >= vecNeeded.size(),
                  MayBegin(BYTES(vecWhole.begin(), vecWhole.begin() + static_cast<ptrdiff_t>(i))))
            << i << " of " << vecNeeded.size();
    }
}

TEST_F(MuxerH265Sets, WhatIsUnusualPasses)
{
    H265_SPS_S stSps = Plain();
    stSps.s64Sets = 65; // FFmpeg reads none of them
    EXPECT_TRUE(MayBegin(H265_MakeSps(stSps, 0)));
    stSps = Plain();
    stSps.u32Chroma = 77;
    stSps.u32Size = 0xfffffffe;
    EXPECT_TRUE(MayBegin(H265_MakeSps(stSps)));
    EXPECT_TRUE(MayBegin(H265_MakeSps(WithSets({{200, 200}, ByDifference(400), ByDifference(401)}))));
    EXPECT_TRUE(MayBegin(H265_MakeSps(WithSets(std::vector<H265_SET_S>(64)))));
    EXPECT_TRUE(MayBegin({0x44, 0x01})) << "no SPS at all";
}

TEST_F(MuxerH265Sets, EverySpsOfTheFirstFrameCounts)
{
    const BYTES vecCode = {0, 0, 0, 1};
    const BYTES vecShort = {0, 0, 1};
    const BYTES vecSound = H265_MakeSps(Plain());
    const BYTES vecCut = H265_CutSps();
    EXPECT_TRUE(MayBegin(vecSound + vecCode + vecSound));
    EXPECT_FALSE(MayBegin(vecSound + vecCode + vecCut));
    EXPECT_FALSE(MayBegin(vecCut + vecCode + vecSound));
    EXPECT_FALSE(MayBegin(vecSound + vecShort + vecCut));
    EXPECT_FALSE(MayBegin(vecCut + vecShort + vecSound));
    std::vector<TEST_FRAME_S> vecFrames = Frames();
    vecFrames[0].vecData = vecFrames[0].vecData + vecCode + vecCut; // behind the picture
    EXPECT_EQ(4u, Record(MP4, vecFrames).vecPackets.size());
}

TEST_F(MuxerH265Sets, AFrameThatFfmpegMakesNoSetsOfIsNotTheFirst)
{
    TEST_FRAME_S stEmpty;
    stEmpty.bKey = true;
    std::vector<TEST_FRAME_S> vecFrames = Beginning(H265_CutSps());
    vecFrames.insert(vecFrames.begin(), 2, stEmpty);
    for (const int32_t s32Format : {MP4, MOV})
    {
        (void)Record(s32Format, vecFrames);
        EXPECT_EQ(1u, Warnings());
        // Without a frame rate no packet has a time.
        FAKE_PLATFORM_Reset();
        const STDOUT_CAPTURE capture;
        tagQN_RECORD_PARAM_S stParam = H265(s32Format);
        stParam.stVideo.u32Fps = 0;
        Open(stParam);
        Write(Frames(), true, 1000, 40);
        Write(Beginning(H265_CutSps()), true, 2000, 40);
        (void)Finish();
        EXPECT_EQ(1u, Warnings());
    }
}

TEST_F(MuxerH265Sets, AnyBitMayBeWrongInTheFirstFrame)
{
    const std::pair<size_t, size_t> place = H265_PlaceOfSps(Frames()[0]);
    const size_t bits = (place.first + place.second + 12) * 8; // into the PPS
    size_t u32Left = 0;
    for (size_t i = 0; i < bits; ++i)
    {
        std::vector<TEST_FRAME_S> vecFrames = Frames();
        vecFrames[0].vecData = Flipped(vecFrames[0].vecData, i);
        u32Left += Record(i % 2 == 0 ? MP4 : MOV, vecFrames).vecPackets.size() == 4 ? 1 : 0;
    }
    EXPECT_LT(0u, u32Left);
    EXPECT_GT(bits / 4, u32Left) << "most damage is harmless";
}

TEST_F(MuxerH265Sets, ManyBitsMayBeWrongInTheSetsOfEveryKind)
{
    std::mt19937 random(20261122);
    const std::vector<H265_SPS_S> vecKinds = Kinds();
    for (int32_t i = 0; i < 600 / TEST_SLOW; ++i)
    {
        BYTES vecSps = H265_MakeSps(vecKinds[random() % vecKinds.size()]);
        for (uint32_t u32Flips = 1 + random() % 4; u32Flips > 0; --u32Flips)
        {
            vecSps = Flipped(vecSps, random() % (vecSps.size() * 8));
        }
        const std::vector<TEST_FRAME_S> vecFrames = Beginning(vecSps);
        (void)Record(i % 2 == 0 ? MP4 : MOV, vecFrames); // the limit of the calls is what is tested
        tagQN_RECORD_PARAM_S stParam = H265(MKV);
        BYTES vecSets = BYTES(vecFrames[0].vecData.begin(), vecFrames[0].vecData.begin() + 32) + vecSps;
        stParam.stVideo.stSps = {vecSets.data(), static_cast<uint32_t>(vecSets.size())};
        const STDOUT_CAPTURE capture;
        if (void *pWriter = FFMUXER_WriteOpen(&stParam, Path().c_str()))
        {
            EXPECT_EQ(0, FFMUXER_WriteClose(pWriter));
        }
    }
}

TEST_F(MuxerH265Sets, OtherContainersAndH264TakeEveryFrame)
{
    const std::vector<TEST_FRAME_S> vecDamaged = Beginning(H265_CutSps());
    EXPECT_EQ(8u, Record(TS, vecDamaged).vecPackets.size());
    EXPECT_EQ(0u, Warnings());
    EXPECT_EQ(8u, Record(MKV, vecDamaged).vecPackets.size()) << "its sets are those of the parameters";
    EXPECT_EQ(0u, Warnings());
    for (int32_t s32Format = MKV; s32Format <= MOV; ++s32Format)
    {
        // The H.264 unit of type 2 has the header byte of an H.265 SPS; and the sets of H.264 may be damaged.
        const std::vector<TEST_FRAME_S> &vecH264 = TEST_EncodeH264(64, 64, 25, 4, 8);
        for (size_t i = 0; i < 400; i += 3)
        {
            std::vector<TEST_FRAME_S> vecFrames = vecH264;
            vecFrames[0].vecData = Flipped(vecFrames[0].vecData, i) + BYTES{0, 0, 0, 1} + H265_CutSps();
            FAKE_PLATFORM_Reset();
            const STDOUT_CAPTURE capture;
            Open(H264(s32Format));
            Write(vecFrames, true, 1000, 40);
            const size_t u32Packets = Finish().vecPackets.size();
            EXPECT_TRUE(u32Packets == 8 || s32Format == TS) << s32Format << " " << i << ": " << u32Packets;
            EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
        }
    }
}
