// The FFmpeg writer: frames, bytes written, and the end of a file.

#include "muxer_fixture.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

extern "C"
{
#include <libavutil/mem.h>
}

using namespace libquarrin;

class MuxerFrames : public MUXER_TEST
{
protected:
    int64_t SizeOnDisk() const
    {
        struct stat stFile = {};
        return stat(Path().c_str(), &stFile) == 0 ? static_cast<int64_t>(stFile.st_size) : -1;
    }
};

TEST_F(MuxerFrames, ANullWriterIsRefused)
{
    const unsigned char au8Frame[8] = {};
    EXPECT_EQ(-1, FFMUXER_WriteFrame(nullptr, au8Frame, sizeof(au8Frame), 1, true, true));
    EXPECT_EQ(-1, FFMUXER_WriteClose(nullptr));
    EXPECT_EQ(-1, FFMUXER_GetWriteBytes(nullptr));
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(MuxerFrames, AFrameOfAStreamThatIsNotEnabledIsIgnored)
{
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        Open(H264(s32Format));
        Write(TEST_EncodeAac(), false, 1000, 21);
        Write(TEST_EncodeH264(), true, 1000, 40);
        TEST_MEDIA_S stMedia = Finish(true);
        EXPECT_EQ(1u, stMedia.vecStreams.size());
        EXPECT_EQ(15u, stMedia.vecPackets.size());
        Open(Aac(s32Format));
        Write(TEST_EncodeH264(), true, 1000, 40);
        Write(TEST_EncodeAac(), false, 1000, 21);
        stMedia = Finish(true);
        EXPECT_EQ(1u, stMedia.vecStreams.size());
        EXPECT_EQ(20u, stMedia.vecPackets.size());
    }
}

TEST_F(MuxerFrames, ALengthOfZeroIsAnEmptyPacketThatCounts)
{
    Open(H264(2));
    WriteOne(TEST_EncodeH264()[0], true, 1);
    EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, TEST_EncodeH264()[1].vecData.data(), 0, 2, false, true));
    WriteOne(TEST_EncodeH264()[1], true, 3);
    // FFmpeg's MP4 muxer keeps no sample without bytes.
    EXPECT_EQ((std::vector<int64_t>{0, 7200}), TEST_Stamps(Finish()));
}

TEST_F(MuxerFrames, ALengthWithoutBytesIsLeftOutAndDoesNotCount)
{
    Open(H264(2));
    WriteOne(TEST_EncodeH264()[0], true, 1);
    for (const uint32_t u32Len : {1u, 2u, 100000u})
    {
        EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, nullptr, u32Len, 2, false, true));
    }
    WriteOne(TEST_EncodeH264()[1], true, 3);
    EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, nullptr, 0, 4, false, true)); // as any frame without bytes
    WriteOne(TEST_EncodeH264()[2], true, 5);
    EXPECT_EQ((std::vector<int64_t>{0, 3600, 10800}), TEST_Stamps(Finish()));
}

TEST_F(MuxerFrames, EmptyPacketsBreakNoContainer)
{
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        Open(Both(s32Format));
        const unsigned char u8None = 0;
        EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, &u8None, 0, 1000, true, true));
        EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, &u8None, 0, 1000, true, false));
        Write(TEST_EncodeH264(), true, 1040, 40);
        Write(TEST_EncodeAac(), false, 1040, 21);
        EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, nullptr, 0, 3000, true, true));
        const TEST_MEDIA_S stMedia = Finish(true, true);
        ASSERT_EQ(2u, stMedia.vecStreams.size()) << s32Format;
        EXPECT_LE(14, stMedia.vecStreams[0].s32Decoded) << s32Format;
    }
}

TEST_F(MuxerFrames, TheDataIsCopied)
{
    std::vector<TEST_FRAME_S> vecFrames = TEST_EncodeH264();
    Open(Both(0)); // with a second stream FFmpeg holds packets back
    for (size_t i = 0; i < vecFrames.size(); ++i)
    {
        WriteOne(vecFrames[i], true, 1000 + i * 40);
        std::fill(vecFrames[i].vecData.begin(), vecFrames[i].vecData.end(), uint8_t{0});
    }
    const TEST_MEDIA_S stMedia = Finish(true, true);
    ASSERT_LE(1u, stMedia.vecStreams.size());
    EXPECT_EQ(15, stMedia.vecStreams[0].s32Decoded);
}

TEST_F(MuxerFrames, StreamsAreInterleavedByTime)
{
    Open(Both(0));
    Write(TEST_EncodeH264(), true, 1000, 40); // all video first
    Write(TEST_EncodeAac(), false, 1000, 21);
    const TEST_MEDIA_S stMedia = Finish();
    ASSERT_EQ(35u, stMedia.vecPackets.size());
    for (size_t i = 1; i < stMedia.vecPackets.size(); ++i)
    {
        EXPECT_LE(stMedia.vecPackets[i - 1].s64Pts, stMedia.vecPackets[i].s64Pts) << i; // one time base
    }
}

TEST_F(MuxerFrames, AFrameThatFFmpegRefusesIsNotReported)
{
    // MPEG-TS takes no stamp twice; nothing but a start code makes H.264 for it.
    Open(H264(1));
    const unsigned char au8Junk[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(0, FFMUXER_WriteFrame(m_pWriter, au8Junk, sizeof(au8Junk), 1000, true, true));
    WriteAt(TEST_EncodeH264(), true, {1040, 1040, 1000, 1080, 1120, 1160, 1200, 1240, 1280, 1320, 1360});
    EXPECT_EQ((std::vector<int64_t>{3600, 7200, 10800, 14400, 18000, 21600, 25200, 28800, 32400}),
              TEST_Stamps(Finish(true)));
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(MuxerFrames, AFrameWithoutMemoryIsDroppedAndTheNextIsWritten)
{
    Open(H264(2));
    WriteOne(TEST_EncodeH264()[0], true, 1);
    av_max_alloc(16);
    WriteOne(TEST_EncodeH264()[1], true, 2); // not even the packet
    av_max_alloc(INT32_MAX);
    WriteOne(TEST_EncodeH264()[2], true, 3);
    const TEST_MEDIA_S stMedia = Finish();
    EXPECT_EQ((std::vector<int64_t>{0, 3600}), TEST_Stamps(stMedia));
    ASSERT_EQ(2u, stMedia.vecPackets.size());
    EXPECT_EQ(TEST_EncodeH264()[2].vecData.size(), static_cast<size_t>(stMedia.vecPackets[1].s32Size));
}

TEST_F(MuxerFrames, AFileWithoutMemoryForItsParameterSetsIsNotBegun)
{
    for (const bool bH265 : {false, true})
    {
        tagQN_RECORD_PARAM_S stParam = bH265 ? H265(0) : H264(0);
        tagQN_BYTES &stSps = stParam.stVideo.stSps;
        std::vector<uint8_t> vecLong(stSps.pu8Data, stSps.pu8Data + stSps.u32Len);
        vecLong.resize(1 << 20, 0xff);
        stSps = {vecLong.data(), static_cast<uint32_t>(vecLong.size())};
        av_max_alloc(1 << 19);
        EXPECT_EQ(nullptr, FFMUXER_WriteOpen(&stParam, Path().c_str()));
        av_max_alloc(INT32_MAX);
        EXPECT_FALSE(TEST_Exists(Path()));
    }
}

TEST_F(MuxerFrames, EveryPacketReachesTheCardAtOnce)
{
    Open(H264(1));
    int64_t s64Last = 0;
    for (size_t i = 0; i < 5; ++i)
    {
        WriteOne(TEST_EncodeH264()[i], true, 1000 + i * 40);
        EXPECT_LT(s64Last, SizeOnDisk());
        s64Last = SizeOnDisk();
        EXPECT_EQ(s64Last, FFMUXER_GetWriteBytes(m_pWriter));
    }
}

TEST_F(MuxerFrames, WrittenBytesGrowToTheSizeOfTheFile)
{
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        Open(H264(s32Format));
        int64_t s64Last = FFMUXER_GetWriteBytes(m_pWriter);
        EXPECT_LE(0, s64Last);
        for (const TEST_FRAME_S &stFrame : TEST_EncodeH264())
        {
            WriteOne(stFrame, true, 1000 + static_cast<uint64_t>(&stFrame - &TEST_EncodeH264()[0]) * 40);
            EXPECT_LE(s64Last, FFMUXER_GetWriteBytes(m_pWriter));
            s64Last = FFMUXER_GetWriteBytes(m_pWriter);
        }
        Finish();
        EXPECT_LT(0, s64Last);
        EXPECT_LE(s64Last, SizeOnDisk());
    }
}

TEST_F(MuxerFrames, Mp4HasItsIndexAtTheEnd)
{
    Open(H264(2));
    Write(TEST_EncodeH264(), true, 1000, 40);
    Finish();
    const std::string strBytes = TEST_ReadFile(Path());
    ASSERT_NE(std::string::npos, strBytes.find("moov"));
    EXPECT_LT(strBytes.find("mdat"), strBytes.find("moov"));
}

TEST_F(MuxerFrames, AFileWithoutFramesIsClosedAllTheSame)
{
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        Open(Both(s32Format));
        EXPECT_EQ(0, FFMUXER_WriteClose(m_pWriter));
        m_pWriter = nullptr;
        EXPECT_TRUE(TEST_Exists(Path()));
    }
}

TEST_F(MuxerFrames, WritersOnDifferentFilesDoNotMeet)
{
    tagQN_RECORD_PARAM_S stOther = H264(0);
    void *pOther = FFMUXER_WriteOpen(&stOther, Path("other").c_str());
    ASSERT_NE(nullptr, pOther);
    Open(H264(0));
    for (size_t i = 0; i < 5; ++i)
    {
        const TEST_FRAME_S &st = TEST_EncodeH264()[i];
        EXPECT_EQ(0, FFMUXER_WriteFrame(pOther, st.vecData.data(), static_cast<uint32_t>(st.vecData.size()),
                                        70000 + i * 100, st.bKey, true));
        WriteOne(st, true, 1000 + i * 40);
    }
    EXPECT_EQ(0, FFMUXER_WriteClose(pOther));
    EXPECT_EQ((std::vector<int64_t>{0, 40, 80, 120, 160}), TEST_Stamps(Finish()));
    EXPECT_EQ((std::vector<int64_t>{0, 100, 200, 300, 400}), TEST_Stamps(TEST_ReadMedia(Path("other"))));
}

// No file of this process grows beyond that, until the end of the block: a full card for any user.
class SMALL_CARD
{
public:
    explicit SMALL_CARD(rlim_t u64Bytes)
    {
        m_pfnOld = signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_stOld);
        struct rlimit stSmall = m_stOld;
        stSmall.rlim_cur = u64Bytes;
        setrlimit(RLIMIT_FSIZE, &stSmall);
    }
    ~SMALL_CARD()
    {
        setrlimit(RLIMIT_FSIZE, &m_stOld);
        signal(SIGXFSZ, m_pfnOld);
    }
    SMALL_CARD(const SMALL_CARD &) = delete;
    SMALL_CARD &operator=(const SMALL_CARD &) = delete;

private:
    struct rlimit m_stOld = {};
    void (*m_pfnOld)(int) = nullptr;
};

TEST_F(MuxerFrames, AFullCardShowsInTheSizeAndAtTheCloseAlone)
{
    STDOUT_CAPTURE capture;
    {
        const SMALL_CARD card(4096);
        Open(H264(1));
        Write(TEST_EncodeH264(128, 96, 25, 1, 20), true, 1000, 40); // each write answers 0
        EXPECT_EQ(0, FFMUXER_WriteClose(m_pWriter));
        m_pWriter = nullptr;
    }
    EXPECT_EQ("close error! ret = -27\n", capture.Text()); // EFBIG
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    EXPECT_EQ(4096, SizeOnDisk());
}
