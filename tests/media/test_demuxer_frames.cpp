#include "demuxer_fixture.h"

#include <cerrno>

extern "C"
{
#include <libavutil/error.h>
}

using namespace libquarrin;

namespace
{

const CONTAINER_S MKV = {QN_FILE_FMT_E_MKV, "matroska"};

class DemuxerFrames : public DEMUXER_TEST
{
protected:
    // What a call prints, with its result.
    template <typename CALL> static std::string Printed(CALL call, int32_t *ps32Ret)
    {
        STDOUT_CAPTURE capture;
        *ps32Ret = call();
        return capture.Text();
    }
};

} // namespace

TEST_F(DemuxerFrames, AreThePacketsOfTheFileOfEveryContainer)
{
    for (const CONTAINER_S &stContainer : TEST_CONTAINERS)
    {
        for (const bool bH265 : {false, true})
        {
            ASSERT_NO_FATAL_FAILURE(
                MakeAndOpen(stContainer, {SOURCE_Aac(), bH265 ? SOURCE_H265() : SOURCE_H264(), SOURCE_Aac(32000, 1)}));
            const READ_S stRead = TEST_ReadAll(m_pReader);
            const TEST_MEDIA_S stMedia = TEST_ReadMedia(Path());
            EXPECT_EQ(9, stRead.s32End);
            ASSERT_EQ(stMedia.vecPackets.size(), stRead.vecFrames.size());
            for (size_t i = 0; i < stRead.vecFrames.size(); ++i)
            {
                EXPECT_EQ(stMedia.vecPackets[i].vecBytes, stRead.vecFrames[i].vecBytes);
                EXPECT_EQ(stMedia.vecPackets[i].s64Pts, stRead.vecFrames[i].s64Pts);
                EXPECT_EQ(stMedia.vecPackets[i].bKey, stRead.vecFrames[i].bKey);
                EXPECT_EQ(stMedia.vecPackets[i].s32Stream == 1 ? 1 : 0, stRead.vecFrames[i].s32Stream);
            }
            Close();
        }
    }
}

TEST_F(DemuxerFrames, CarryTheTimesAndKeysOfTheSource)
{
    const int64_t as64Step[] = {40, 3600, 512, 512}; // 40 ms in the time base of the stream
    for (size_t i = 0; i < TEST_CONTAINERS.size(); ++i)
    {
        ASSERT_NO_FATAL_FAILURE(MakeAndOpen(TEST_CONTAINERS[i], {SOURCE_H264()}));
        const READ_S stRead = TEST_ReadAll(m_pReader);
        ASSERT_EQ(15u, stRead.vecFrames.size()) << TEST_CONTAINERS[i].pszMuxer;
        for (size_t n = 0; n < 15; ++n)
        {
            EXPECT_EQ(as64Step[i] * static_cast<int64_t>(n), stRead.vecFrames[n].s64Pts - stRead.vecFrames[0].s64Pts);
            EXPECT_EQ(n % 5 == 0, stRead.vecFrames[n].bKey);
            EXPECT_EQ(1, stRead.vecFrames[n].s32Stream);
        }
        Close();
    }
}

TEST_F(DemuxerFrames, OfAStreamThatWasNotChosenComeToo)
{
    ASSERT_NO_FATAL_FAILURE(MakeAndOpen(MKV, {SOURCE_Pcm(), SOURCE_H264(), SOURCE_H265(), SOURCE_Aac()}));
    const READ_S stRead = TEST_ReadAll(m_pReader);
    size_t u32Video = 0;
    for (const TEST_PACKET_S &st : stRead.vecFrames)
    {
        u32Video += st.s32Stream == 1 ? 1u : 0u;
    }
    EXPECT_EQ(15u, u32Video);
    EXPECT_EQ(10u + 15u + 15u + 20u, stRead.vecFrames.size());
}

TEST_F(DemuxerFrames, OfRawAacAreTheFramesWithTheirHeaders)
{
    TEST_WriteAac(Path());
    Open(QN_FILE_FMT_E_AAC);
    const READ_S stRead = TEST_ReadAll(m_pReader);
    EXPECT_EQ(9, stRead.s32End);
    const std::vector<TEST_FRAME_S> &vecSource = TEST_EncodeAac();
    ASSERT_EQ(vecSource.size(), stRead.vecFrames.size());
    for (size_t i = 0; i < vecSource.size(); ++i)
    {
        EXPECT_EQ(vecSource[i].vecData, stRead.vecFrames[i].vecBytes);
        EXPECT_EQ(0, stRead.vecFrames[i].s32Stream);
        EXPECT_TRUE(stRead.vecFrames[i].bKey);
    }
}

TEST_F(DemuxerFrames, OfTheLibrarysOwnFilesComeBack)
{
    for (const CONTAINER_S &stContainer : TEST_CONTAINERS)
    {
        const std::vector<TEST_FRAME_S> &vecSource = TEST_EncodeH264();
        tagQN_RECORD_PARAM_S stParam{};
        stParam.enFormat = stContainer.enFormat;
        stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, vecSource);
        void *pWriter = FFMUXER_WriteOpen(&stParam, Path().c_str());
        ASSERT_NE(nullptr, pWriter);
        for (size_t i = 0; i < vecSource.size(); ++i)
        {
            EXPECT_EQ(0, FFMUXER_WriteFrame(pWriter, vecSource[i].vecData.data(),
                                            static_cast<uint32_t>(vecSource[i].vecData.size()), 1000 + i * 40,
                                            vecSource[i].bKey, true));
        }
        EXPECT_EQ(0, FFMUXER_WriteClose(pWriter));
        ASSERT_NO_FATAL_FAILURE(Open(stContainer.enFormat));
        const READ_S stRead = TEST_ReadAll(m_pReader);
        EXPECT_EQ(vecSource.size(), stRead.vecFrames.size()) << stContainer.pszMuxer;
        Close();
    }
}

TEST_F(DemuxerFrames, ComeOneAtATime)
{
    ASSERT_NO_FATAL_FAILURE(MakeAndOpen(MKV, {SOURCE_H264()}));
    const GOT_S stFirst = TEST_Get(m_pReader);
    ASSERT_EQ(0, stFirst.s32Ret);
    const std::vector<uint8_t> vecBytes = stFirst.Bytes();

    GOT_S stSecond;
    int32_t s32Ret = 0;
    const std::string strPrinted = Printed(
        [&]
        {
            stSecond = TEST_Get(m_pReader);
            return stSecond.s32Ret;
        },
        &s32Ret);
    EXPECT_EQ(1, s32Ret);
    EXPECT_TRUE(stSecond.IsUntouched());
    ExpectOneLine(strPrinted, 3, "FFMUXER_ReadGetFrame", "frame in use, need release first");
    EXPECT_EQ(vecBytes, stFirst.Bytes()); // the first one stays valid
    EXPECT_EQ(0, FFMUXER_ReadReleaseFrame(m_pReader, stFirst.pu8Data));
    EXPECT_EQ(14u, TEST_ReadAll(m_pReader).vecFrames.size()); // none was lost
}

TEST_F(DemuxerFrames, AreNotReleasedByAnotherPointer)
{
    ASSERT_NO_FATAL_FAILURE(MakeAndOpen(MKV, {SOURCE_H264()}));
    const GOT_S stGot = TEST_Get(m_pReader);
    ASSERT_EQ(0, stGot.s32Ret);
    const std::vector<uint8_t> vecBytes = stGot.Bytes();
    uint8_t u8Other = 0;
    for (uint8_t *pu8Wrong : {&u8Other, static_cast<uint8_t *>(nullptr), stGot.pu8Data + 1})
    {
        FAKE_PLATFORM_Reset();
        int32_t s32Ret = -1;
        const std::string strPrinted = Printed([&] { return FFMUXER_ReadReleaseFrame(m_pReader, pu8Wrong); }, &s32Ret);
        EXPECT_EQ(0, s32Ret);
        ExpectOneLine(strPrinted, 3, "FFMUXER_ReadReleaseFrame", "frame not match to release");
        EXPECT_EQ(vecBytes, stGot.Bytes());
        EXPECT_EQ(1, TEST_Get(m_pReader).s32Ret); // it is still out
    }
    EXPECT_EQ(0, FFMUXER_ReadReleaseFrame(m_pReader, stGot.pu8Data));
    EXPECT_EQ(14u, TEST_ReadAll(m_pReader).vecFrames.size());
}

TEST_F(DemuxerFrames, AreReleasedOnce)
{
    ASSERT_NO_FATAL_FAILURE(MakeAndOpen(MKV, {SOURCE_H264()}));
    int32_t s32Ret = 0;
    uint8_t u8Byte = 0;
    std::string strPrinted = Printed([&] { return FFMUXER_ReadReleaseFrame(m_pReader, &u8Byte); }, &s32Ret);
    EXPECT_EQ(-1, s32Ret);
    ExpectOneLine(strPrinted, 3, "FFMUXER_ReadReleaseFrame", "frame no get yet, need get first");

    const GOT_S stGot = TEST_Get(m_pReader);
    EXPECT_EQ(0, FFMUXER_ReadReleaseFrame(m_pReader, stGot.pu8Data));
    FAKE_PLATFORM_Reset();
    strPrinted = Printed([&] { return FFMUXER_ReadReleaseFrame(m_pReader, stGot.pu8Data); }, &s32Ret);
    EXPECT_EQ(-1, s32Ret);
    ExpectOneLine(strPrinted, 3, "FFMUXER_ReadReleaseFrame", "frame no get yet, need get first");
}

TEST_F(DemuxerFrames, EndSilentlyAndAreAskedForAgain)
{
    ASSERT_NO_FATAL_FAILURE(MakeAndOpen(MKV, {SOURCE_H264()}));
    EXPECT_EQ(9, TEST_ReadAll(m_pReader).s32End);
    const int32_t s32Reads = FFMPEG_CALLS_Count("av_read_frame");
    GOT_S stGot;
    int32_t s32Ret = 0;
    const std::string strPrinted = Printed(
        [&]
        {
            stGot = TEST_Get(m_pReader);
            return stGot.s32Ret;
        },
        &s32Ret);
    EXPECT_EQ(9, s32Ret);
    EXPECT_TRUE(stGot.IsUntouched());
    EXPECT_EQ("", strPrinted);
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    EXPECT_EQ(s32Reads + 1, FFMPEG_CALLS_Count("av_read_frame"));
    EXPECT_EQ(-1, FFMUXER_ReadReleaseFrame(m_pReader, nullptr)); // nothing is out
}

TEST_F(DemuxerFrames, ThatCannotBeReadGiveEightAndCanBeAskedForAgain)
{
    ASSERT_NO_FATAL_FAILURE(MakeAndOpen(MKV, {SOURCE_H264()}));
    FFMPEG_CALLS_FailNext("av_read_frame", AVERROR(EIO));
    GOT_S stGot;
    int32_t s32Ret = 0;
    const std::string strPrinted = Printed(
        [&]
        {
            stGot = TEST_Get(m_pReader);
            return stGot.s32Ret;
        },
        &s32Ret);
    EXPECT_EQ(8, s32Ret);
    EXPECT_TRUE(stGot.IsUntouched());
    ExpectOneLine(strPrinted, 3, "FFMUXER_ReadGetFrame", "av_read_frame failed, ret=Input/output error");
    EXPECT_EQ(15u, TEST_ReadAll(m_pReader).vecFrames.size());
}

TEST_F(DemuxerFrames, WithoutMemoryGiveTen)
{
    ASSERT_NO_FATAL_FAILURE(MakeAndOpen(MKV, {SOURCE_H264()}));
    FFMPEG_CALLS_FailNext("av_packet_alloc");
    GOT_S stGot;
    int32_t s32Ret = 0;
    const std::string strPrinted = Printed(
        [&]
        {
            stGot = TEST_Get(m_pReader);
            return stGot.s32Ret;
        },
        &s32Ret);
    EXPECT_EQ(10, s32Ret);
    EXPECT_TRUE(stGot.IsUntouched());
    ExpectOneLine(strPrinted, 3, "FFMUXER_ReadGetFrame", "av_packet_alloc failed");
    EXPECT_EQ(15u, TEST_ReadAll(m_pReader).vecFrames.size());
}

TEST_F(DemuxerFrames, AreRefusedWithoutAReader)
{
    const GOT_S stGot = TEST_Get(nullptr);
    EXPECT_EQ(1, stGot.s32Ret);
    EXPECT_TRUE(stGot.IsUntouched());
    uint8_t u8Byte = 0;
    EXPECT_EQ(1, FFMUXER_ReadReleaseFrame(nullptr, &u8Byte));
    EXPECT_EQ(-1, FFMUXER_ReadSeek(nullptr, 3));
    EXPECT_EQ(-1, FFMUXER_ReadClose(nullptr));
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    EXPECT_TRUE(FFMPEG_CALLS_Order().empty());
}

TEST_F(DemuxerFrames, ThatAreOutGoWithTheClose)
{
    ASSERT_NO_FATAL_FAILURE(MakeAndOpen(MKV, {SOURCE_H264()}));
    EXPECT_EQ(0, TEST_Get(m_pReader).s32Ret);
    Close(); // a leak checker sees what stays
    EXPECT_EQ(1, FFMPEG_CALLS_Count("avformat_close_input"));
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}
