// The FFmpeg writer: opening a file, and every way in which that fails.

#include "muxer_fixture.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <unistd.h>

extern "C"
{
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include "support/ffmpeg_calls.h"

using namespace libquarrin;

class MuxerOpen : public MUXER_TEST
{
};

TEST(MuxerNames, FollowTheFormat)
{
    const struct
    {
        int32_t s32Format;
        const char *pszName;
    } astCases[] = {
        {0, "matroska"},  {1, "mpegts"},    {2, "mp4"},       {3, "mov"},       {7, "aac"},
        {-1, "matroska"}, {4, "matroska"},  {5, "matroska"},  {6, "matroska"},  {8, "matroska"},
        {9, "matroska"},  {10, "matroska"}, {11, "matroska"}, {12, "matroska"}, {INT_MAX, "matroska"},
    };
    for (const auto &stCase : astCases)
    {
        EXPECT_STREQ(stCase.pszName, getMuxerByFmt(static_cast<QN_FILE_FMT_E>(stCase.s32Format))) << stCase.s32Format;
    }
}

TEST_F(MuxerOpen, MakesTheContainerOfTheFormat)
{
    const char *apszDemuxers[] = {"matroska,webm", "mpegts", "mov,mp4,m4a,3gp,3g2,mj2", "mov,mp4,m4a,3gp,3g2,mj2"};
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        Open(H264(s32Format));
        Write(TEST_EncodeH264(), true, 1000, 40);
        EXPECT_EQ(apszDemuxers[s32Format], Finish().strFormat);
    }
    // The two brands of the last demuxer.
    Open(H264(2));
    Finish();
    EXPECT_EQ("ftypisom", TEST_ReadFile(Path()).substr(4, 8));
    Open(H264(3));
    Finish();
    EXPECT_EQ("ftypqt  ", TEST_ReadFile(Path()).substr(4, 8));
}

TEST_F(MuxerOpen, TakesAnUnknownFormatForMatroska)
{
    for (int32_t s32Format : {-1, 9, 11})
    {
        Open(H264(s32Format));
        WriteAt(TEST_EncodeH264(), true, {1000, 1040});
        const TEST_MEDIA_S stMedia = Finish();
        EXPECT_EQ("matroska,webm", stMedia.strFormat);
        EXPECT_EQ((std::vector<int64_t>{0, 40}), TEST_Stamps(stMedia)); // counted from the first pts, as in Matroska
    }
}

TEST_F(MuxerOpen, TruncatesAnExistingFile)
{
    TEST_Touch(Path(), std::string(1000000, 'x'));
    Open(H264(0));
    Write(TEST_EncodeH264(), true, 1000, 40);
    EXPECT_EQ(15u, Finish().vecPackets.size());
    EXPECT_GT(100000u, TEST_ReadFile(Path()).size());
}

TEST_F(MuxerOpen, HoldsOneDescriptorThatCommandsDoNotInherit)
{
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        Open(H264(s32Format));
        int32_t s32Found = 0;
        for (const std::string &strName : TEST_List("/proc/self/fd"))
        {
            char szTarget[4096] = "";
            if (readlink(("/proc/self/fd/" + strName).c_str(), szTarget, sizeof(szTarget) - 1) > 0 &&
                Path() == szTarget)
            {
                ++s32Found;
                EXPECT_NE(0, fcntl(std::stoi(strName), F_GETFD) & FD_CLOEXEC);
            }
        }
        EXPECT_EQ(1, s32Found);
        Finish();
        const std::vector<std::string> vecFiles = TEST_OpenFiles();
        EXPECT_EQ(0, std::count(vecFiles.begin(), vecFiles.end(), Path()));
    }
}

static std::string g_strLayout;

static void KeepLine(void *, int, const char *pszFormat, va_list args)
{
    char szText[1024];
    vsnprintf(szText, sizeof(szText), pszFormat, args);
    g_strLayout += szText;
}

TEST_F(MuxerOpen, PrintsTheLayoutThroughFFmpeg)
{
    g_strLayout.clear();
    av_log_set_level(AV_LOG_INFO);
    av_log_set_callback(KeepLine);
    Open(Both(1));
    av_log_set_callback(av_log_default_callback);
    av_log_set_level(AV_LOG_QUIET);
    EXPECT_NE(std::string::npos, g_strLayout.find("Output #0, mpegts, to '" + Path() + "':"));
    EXPECT_NE(std::string::npos, g_strLayout.find("Stream #0:1"));
}

TEST_F(MuxerOpen, SaysNothingWhenItWorks)
{
    STDOUT_CAPTURE capture;
    Open(Both(0));
    Write(TEST_EncodeH264(), true, 1000, 40);
    Finish();
    EXPECT_EQ("", capture.Text());
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(MuxerOpen, WithoutParametersOrPathGivesNoWriter)
{
    tagQN_RECORD_PARAM_S stParam = H264(0);
    EXPECT_EQ(nullptr, FFMUXER_WriteOpen(nullptr, Path().c_str()));
    EXPECT_EQ(nullptr, FFMUXER_WriteOpen(&stParam, nullptr));
    EXPECT_EQ(nullptr, FFMUXER_WriteOpen(nullptr, nullptr));
    EXPECT_FALSE(TEST_Exists(Path()));
}

TEST_F(MuxerOpen, WithoutTheFolderFailsWithTheSystemsText)
{
    STDOUT_CAPTURE capture;
    tagQN_RECORD_PARAM_S stParam = H264(0);
    EXPECT_EQ(nullptr, FFMUXER_WriteOpen(&stParam, Path("no/such/folder.mkv").c_str()));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "FFMUXER_WriteOpen", "avio_open failed: No such file or directory"));
    EXPECT_TRUE(
        capture.HasLine("\\[ERROR\\]\\[FFMUXER_WriteOpen:[0-9]+\\] avio_open failed: No such file or directory"));
    EXPECT_EQ(1u, FAKE_PLATFORM_Logs().size());
}

TEST_F(MuxerOpen, WithoutAStreamFails)
{
    FFMPEG_CALLS_FailNext("avformat_new_stream");
    ExpectRefused(H264(0), {"AVStream for video prepare failed."});
}

TEST_F(MuxerOpen, RefusesCodecsTwoAndThreeAsVideo)
{
    for (int32_t s32Codec : {2, 3})
    {
        FAKE_PLATFORM_Reset();
        tagQN_RECORD_PARAM_S stParam = H264(0);
        stParam.stVideo.enCodec = static_cast<QN_CODEC_TYPE_E>(s32Codec);
        const std::string strText = "unsupport stream type " + std::to_string(s32Codec) + " for ffmuxer";
        ExpectRefused(stParam, {strText, "AVStream for video prepare failed."}, "FFMUXER_InitStream");
    }
}

TEST_F(MuxerOpen, RefusesCodecsTwoAndThreeAsAudioInEveryContainer)
{
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        FAKE_PLATFORM_Reset();
        tagQN_RECORD_PARAM_S stParam = Both(s32Format);
        stParam.stAudio.enCodec = static_cast<QN_CODEC_TYPE_E>(2 + s32Format % 2);
        const std::string strText = "unsupport stream type " + std::to_string(2 + s32Format % 2) + " for ffmuxer";
        ExpectRefused(stParam, {strText, "AVStream for audio prepare failed."}, "FFMUXER_InitStream");
    }
}

TEST_F(MuxerOpen, RefusesNegativeAndLargeCodecs)
{
    for (int32_t s32Codec : {-1, 5, INT_MAX, INT_MIN})
    {
        FAKE_PLATFORM_Reset();
        tagQN_RECORD_PARAM_S stParam = H264(1);
        stParam.stVideo.enCodec = static_cast<QN_CODEC_TYPE_E>(s32Codec);
        const std::string strText = "unsupport stream type " + std::to_string(s32Codec) + " for ffmuxer";
        ExpectRefused(stParam, {strText, "AVStream for video prepare failed."}, "FFMUXER_InitStream");
    }
}

TEST_F(MuxerOpen, PicturesWithoutASensibleSizeFailWhereFFmpegLooksAtThem)
{
    const uint32_t aau32Sizes[][2] = {{0, 64}, {64, 0}, {0xffffffffu, 64}, {64, 0x80000000u}};
    for (const auto &au32Size : aau32Sizes)
    {
        FAKE_PLATFORM_Reset();
        tagQN_RECORD_PARAM_S stParam = H264(0);
        stParam.stVideo.u32Width = au32Size[0];
        stParam.stVideo.u32Height = au32Size[1];
        ExpectRefused(stParam, {"avformat_init_output init failed! Invalid argument\n"});
    }
}

TEST_F(MuxerOpen, AudioWithoutASampleRateFailsWhereFFmpegLooksAtIt)
{
    for (uint32_t u32Rate : {0u, 0xffffffffu})
    {
        FAKE_PLATFORM_Reset();
        tagQN_RECORD_PARAM_S stParam = Both(2);
        stParam.stAudio.u32Width = u32Rate;
        ExpectRefused(stParam, {"avformat_init_output init failed! Invalid argument\n"});
    }
}

TEST_F(MuxerOpen, H265IntoMatroskaWithoutParameterSetsFailsAtTheHeader)
{
    tagQN_RECORD_PARAM_S stParam = H265(0);
    stParam.stVideo.stSps = tagQN_BYTES{nullptr, 0};
    stParam.stVideo.stPps = tagQN_BYTES{nullptr, 0};
    ExpectRefused(stParam, {"avformat_write_header failed! Invalid data found when processing input\n"});
}

TEST_F(MuxerOpen, ParameterSetsBeyondWhatFFmpegHoldsFailBeforeTheyAreRead)
{
    uint8_t u8Byte = 0;
    tagQN_RECORD_PARAM_S stParam = H264(0);
    stParam.stVideo.stSps = tagQN_BYTES{&u8Byte, 0xffffffffu};
    stParam.stVideo.stPps = tagQN_BYTES{&u8Byte, 0xffffffffu};
    ExpectRefused(stParam, {"AVStream for video prepare failed."});
}

TEST_F(MuxerOpen, OfRawAacFailsSinceFFmpegHasNoMuxerOfThatName)
{
    STDOUT_CAPTURE capture;
    TEST_Touch(Path(), "an older file");
    tagQN_RECORD_PARAM_S stParam = Aac(QN_FILE_FMT_E_AAC);
    EXPECT_EQ(nullptr, FFMUXER_WriteOpen(&stParam, Path().c_str()));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "FFMUXER_WriteOpen", "malloc ffmpeg AVFormatContext failed"));
    EXPECT_TRUE(capture.HasLine("\\[ERROR\\]\\[FFMUXER_WriteOpen:[0-9]+\\] malloc ffmpeg AVFormatContext failed"));
    EXPECT_EQ("an older file", TEST_ReadFile(Path())); // nothing was opened yet, so nothing is removed
}

// Lets FFmpeg have no block larger than that, until the end of the block.
class FFMPEG_MEMORY
{
public:
    explicit FFMPEG_MEMORY(size_t u32Largest)
    {
        av_max_alloc(u32Largest);
    }
    ~FFMPEG_MEMORY()
    {
        av_max_alloc(INT_MAX);
    }
    FFMPEG_MEMORY(const FFMPEG_MEMORY &) = delete;
    FFMPEG_MEMORY &operator=(const FFMPEG_MEMORY &) = delete;
};

TEST_F(MuxerOpen, WithoutMemoryFailsAtEveryStepAndLeavesNothing)
{
    TEST_EncodeH264(); // with memory
    std::vector<std::string> vecTexts;
    for (size_t u32Largest = 16; u32Largest < 65536; u32Largest += u32Largest / 4)
    {
        tagQN_RECORD_PARAM_S stParam = Both(static_cast<int32_t>(u32Largest) % 4);
        const STDOUT_CAPTURE capture;
        void *pWriter = nullptr;
        {
            const FFMPEG_MEMORY memory(u32Largest);
            pWriter = FFMUXER_WriteOpen(&stParam, Path().c_str());
        }
        if (pWriter != nullptr)
        {
            EXPECT_EQ(0, FFMUXER_WriteClose(pWriter));
            unlink(Path().c_str());
        }
        EXPECT_FALSE(TEST_Exists(Path())) << u32Largest;
        const std::vector<std::string> vecFiles = TEST_OpenFiles();
        EXPECT_EQ(0, std::count(vecFiles.begin(), vecFiles.end(), Path())) << u32Largest;
    }
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "FFMUXER_WriteOpen", "malloc ffmpeg AVFormatContext failed"));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "FFMUXER_WriteOpen", "avio_open failed: Cannot allocate memory"));
}

TEST_F(MuxerOpen, WithoutMemoryForTheParameterSetsFails)
{
    std::vector<uint8_t> vecLarge(1 << 20, 1);
    tagQN_RECORD_PARAM_S stParam = H264(0);
    stParam.stVideo.stSps = tagQN_BYTES{vecLarge.data(), static_cast<uint32_t>(vecLarge.size())};
    const FFMPEG_MEMORY memory(1 << 20);
    ExpectRefused(stParam, {"AVStream for video prepare failed."});
}
