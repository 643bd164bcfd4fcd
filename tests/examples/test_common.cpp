// The parts of the examples that are made to be copied: the frame queue and the two functions on frames.

#include <algorithm>

#include "common/clip.h"
#include "common/frame_queue.h"
#include "examples_test.h"

using namespace libquarrin;

static Frame FrameOf(uint64_t u64Pts, bool bKey)
{
    Frame frame;
    frame.pts = u64Pts;
    frame.key = bKey;
    return frame;
}

// The pts that are in a queue.
static std::vector<uint64_t> Drain(FrameQueue &queue)
{
    queue.Close();
    std::vector<uint64_t> vecPts;
    Frame frame;
    while (queue.Pop(frame))
    {
        vecPts.push_back(frame.pts);
    }
    return vecPts;
}

TEST(ExampleQueue, GivesFramesInTheirOrder)
{
    FrameQueue queue;
    queue.SetSize(3);
    bool bDropping = true;
    for (uint64_t u = 1; u <= 3; u++)
    {
        queue.Push(FrameOf(u, u == 1));
    }
    EXPECT_EQ(0u, queue.Lost(bDropping));
    EXPECT_FALSE(bDropping);
    EXPECT_EQ((std::vector<uint64_t>{1, 2, 3}), Drain(queue));
}

TEST(ExampleQueue, LosesUpToTheNextKeyFrameThatFindsRoom)
{
    FrameQueue queue;
    queue.SetSize(2);
    queue.Push(FrameOf(1, true));
    queue.Push(FrameOf(2, false));
    queue.Push(FrameOf(3, false)); // no room
    queue.Push(FrameOf(4, true));  // a key frame, and no room
    Frame frame;
    EXPECT_TRUE(queue.Pop(frame));
    queue.Push(FrameOf(5, false)); // room, but nothing to decode it from
    bool bDropping = false;
    EXPECT_EQ(3u, queue.Lost(bDropping));
    EXPECT_TRUE(bDropping);
    queue.Push(FrameOf(6, true));
    EXPECT_EQ(3u, queue.Lost(bDropping));
    EXPECT_FALSE(bDropping);
    EXPECT_EQ((std::vector<uint64_t>{2, 6}), Drain(queue));
}

TEST(ExampleClip, MakesFourByteStartCodesOfEverything)
{
    const std::vector<uint8_t> vecWanted = {0, 0, 0, 1, 0x67, 5, 0, 0, 0, 1, 0x65, 9, 8};
    const std::vector<std::vector<uint8_t>> vecFrames = {
        vecWanted,
        {0, 0, 1, 0x67, 5, 0, 0, 1, 0x65, 9, 8},
        {0, 0, 0, 1, 0x67, 5, 0, 0, 1, 0x65, 9, 8, 0},
        {0, 0, 0, 2, 0x67, 5, 0, 0, 0, 3, 0x65, 9, 8},
    };
    for (const std::vector<uint8_t> &vecFrame : vecFrames)
    {
        EXPECT_EQ(vecWanted, ToAnnexB(vecFrame.data(), vecFrame.size()));
    }
    // A length of 256 to 511 looks like a start code.
    std::vector<uint8_t> vecLong = {0, 0, 1, 0x2c};
    vecLong.resize(4 + 300, 7);
    std::vector<uint8_t> vecLongWanted = {0, 0, 0, 1};
    vecLongWanted.resize(4 + 300, 7);
    EXPECT_EQ(vecLongWanted, ToAnnexB(vecLong.data(), vecLong.size()));
    const std::vector<uint8_t> vecCut = {0, 0, 0, 9, 0x65};
    EXPECT_TRUE(ToAnnexB(vecCut.data(), vecCut.size()).empty());
    EXPECT_TRUE(ToAnnexB(nullptr, 0).empty());
}

TEST(ExampleClip, FindsTheParameterSetsOfBothCodecs)
{
    for (const QN_CODEC_TYPE_E enCodec : {QN_CODEC_H264, QN_CODEC_H265})
    {
        const bool bH265 = enCodec == QN_CODEC_H265;
        const std::vector<TEST_FRAME_S> &vecFrames = bH265 ? TEST_EncodeH265() : TEST_EncodeH264();
        const tagQN_STREAM_PARAM_S stWanted = TEST_VideoParam(enCodec, vecFrames);
        std::vector<uint8_t> vecKey = vecFrames[0].vecData;
        std::vector<uint8_t> vecSps;
        std::vector<uint8_t> vecPps;
        EXPECT_TRUE(FindParameterSets(vecKey, bH265, vecSps, vecPps));
        EXPECT_EQ(std::vector<uint8_t>(stWanted.stSps.pu8Data, stWanted.stSps.pu8Data + stWanted.stSps.u32Len), vecSps);
        EXPECT_EQ(std::vector<uint8_t>(stWanted.stPps.pu8Data, stWanted.stPps.pu8Data + stWanted.stPps.u32Len), vecPps);
        std::vector<uint8_t> vecPlain = vecFrames[1].vecData;
        vecSps.clear();
        vecPps.clear();
        EXPECT_FALSE(FindParameterSets(vecPlain, bH265, vecSps, vecPps));
    }
}
