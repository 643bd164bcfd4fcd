#include "demuxer_fixture.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C"
{
#include <libavutil/error.h>
}

using namespace libquarrin;

namespace
{

class DemuxerOpen : public DEMUXER_TEST
{
protected:
    // Every descriptor of the process.
    static std::vector<std::string> Descriptors()
    {
        return TEST_List("/proc/self/fd");
    }

    // Opens a path and expects a refusal with this one message and nothing left open.
    void ExpectRefused(const char *pszPath, QN_FILE_FMT_E enFormat, const std::string &strText)
    {
        FAKE_PLATFORM_Reset();
        const std::vector<std::string> vecBefore = Descriptors();
        std::string strPrinted;
        void *pReader = nullptr;
        {
            STDOUT_CAPTURE capture;
            pReader = FFMUXER_ReadOpen(nullptr, pszPath, enFormat);
            strPrinted = capture.Text();
        }
        EXPECT_EQ(nullptr, pReader);
        ExpectOneLine(strPrinted, 3, "FFMUXER_ReadOpen", strText);
        EXPECT_EQ(vecBefore, Descriptors());
    }
};

} // namespace

TEST_F(DemuxerOpen, ReadsEveryContainerUnderItsName)
{
    const std::vector<std::string> vecNames = {"matroska", "mpegts", "mp4", "mov"};
    for (size_t i = 0; i < TEST_CONTAINERS.size(); ++i)
    {
        std::string strPrinted;
        {
            STDOUT_CAPTURE capture;
            MakeAndOpen(TEST_CONTAINERS[i], {SOURCE_H264(), SOURCE_Aac()});
            strPrinted = capture.Text();
        }
        ASSERT_NE(nullptr, m_pReader);
        EXPECT_EQ(vecNames[i], FFMPEG_CALLS_FormatAsked());
        EXPECT_EQ("", strPrinted);
        EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
        Close();
    }
}

TEST_F(DemuxerOpen, ReadsRawAac)
{
    TEST_WriteAac(Path());
    Open(QN_FILE_FMT_E_AAC);
    EXPECT_EQ("aac", FFMPEG_CALLS_FormatAsked());
}

TEST_F(DemuxerOpen, TakesAnUnknownFormatForMatroska)
{
    Make("matroska", {SOURCE_H264()});
    for (const int32_t s32Format : {4, 5, 6, 8, 9, 10, 11, 12, -1, INT_MAX, INT_MIN})
    {
        ASSERT_NO_FATAL_FAILURE(Open(static_cast<QN_FILE_FMT_E>(s32Format)));
        EXPECT_EQ("matroska", FFMPEG_CALLS_FormatAsked());
        EXPECT_EQ(15u, TEST_ReadAll(m_pReader).vecFrames.size());
        Close();
    }
}

TEST_F(DemuxerOpen, TakesTheStepsInTheirOrder)
{
    Make("mp4", {SOURCE_H264()});
    Open(QN_FILE_FMT_E_MP4);
    const std::vector<std::string> vecOrder = {"avformat_alloc_context", "av_find_input_format", "avformat_open_input",
                                               "avformat_find_stream_info", "av_dump_format"};
    EXPECT_EQ(vecOrder, FFMPEG_CALLS_Order());
}

TEST_F(DemuxerOpen, DoesNotReadTheParameters)
{
    Make("matroska", {SOURCE_H264()});
    tagQN_REPLAY_PARAM_S stParam;
    memset(&stParam, 0xa5, sizeof(stParam));
    m_pReader = FFMUXER_ReadOpen(&stParam, Path().c_str(), QN_FILE_FMT_E_MKV);
    EXPECT_NE(nullptr, m_pReader);
}

TEST_F(DemuxerOpen, OpensTheFileCloseOnExecAndClosesIt)
{
    Make("matroska", {SOURCE_H264()});
    const std::vector<std::string> vecBefore = Descriptors();
    Open(QN_FILE_FMT_E_MKV);
    int32_t s32Found = 0;
    for (const std::string &strName : Descriptors())
    {
        char szTarget[PATH_MAX] = "";
        if (readlink(("/proc/self/fd/" + strName).c_str(), szTarget, sizeof(szTarget) - 1) > 0 && Path() == szTarget)
        {
            ++s32Found;
            EXPECT_NE(0, fcntl(atoi(strName.c_str()), F_GETFD) & FD_CLOEXEC);
        }
    }
    EXPECT_EQ(1, s32Found);
    Close();
    EXPECT_EQ(vecBefore, Descriptors());
}

TEST_F(DemuxerOpen, RefusesAMissingFile)
{
    for (const int32_t s32Format : {0, 1, 2, 3, 7, 11})
    {
        ExpectRefused(Path("missing").c_str(), static_cast<QN_FILE_FMT_E>(s32Format),
                      "avformat_open_input failed: No such file or directory");
    }
}

TEST_F(DemuxerOpen, RefusesAnEmptyAndANullPath)
{
    ExpectRefused("", QN_FILE_FMT_E_MKV, "avformat_open_input failed: No such file or directory");
    ExpectRefused(nullptr, QN_FILE_FMT_E_MKV, "avformat_open_input failed: No such file or directory");
}

TEST_F(DemuxerOpen, RefusesADirectory)
{
    for (const int32_t s32Format : {0, 2, 3})
    {
        ExpectRefused(m_dir.strPath.c_str(), static_cast<QN_FILE_FMT_E>(s32Format),
                      "avformat_open_input failed: Invalid data found when processing input");
    }
}

TEST_F(DemuxerOpen, RefusesAFileOfAnotherContainer)
{
    Make("mp4", {SOURCE_H264()});
    ExpectRefused(Path().c_str(), QN_FILE_FMT_E_MKV,
                  "avformat_open_input failed: Invalid data found when processing input");
    TEST_Touch(Path(), std::string(5000, 'a') + "\nplain text\n");
    ExpectRefused(Path().c_str(), QN_FILE_FMT_E_MKV,
                  "avformat_open_input failed: Invalid data found when processing input");
}

TEST_F(DemuxerOpen, RefusesAnEmptyMatroskaFile)
{
    TEST_Touch(Path());
    ExpectRefused(Path().c_str(), QN_FILE_FMT_E_MKV,
                  "avformat_open_input failed: Invalid data found when processing input");
}

TEST_F(DemuxerOpen, ReportsEveryStepThatFails)
{
    Make("mp4", {SOURCE_H264()});
    FFMPEG_CALLS_FailNext("avformat_alloc_context");
    ExpectRefused(Path().c_str(), QN_FILE_FMT_E_MP4, "avformat_alloc_context failed");
    FFMPEG_CALLS_FailNext("av_find_input_format");
    ExpectRefused(Path().c_str(), QN_FILE_FMT_E_MP4, "av_find_input_format failed");
    FFMPEG_CALLS_FailNext("avformat_find_stream_info", AVERROR(EIO));
    ExpectRefused(Path().c_str(), QN_FILE_FMT_E_MP4, "avformat_find_stream_info failed: Input/output error");
    FFMPEG_CALLS_FailNext("avformat_find_stream_info", -123456);
    ExpectRefused(Path().c_str(), QN_FILE_FMT_E_MP4, "avformat_find_stream_info failed: Error number -123456 occurred");
}

TEST_F(DemuxerOpen, ReadsAPathOfAnyBytes)
{
    const std::string strFolder = Path(std::string(200, 'd')) + "/" + std::string(200, 'e') + "/";
    ASSERT_EQ(0, mkdir(Path(std::string(200, 'd')).c_str(), 0700));
    ASSERT_EQ(0, mkdir(strFolder.c_str(), 0700));
    for (const char *pszName : {"a b", "[door] $(x) `y` \"z\"", "%d%s", "\xff\xfe"})
    {
        const std::string strPath = strFolder + pszName;
        ASSERT_TRUE(TEST_WriteMedia(strPath, "matroska", {SOURCE_H264()}));
        m_pReader = FFMUXER_ReadOpen(nullptr, strPath.c_str(), QN_FILE_FMT_E_MKV);
        ASSERT_NE(nullptr, m_pReader) << pszName;
        Close();
    }
}

TEST_F(DemuxerOpen, OpensAFileThatHasNoUsableStream)
{
    MakeAndOpen({QN_FILE_FMT_E_MKV, "matroska"}, {SOURCE_Pcm()});
    const READ_S stRead = TEST_ReadAll(m_pReader);
    EXPECT_EQ(10u, stRead.vecFrames.size());
    for (const TEST_PACKET_S &st : stRead.vecFrames)
    {
        EXPECT_EQ(0, st.s32Stream); // a video index of none fits no stream
    }
}

TEST_F(DemuxerOpen, ReadsOneFileTwiceAtTheSameTime)
{
    Make("mp4", {SOURCE_H264()});
    Open(QN_FILE_FMT_E_MP4);
    void *pSecond = FFMUXER_ReadOpen(nullptr, Path().c_str(), QN_FILE_FMT_E_MP4);
    ASSERT_NE(nullptr, pSecond);
    const GOT_S stFirst = TEST_Get(m_pReader);
    const GOT_S stSecond = TEST_Get(pSecond);
    EXPECT_EQ(0, stFirst.s32Ret);
    EXPECT_EQ(0, stSecond.s32Ret);
    EXPECT_EQ(stFirst.Bytes(), stSecond.Bytes());
    EXPECT_EQ(0, FFMUXER_ReadClose(pSecond));
    EXPECT_EQ(0, FFMUXER_ReadReleaseFrame(m_pReader, stFirst.pu8Data));
}

TEST_F(DemuxerOpen, FillsTheReadSlotsOfTheTable)
{
    EXPECT_EQ(&FFMUXER_ReadOpen, qn_media_api_ffmpeg.pfnReadOpen);
    EXPECT_EQ(&FFMUXER_ReadMetadata, qn_media_api_ffmpeg.pfnReadMetadata);
    EXPECT_EQ(&FFMUXER_ReadGetFrame, qn_media_api_ffmpeg.pfnReadGetFrame);
    EXPECT_EQ(&FFMUXER_ReadReleaseFrame, qn_media_api_ffmpeg.pfnReadReleaseFrame);
    EXPECT_EQ(&FFMUXER_ReadSeek, qn_media_api_ffmpeg.pfnReadSeek);
    EXPECT_EQ(&FFMUXER_ReadClose, qn_media_api_ffmpeg.pfnReadClose);
}
