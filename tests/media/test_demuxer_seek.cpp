#include "demuxer_fixture.h"

#include <cerrno>
#include <climits>

extern "C"
{
#include <libavformat/avformat.h>
#include <libavutil/error.h>
}

using namespace libquarrin;

namespace
{

const CONTAINER_S MKV = {QN_FILE_FMT_E_MKV, "matroska"};

class DemuxerSeek : public DEMUXER_TEST
{
protected:
    // Eight seconds, a key frame every two.
    void OpenClip(const CONTAINER_S &stContainer)
    {
        MakeAndOpen(stContainer, {SOURCE_H264(5, 10, 40)});
    }

    // Seeks, then the pts of the next frame in milliseconds; its key flag too.
    int64_t SeekAndGet(uint32_t u32Seconds, bool *pbKey)
    {
        EXPECT_LE(0, FFMUXER_ReadSeek(m_pReader, u32Seconds));
        const GOT_S stGot = TEST_Get(m_pReader);
        EXPECT_EQ(0, stGot.s32Ret);
        if (stGot.s32Ret != 0)
        {
            return -1;
        }
        tagQN_METADATA_S stMetadata{};
        EXPECT_EQ(0, FFMUXER_ReadMetadata(m_pReader, &stMetadata));
        *pbKey = stGot.bKey;
        EXPECT_EQ(0, FFMUXER_ReadReleaseFrame(m_pReader, stGot.pu8Data));
        return static_cast<int64_t>(stGot.u64Pts * 1000 / stMetadata.u32VideoTimeBaseDen);
    }
};

} // namespace

TEST_F(DemuxerSeek, LandsOnTheKeyFrameAtOrBeforeTheTime)
{
    const struct
    {
        uint32_t u32Seconds;
        int64_t s64Ms;
    } astCases[] = {{0, 0}, {1, 0}, {2, 2000}, {3, 2000}, {5, 4000}, {7, 6000}, {1, 0}, {6, 6000}};
    for (const CONTAINER_S &stContainer : TEST_CONTAINERS)
    {
        if (stContainer.enFormat == QN_FILE_FMT_E_TS)
        {
            continue; // has no index of key frames, see below
        }
        ASSERT_NO_FATAL_FAILURE(OpenClip(stContainer));
        for (const auto &st : astCases)
        {
            bool bKey = false;
            EXPECT_EQ(st.s64Ms, SeekAndGet(st.u32Seconds, &bKey)) << stContainer.pszMuxer << " " << st.u32Seconds;
            EXPECT_TRUE(bKey);
        }
        EXPECT_EQ(9u, TEST_ReadAll(m_pReader).vecFrames.size()); // the rest behind 6 s
        Close();
    }
}

TEST_F(DemuxerSeek, GoesBackAndForthInMpegTs)
{
    ASSERT_NO_FATAL_FAILURE(OpenClip({QN_FILE_FMT_E_TS, "mpegts"}));
    bool bKey = false;
    const int64_t s64Begin = SeekAndGet(0, &bKey);
    const int64_t s64Late = SeekAndGet(7, &bKey);
    EXPECT_LE(s64Late, s64Begin + 7000);
    EXPECT_GT(s64Late, s64Begin + 4000);
    EXPECT_EQ(s64Begin, SeekAndGet(0, &bKey));
}

TEST_F(DemuxerSeek, AsksForMicrosecondsOfTheDefaultStreamBackward)
{
    ASSERT_NO_FATAL_FAILURE(OpenClip(MKV));
    const struct
    {
        uint32_t u32Seconds;
        int64_t s64Time;
    } astCases[] = {{10, 10000000}, {0, 0}, {1, 1000000}, {3600, 3600000000}, {UINT_MAX, 4294967295000000}};
    for (const auto &st : astCases)
    {
        const int32_t s32Ret = FFMUXER_ReadSeek(m_pReader, st.u32Seconds);
        EXPECT_EQ(-1, FFMPEG_CALLS_Seek().s32Stream);
        EXPECT_EQ(st.s64Time, FFMPEG_CALLS_Seek().s64Time);
        EXPECT_EQ(AVSEEK_FLAG_BACKWARD, FFMPEG_CALLS_Seek().s32Flags);
        EXPECT_EQ(FFMPEG_CALLS_Seek().s32Result, s32Ret);
    }
}

TEST_F(DemuxerSeek, ReleasesTheFrameThatIsOut)
{
    ASSERT_NO_FATAL_FAILURE(OpenClip(MKV));
    ASSERT_EQ(0, TEST_Get(m_pReader).s32Ret);
    int32_t s32Ret = -1;
    std::string strPrinted;
    {
        STDOUT_CAPTURE capture;
        s32Ret = FFMUXER_ReadSeek(m_pReader, 4);
        strPrinted = capture.Text();
    }
    EXPECT_LE(0, s32Ret);
    ExpectOneLine(strPrinted, 6, "FFMUXER_ReadSeek", "ReadSeek: Cleaned up dangling packet.");
    FAKE_PLATFORM_Reset();
    const GOT_S stGot = TEST_Get(m_pReader); // nothing is in use
    EXPECT_EQ(0, stGot.s32Ret);
    EXPECT_EQ(4000u, stGot.u64Pts);
    EXPECT_EQ(0, FFMUXER_ReadReleaseFrame(m_pReader, stGot.pu8Data));
    EXPECT_LE(0, FFMUXER_ReadSeek(m_pReader, 4)); // silent without one
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(DemuxerSeek, FlushesWhateverTheSeekAnswers)
{
    ASSERT_NO_FATAL_FAILURE(OpenClip(MKV));
    FFMPEG_CALLS_FailNext("av_seek_frame", AVERROR(EPERM));
    FFMPEG_CALLS_FailNext("avformat_flush", AVERROR(EIO)); // does not matter
    EXPECT_EQ(AVERROR(EPERM), FFMUXER_ReadSeek(m_pReader, 4));
    EXPECT_EQ(1, FFMPEG_CALLS_Count("avformat_flush"));
    EXPECT_LE(0, FFMUXER_ReadSeek(m_pReader, 4));
    EXPECT_EQ(2, FFMPEG_CALLS_Count("avformat_flush"));
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    EXPECT_EQ("avformat_flush", FFMPEG_CALLS_Order().back());
}

TEST_F(DemuxerSeek, GoesOnAfterTheEndOfTheFile)
{
    for (const CONTAINER_S &stContainer : TEST_CONTAINERS)
    {
        ASSERT_NO_FATAL_FAILURE(OpenClip(stContainer));
        EXPECT_EQ(40u, TEST_ReadAll(m_pReader).vecFrames.size());
        EXPECT_LE(0, FFMUXER_ReadSeek(m_pReader, 0)) << stContainer.pszMuxer;
        EXPECT_EQ(40u, TEST_ReadAll(m_pReader).vecFrames.size()) << stContainer.pszMuxer;
        Close();
    }
}

TEST_F(DemuxerSeek, BehindTheEndNeitherHangsNorCrashes)
{
    for (const CONTAINER_S &stContainer : TEST_CONTAINERS)
    {
        ASSERT_NO_FATAL_FAILURE(OpenClip(stContainer));
        (void)FFMUXER_ReadSeek(m_pReader, UINT_MAX); // each container answers in its own way
        EXPECT_EQ(9, TEST_ReadAll(m_pReader).s32End) << stContainer.pszMuxer;
        Close();
    }
}

TEST_F(DemuxerSeek, WorksInRawAac)
{
    TEST_WriteAac(Path());
    Open(QN_FILE_FMT_E_AAC);
    EXPECT_EQ(20u, TEST_ReadAll(m_pReader).vecFrames.size());
    EXPECT_LE(0, FFMUXER_ReadSeek(m_pReader, 0));
    EXPECT_EQ(20u, TEST_ReadAll(m_pReader).vecFrames.size());
}
