// The FFmpeg writer: the time stamp of every packet.

#include "muxer_fixture.h"

using namespace libquarrin;

using STAMPS = std::vector<int64_t>;

class MuxerPts : public MUXER_TEST
{
protected:
    // 0, 3600, 7200: 40 ms in ticks of MPEG-TS.
    static STAMPS Every3600(int64_t s64Count)
    {
        STAMPS vecStamps;
        for (int64_t i = 0; i < s64Count; ++i)
        {
            vecStamps.push_back(i * 3600);
        }
        return vecStamps;
    }
};

TEST_F(MuxerPts, MatroskaCountsMillisecondsFromTheFirstPts)
{
    Open(H264(0));
    WriteAt(TEST_EncodeH264(), true, {1000, 1040, 1080});
    const TEST_MEDIA_S stMedia = Finish();
    ASSERT_EQ(1u, stMedia.vecStreams.size());
    EXPECT_EQ(1, stMedia.vecStreams[0].s32TimeBaseNum);
    EXPECT_EQ(1000, stMedia.vecStreams[0].s32TimeBaseDen);
    EXPECT_EQ((STAMPS{0, 40, 80}), TEST_Stamps(stMedia));
}

TEST_F(MuxerPts, MpegTsCountsNinetiethsFromTheFirstPts)
{
    Open(H264(1));
    Write(TEST_EncodeH264(), true, 1000, 40);
    const TEST_MEDIA_S stMedia = Finish(true);
    ASSERT_EQ(1u, stMedia.vecStreams.size());
    EXPECT_EQ(90000, stMedia.vecStreams[0].s32TimeBaseDen);
    EXPECT_EQ(Every3600(15), TEST_Stamps(stMedia));
}

TEST_F(MuxerPts, AFirstPtsOfZeroMakesTheSecondFrameTheFirstOnceMore)
{
    Open(H264(0));
    WriteAt(TEST_EncodeH264(), true, {0, 40, 80});
    EXPECT_EQ((STAMPS{0, 0, 40}), TEST_Stamps(Finish()));
    Open(H264(1));
    Write(TEST_EncodeH264(), true, 0, 40);
    STAMPS vecExpected = Every3600(14);
    vecExpected.insert(vecExpected.begin(), 0);
    EXPECT_EQ(vecExpected, TEST_Stamps(Finish(true)));
}

TEST_F(MuxerPts, SeveralPtsOfZeroStayUnset)
{
    Open(H264(0));
    WriteAt(TEST_EncodeH264(), true, {0, 0, 500, 540});
    EXPECT_EQ((STAMPS{0, 0, 0, 40}), TEST_Stamps(Finish()));
}

TEST_F(MuxerPts, BothStreamsCountFromTheFirstFrameOfEither)
{
    for (int32_t s32Format : {0, 1})
    {
        const int64_t s64Ms = s32Format == 0 ? 1 : 90;
        Open(Both(s32Format));
        WriteOne(TEST_EncodeH264()[0], true, 5000);
        WriteOne(TEST_EncodeAac()[0], false, 5010);
        WriteOne(TEST_EncodeAac()[1], false, 5031);
        WriteOne(TEST_EncodeH264()[1], true, 5040);
        TEST_MEDIA_S stMedia = Finish(true);
        EXPECT_EQ((STAMPS{0, 40 * s64Ms}), TEST_Stamps(stMedia, stMedia.VideoStream()));
        EXPECT_EQ((STAMPS{10 * s64Ms, 31 * s64Ms}), TEST_Stamps(stMedia, stMedia.AudioStream()));

        Open(Both(s32Format));
        WriteOne(TEST_EncodeAac()[0], false, 5000);
        WriteOne(TEST_EncodeH264()[0], true, 5007);
        WriteOne(TEST_EncodeAac()[1], false, 5021);
        WriteOne(TEST_EncodeH264()[1], true, 5047);
        stMedia = Finish(true);
        EXPECT_EQ((STAMPS{7 * s64Ms, 47 * s64Ms}), TEST_Stamps(stMedia, stMedia.VideoStream()));
        EXPECT_EQ((STAMPS{0, 21 * s64Ms}), TEST_Stamps(stMedia, stMedia.AudioStream()));
    }
}

TEST_F(MuxerPts, TheFirstPtsIsTakenAsANumberWhateverTheTimeBases)
{
    // The distance is made before the time base is looked at: audio pts count 1/48000 s from the video's 1000.
    tagQN_RECORD_PARAM_S stParam = Both(0);
    stParam.stAudio.u32TimeBaseDen = 48000;
    Open(stParam);
    WriteOne(TEST_EncodeH264()[0], true, 1000);
    WriteOne(TEST_EncodeAac()[0], false, 1000 + 480);
    WriteOne(TEST_EncodeH264()[1], true, 1040);
    WriteOne(TEST_EncodeAac()[1], false, 1000 + 2400);
    const TEST_MEDIA_S stMedia = Finish();
    EXPECT_EQ((STAMPS{0, 40}), TEST_Stamps(stMedia, 0));
    EXPECT_EQ((STAMPS{10, 50}), TEST_Stamps(stMedia, 1));
}

TEST_F(MuxerPts, AFrameOfAMissingStreamIsNotTheFirst)
{
    Open(H264(0));
    WriteOne(TEST_EncodeAac()[0], false, 100);
    WriteAt(TEST_EncodeH264(), true, {1000, 1040});
    const TEST_MEDIA_S stMedia = Finish();
    EXPECT_EQ(1u, stMedia.vecStreams.size());
    EXPECT_EQ((STAMPS{0, 40}), TEST_Stamps(stMedia));
}

TEST_F(MuxerPts, TheHostsTimeBaseIsRescaledToTheNearestTick)
{
    const struct
    {
        uint32_t u32Num;
        uint32_t u32Den;
        std::vector<uint64_t> vecPts;
        STAMPS vecExpected; // milliseconds
    } astCases[] = {
        {1, 90000, {90000, 93003, 96006, 99009}, {0, 33, 67, 100}},
        {1, 1000000, {7, 40007, 80507}, {0, 40, 81}},
        {1001, 30000, {100, 101, 102, 103}, {0, 33, 67, 100}},
        {1, 1000000000, {1000000000, 1040000000}, {0, 40}},
        {1, 25, {1, 2, 3}, {0, 40, 80}},
    };
    for (const auto &stCase : astCases)
    {
        tagQN_RECORD_PARAM_S stParam = H264(0);
        stParam.stVideo.u32TimeBaseNum = stCase.u32Num;
        stParam.stVideo.u32TimeBaseDen = stCase.u32Den;
        Open(stParam);
        WriteAt(TEST_EncodeH264(), true, stCase.vecPts);
        EXPECT_EQ(stCase.vecExpected, TEST_Stamps(Finish())) << stCase.u32Num << "/" << stCase.u32Den;
    }
}

TEST_F(MuxerPts, LargePtsCountLikeSmallOnes)
{
    const uint64_t u64Base = 0xfffffffffffff000u; // as a signed number it is below 0
    Open(H264(0));
    WriteAt(TEST_EncodeH264(), true, {u64Base, u64Base + 40, u64Base + 80});
    EXPECT_EQ((STAMPS{0, 40, 80}), TEST_Stamps(Finish()));
    Open(H264(0));
    WriteAt(TEST_EncodeH264(), true, {1760000000000u, 1760000000040u});
    EXPECT_EQ((STAMPS{0, 40}), TEST_Stamps(Finish()));
}

TEST_F(MuxerPts, EveryFileCountsFromItsOwnFirstPts)
{
    for (uint64_t u64First : {1000u, 61000u})
    {
        Open(H264(0));
        WriteAt(TEST_EncodeH264(), true, {u64First, u64First + 40});
        EXPECT_EQ((STAMPS{0, 40}), TEST_Stamps(Finish()));
    }
}

TEST_F(MuxerPts, Mp4AndMovCountFramesAndIgnoreThePts)
{
    for (int32_t s32Format : {2, 3})
    {
        Open(H264(s32Format));
        WriteAt(TEST_EncodeH264(), true, {77777, 5, 0, 0, 123456789});
        const TEST_MEDIA_S stMedia = Finish();
        ASSERT_EQ(1u, stMedia.vecStreams.size());
        EXPECT_EQ(90000, stMedia.vecStreams[0].s32TimeBaseDen);
        EXPECT_EQ((STAMPS{0, 3600, 7200, 10800, 14400}), TEST_Stamps(stMedia));
    }
}

TEST_F(MuxerPts, Mp4AndMovTakeTheFrameRateAsDeclared)
{
    const struct
    {
        uint32_t u32Fps;
        STAMPS vecExpected; // 1/90000 s
    } astCases[] = {{25, {0, 3600, 7200, 10800}},
                    {30, {0, 3000, 6000, 9000}},
                    {7, {0, 12857, 25714, 38571}},
                    {1, {0, 90000, 180000, 270000}},
                    {60, {0, 1500, 3000, 4500}}};
    for (const auto &stCase : astCases)
    {
        tagQN_RECORD_PARAM_S stParam = H264(2 + static_cast<int32_t>(stCase.u32Fps) % 2);
        stParam.stVideo.u32Fps = stCase.u32Fps;
        Open(stParam);
        WriteAt(TEST_EncodeH264(), true, {1, 2, 3, 4});
        EXPECT_EQ(stCase.vecExpected, TEST_Stamps(Finish())) << stCase.u32Fps;
    }
}

TEST_F(MuxerPts, Mp4AndMovCountAFrameOfAudioAs1024Samples)
{
    for (int32_t s32Format : {2, 3})
    {
        for (int32_t s32Rate : {48000, 44100, 16000})
        {
            tagQN_RECORD_PARAM_S stParam = Aac(s32Format);
            stParam.stAudio = TEST_AudioParam(s32Rate, 2);
            Open(stParam);
            WriteAt(TEST_EncodeAac(s32Rate), false, {9, 9, 9, 9});
            const TEST_MEDIA_S stMedia = Finish();
            ASSERT_EQ(1u, stMedia.vecStreams.size());
            EXPECT_EQ(s32Rate, stMedia.vecStreams[0].s32TimeBaseDen);
            EXPECT_EQ((STAMPS{0, 1024, 2048, 3072}), TEST_Stamps(stMedia)) << s32Rate;
        }
    }
}

TEST_F(MuxerPts, Mp4AndMovCountTheStreamsApart)
{
    for (int32_t s32Format : {2, 3})
    {
        Open(Both(s32Format));
        WriteOne(TEST_EncodeAac()[0], false, 1);
        WriteOne(TEST_EncodeAac()[1], false, 2);
        WriteOne(TEST_EncodeH264()[0], true, 900);
        WriteOne(TEST_EncodeAac()[2], false, 3);
        WriteOne(TEST_EncodeH264()[1], true, 901);
        const TEST_MEDIA_S stMedia = Finish();
        EXPECT_EQ((STAMPS{0, 3600}), TEST_Stamps(stMedia, 0));
        EXPECT_EQ((STAMPS{0, 1024, 2048}), TEST_Stamps(stMedia, 1));
    }
}

TEST_F(MuxerPts, AFrameThatCannotBeTakenIsNotCounted)
{
    const std::vector<TEST_FRAME_S> &vecFrames = TEST_EncodeH264();
    Open(H264(2));
    WriteOne(vecFrames[0], true, 1);
    EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, vecFrames[1].vecData.data(), 0xffffffffu, 2, false, true));
    EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, vecFrames[1].vecData.data(), 0x7fffffffu, 2, false, true));
    EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, nullptr, 10, 2, false, true));
    WriteOne(vecFrames[1], true, 3);
    EXPECT_EQ((STAMPS{0, 3600}), TEST_Stamps(Finish()));
}

TEST_F(MuxerPts, ATimeBaseWithNumeratorZeroPutsEveryFrameAtZero)
{
    tagQN_RECORD_PARAM_S stParam = H264(0);
    stParam.stVideo.u32TimeBaseNum = 0;
    Open(stParam);
    WriteAt(TEST_EncodeH264(), true, {1000, 1040, 1080});
    EXPECT_EQ((STAMPS{0, 0, 0}), TEST_Stamps(Finish()));
}

TEST_F(MuxerPts, TimeBasesThatAreNoFractionDoNotStopTheWriter)
{
    const uint32_t aau32Bases[][2] = {
        {1, 0}, {0, 0}, {1, 0x80000000u}, {0xffffffffu, 1000}, {0xffffffffu, 0xffffffffu}};
    for (const auto &au32Base : aau32Bases)
    {
        for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
        {
            tagQN_RECORD_PARAM_S stParam = Both(s32Format);
            stParam.stVideo.u32TimeBaseNum = au32Base[0];
            stParam.stVideo.u32TimeBaseDen = au32Base[1];
            Open(stParam);
            for (size_t i = 0; i < 5; ++i)
            {
                WriteOne(TEST_EncodeH264()[i], true, 1000 + i * 40);
                WriteOne(TEST_EncodeAac()[i], false, 1000 + i * 21);
            }
            const TEST_MEDIA_S stMedia = Finish(true);
            const int32_t s32Audio = stMedia.AudioStream();
            ASSERT_LE(0, s32Audio);
            EXPECT_EQ(5u, stMedia.Of(s32Audio).size()); // the other stream is not hurt
        }
    }
}

TEST_F(MuxerPts, AFrameRateOfZeroDoesNotStopTheWriter)
{
    for (uint32_t u32Fps : {0u, 0x80000000u, 0xffffffffu})
    {
        for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
        {
            tagQN_RECORD_PARAM_S stParam = H264(s32Format);
            stParam.stVideo.u32Fps = u32Fps;
            Open(stParam);
            Write(TEST_EncodeH264(), true, 1000, 40);
            const TEST_MEDIA_S stMedia = Finish();
            EXPECT_EQ(1u, stMedia.vecStreams.size()) << u32Fps << " " << s32Format;
        }
    }
}
