#include "photo_support.h"

#include <algorithm>
#include <cerrno>
#include <thread>

extern "C"
{
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include "support/card.h"
#include "support/ffmpeg_calls.h"

using namespace libquarrin;

namespace
{

// One I420 picture, in exactly the bytes it has.
struct YUV_S
{
    PLANE_S stY;
    PLANE_S stU;
    PLANE_S stV;

    std::vector<uint8_t> Bytes() const
    {
        std::vector<uint8_t> vec = stY.vecBytes;
        vec.insert(vec.end(), stU.vecBytes.begin(), stU.vecBytes.end());
        vec.insert(vec.end(), stV.vecBytes.begin(), stV.vecBytes.end());
        return vec;
    }
};

PLANE_S Plane(int32_t s32Width, int32_t s32Height, uint8_t u8Value)
{
    return {s32Width, s32Height, std::vector<uint8_t>(static_cast<size_t>(s32Width * s32Height), u8Value)};
}

YUV_S Flat(int32_t s32Width, int32_t s32Height, uint8_t u8Y, uint8_t u8U, uint8_t u8V)
{
    return {Plane(s32Width, s32Height, u8Y), Plane(s32Width / 2, s32Height / 2, u8U),
            Plane(s32Width / 2, s32Height / 2, u8V)};
}

// Y grows to the right, U downwards, V to the left: no plane can stand in for another, no row for the next.
YUV_S Ramps(int32_t s32Width, int32_t s32Height)
{
    YUV_S st = Flat(s32Width, s32Height, 0, 0, 0);
    for (int32_t i = 0; i < s32Width * s32Height; ++i)
    {
        st.stY.vecBytes[static_cast<size_t>(i)] = static_cast<uint8_t>(20 + 200 * (i % s32Width) / s32Width);
    }
    const int32_t s32ChromaWidth = s32Width / 2;
    const int32_t s32ChromaHeight = s32Height / 2;
    for (int32_t i = 0; i < s32ChromaWidth * s32ChromaHeight; ++i)
    {
        const size_t u32At = static_cast<size_t>(i);
        st.stU.vecBytes[u32At] = static_cast<uint8_t>(60 + 120 * (i / s32ChromaWidth) / s32ChromaHeight);
        st.stV.vecBytes[u32At] = static_cast<uint8_t>(200 - 120 * (i % s32ChromaWidth) / s32ChromaWidth);
    }
    return st;
}

class JpegYuv : public ::testing::Test
{
protected:
    void SetUp() override
    {
        FAKE_PLATFORM_Reset();
        FFMPEG_CALLS_Reset();
        m_s32Level = av_log_get_level();
        av_log_set_level(AV_LOG_QUIET); // refused pictures are reported by FFmpeg, too
    }

    void TearDown() override
    {
        FFMPEG_CALLS_Reset();
        av_log_set_level(m_s32Level);
    }

    int32_t Save(const YUV_S &st)
    {
        const std::vector<uint8_t> vec = st.Bytes();
        return FFMUXER_SaveYuvToJpeg(m_strPath.c_str(), vec.data(), st.stY.s32Width, st.stY.s32Height);
    }

    // Saves to a path; the result. The one message is logged and printed in full.
    int32_t SaveAndExpect(const std::string &strPath, int32_t s32Width, int32_t s32Height, const std::string &strText)
    {
        const std::vector<uint8_t> vec(64 * 64 * 3 / 2, 128);
        const std::vector<int32_t> vecBefore = OpenDescriptors();
        FAKE_PLATFORM_Reset();
        std::string strPrinted;
        bool bWhole = false;
        int32_t s32Ret = 0;
        {
            STDOUT_CAPTURE capture;
            s32Ret = FFMUXER_SaveYuvToJpeg(strPath.c_str(), vec.data(), s32Width, s32Height);
            strPrinted = capture.Text();
            bWhole = capture.HasLine("\\[ERROR\\]\\[FFMUXER_SaveYuvToJpeg:[0-9]+\\] " + strText);
        }
        EXPECT_TRUE(bWhole) << strPrinted;
        EXPECT_EQ(1, std::count(strPrinted.begin(), strPrinted.end(), '\n'));
        EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "FFMUXER_SaveYuvToJpeg", strText)) << strPrinted;
        EXPECT_EQ(1u, FAKE_PLATFORM_Logs().size());
        EXPECT_EQ(vecBefore, OpenDescriptors());
        return s32Ret;
    }

    int32_t FailAndExpect(const std::string &strFunction, int32_t s32Result, const std::string &strText)
    {
        FFMPEG_CALLS_FailNext(strFunction, s32Result);
        return SaveAndExpect(m_strPath, 64, 64, strText);
    }

    TEMP_DIR m_dir;
    const std::string m_strPath = m_dir.strPath + "/picture.jpg";
    int32_t m_s32Level = 0;
};

} // namespace

TEST_F(JpegYuv, PutsEachPlaneInItsPlace)
{
    std::string strPrinted;
    {
        STDOUT_CAPTURE capture;
        EXPECT_EQ(0, Save(Flat(64, 48, 180, 90, 200)));
        strPrinted = capture.Text();
    }
    EXPECT_EQ("", strPrinted);
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
    const PICTURE_S stPicture = DecodeJpeg(m_strPath);
    ASSERT_TRUE(stPicture.bDecoded);
    EXPECT_EQ(64, stPicture.stY.s32Width);
    EXPECT_EQ(48, stPicture.stY.s32Height);
    EXPECT_LE(stPicture.stY.FarthestFrom(180), 3);
    EXPECT_LE(stPicture.stU.FarthestFrom(90), 3);
    EXPECT_LE(stPicture.stV.FarthestFrom(200), 3);
}

TEST_F(JpegYuv, KeepsRowsApartInEveryWidth)
{
    const struct
    {
        int32_t s32Width;
        int32_t s32Height;
    } astSizes[] = {{64, 64}, {320, 240}, {50, 38}, {18, 16}, {34, 22}, {640, 16}, {16, 640}, {1282, 722}};
    for (const auto &st : astSizes)
    {
        const YUV_S stYuv = Ramps(st.s32Width, st.s32Height);
        EXPECT_EQ(0, Save(stYuv));
        const PICTURE_S stPicture = DecodeJpeg(m_strPath);
        EXPECT_LT(stPicture.stY.MeanDifference(stYuv.stY), 4.0) << st.s32Width << "x" << st.s32Height;
        EXPECT_LT(stPicture.stU.MeanDifference(stYuv.stU), 4.0) << st.s32Width << "x" << st.s32Height;
        EXPECT_LT(stPicture.stV.MeanDifference(stYuv.stV), 4.0) << st.s32Width << "x" << st.s32Height;
    }
}

TEST_F(JpegYuv, KeepsTheFullRange)
{
    for (const uint8_t u8Luma : {uint8_t{0}, uint8_t{255}})
    {
        EXPECT_EQ(0, Save(Flat(32, 32, u8Luma, 128, 128)));
        const PICTURE_S stPicture = DecodeJpeg(m_strPath);
        EXPECT_TRUE(stPicture.bFullRange);
        EXPECT_LE(stPicture.stY.FarthestFrom(u8Luma), 3);
    }
}

TEST_F(JpegYuv, CopiesOnlyTheLumaRowOfAPictureOfHeightOne)
{
    // The row alone: chroma bytes that were read would lie behind the end of the buffer.
    std::vector<uint8_t> vecRow(64);
    for (size_t i = 0; i < vecRow.size(); ++i)
    {
        vecRow[i] = static_cast<uint8_t>(40 + 2 * i);
    }
    vecRow.shrink_to_fit();
    EXPECT_EQ(0, FFMUXER_SaveYuvToJpeg(m_strPath.c_str(), vecRow.data(), 64, 1));
    const PICTURE_S stPicture = DecodeJpeg(m_strPath);
    ASSERT_TRUE(stPicture.bDecoded);
    EXPECT_LT(stPicture.stY.MeanDifference({64, 1, vecRow}), 4.0);
}

TEST_F(JpegYuv, LeavesTheChromaOfHeightOneAsAllocated)
{
    FFMPEG_CALLS_PaintFrames(90);
    const std::vector<uint8_t> vec(64 * 2, 200);
    EXPECT_EQ(0, FFMUXER_SaveYuvToJpeg(m_strPath.c_str(), vec.data(), 64, 1));
    const PICTURE_S stPicture = DecodeJpeg(m_strPath);
    ASSERT_TRUE(stPicture.bDecoded);
    EXPECT_LE(stPicture.stY.FarthestFrom(200), 3);
    EXPECT_LE(stPicture.stU.FarthestFrom(90), 3);
    EXPECT_LE(stPicture.stV.FarthestFrom(90), 3);
}

TEST_F(JpegYuv, ReadsNoByteBehindAnOddPicture)
{
    for (const int32_t s32Width : {1, 3, 17, 35})
    {
        for (const int32_t s32Height : {1, 2, 3, 21})
        {
            // width * height * 3 / 2 bytes, cut down.
            const std::vector<uint8_t> vec(static_cast<size_t>(s32Width * s32Height * 3 / 2), 77);
            EXPECT_EQ(0, FFMUXER_SaveYuvToJpeg(m_strPath.c_str(), vec.data(), s32Width, s32Height));
            const PICTURE_S stPicture = DecodeJpeg(m_strPath);
            ASSERT_TRUE(stPicture.bDecoded);
            EXPECT_EQ(s32Width, stPicture.stY.s32Width);
            EXPECT_EQ(s32Height, stPicture.stY.s32Height);
            EXPECT_LE(stPicture.stY.FarthestFrom(77), 3);
        }
    }
}

TEST_F(JpegYuv, ReplacesALongerFileByOnePicture)
{
    TEST_Touch(m_strPath, std::string(100000, 'x'));
    EXPECT_EQ(0, Save(Flat(64, 64, 50, 128, 128)));
    const std::string strBytes = TEST_ReadFile(m_strPath);
    EXPECT_LT(strBytes.size(), 10000u);
    EXPECT_EQ("\xff\xd8", strBytes.substr(0, 2)); // start of image, ISO/IEC 10918-1
    EXPECT_EQ("\xff\xd9", strBytes.substr(strBytes.size() - 2));
    EXPECT_EQ(std::string::npos, strBytes.find("\xff\xd8", 2));
}

TEST_F(JpegYuv, GoesToAnyFileName)
{
    const std::vector<uint8_t> vec(64 * 64 * 3 / 2, 128);
    for (const char *pszName : {"no extension", "movie.mkv", "%d%03d.jpg", "[brackets] $(x) `y` \"z\".jpg"})
    {
        const std::string strPath = m_dir.strPath + "/" + pszName;
        EXPECT_EQ(0, FFMUXER_SaveYuvToJpeg(strPath.c_str(), vec.data(), 64, 64)) << pszName;
        EXPECT_TRUE(DecodeJpeg(strPath).bDecoded) << pszName;
    }
    EXPECT_EQ(4u, TEST_List(m_dir.strPath).size());
}

TEST_F(JpegYuv, EncodesWithoutFlushing)
{
    EXPECT_EQ(0, Save(Flat(64, 64, 50, 128, 128)));
    EXPECT_EQ(1, FFMPEG_CALLS_Count("avcodec_send_frame"));
    EXPECT_EQ(2, FFMPEG_CALLS_Count("avcodec_receive_packet")); // one packet, then the encoder wants more
    EXPECT_EQ(1, FFMPEG_CALLS_Count("av_interleaved_write_frame"));
    EXPECT_EQ(1, FFMPEG_CALLS_Count("av_write_trailer"));
}

TEST_F(JpegYuv, OpensTheFileCloseOnExecAndClosesIt)
{
    std::vector<DESCRIPTOR_S> vecOpen;
    FFMPEG_CALLS_LookAt("avcodec_send_frame", [&] { vecOpen = DescriptorsOf(m_strPath); });
    const std::vector<int32_t> vecBefore = OpenDescriptors();
    EXPECT_EQ(0, Save(Flat(64, 64, 50, 128, 128)));
    ASSERT_EQ(1u, vecOpen.size());
    EXPECT_TRUE(vecOpen[0].bCloseOnExec);
    EXPECT_EQ(vecBefore, OpenDescriptors());
}

TEST_F(JpegYuv, WorksOnSeveralThreadsAtOnce)
{
    const YUV_S stYuv = Ramps(64, 64);
    const std::vector<uint8_t> vec = stYuv.Bytes();
    std::vector<std::thread> vecThreads;
    for (int32_t i = 0; i < 4; ++i)
    {
        vecThreads.emplace_back(
            [&, i]
            {
                const std::string strPath = m_strPath + std::to_string(i);
                for (int32_t s32Times = 0; s32Times < 5; ++s32Times)
                {
                    EXPECT_EQ(0, FFMUXER_SaveYuvToJpeg(strPath.c_str(), vec.data(), 64, 64));
                }
            });
    }
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    for (int32_t i = 0; i < 4; ++i)
    {
        EXPECT_LT(DecodeJpeg(m_strPath + std::to_string(i)).stY.MeanDifference(stYuv.stY), 4.0);
    }
}

TEST_F(JpegYuv, IsTheTenthSlotOfTheTable)
{
    EXPECT_EQ(&FFMUXER_SaveYuvToJpeg, qn_media_api_ffmpeg.pfnSaveYuvToJpeg);
}

TEST_F(JpegYuv, FailsWhereNoFileCanBeOpened)
{
    EXPECT_EQ(AVERROR(ENOENT), SaveAndExpect(m_dir.strPath + "/missing/picture.jpg", 64, 64,
                                             "Open output failed: No such file or directory"));
    EXPECT_EQ(AVERROR(EISDIR), SaveAndExpect(m_dir.strPath, 64, 64, "Open output failed: Is a directory"));
    EXPECT_EQ(AVERROR(ENOENT), SaveAndExpect("", 64, 64, "Open output failed: No such file or directory"));
}

TEST_F(JpegYuv, FailsOnANullPathAsOnAnEmptyOne)
{
    const std::vector<uint8_t> vec(64 * 64 * 3 / 2, 128);
    EXPECT_EQ(AVERROR(ENOENT), FFMUXER_SaveYuvToJpeg(nullptr, vec.data(), 64, 64));
    EXPECT_TRUE(
        FAKE_PLATFORM_LoggedExactly(3, "FFMUXER_SaveYuvToJpeg", "Open output failed: No such file or directory"));
}

TEST_F(JpegYuv, RefusesANullPicture)
{
    EXPECT_EQ(-1, FFMUXER_SaveYuvToJpeg(m_strPath.c_str(), nullptr, 64, 64));
    EXPECT_FALSE(TEST_Exists(m_strPath));
}

TEST_F(JpegYuv, FailsOnSizesThatNoJpegFileHas)
{
    const struct
    {
        int32_t s32Width;
        int32_t s32Height;
    } astSizes[] = {{0, 64},
                    {64, 0},
                    {0, 0},
                    {-64, 64},
                    {64, -64},
                    {-64, -64},
                    {70000, 64},
                    {64, 70000},
                    {INT32_MAX, INT32_MAX},
                    {INT32_MIN, INT32_MIN}};
    for (const auto &st : astSizes)
    {
        EXPECT_GT(0, SaveAndExpect(m_strPath, st.s32Width, st.s32Height, "Open codec failed: Invalid argument"))
            << st.s32Width << "x" << st.s32Height;
        EXPECT_FALSE(TEST_Exists(m_strPath));
    }
}

TEST_F(JpegYuv, ReturnsTheCodeOfTheCallThatFailed)
{
    const struct
    {
        const char *pszFunction;
        const char *pszText;
    } astCalls[] = {
        {"avcodec_open2", "Open codec failed: Input/output error"},
        {"av_frame_get_buffer", "Get frame buffer failed: Input/output error"},
        {"avcodec_parameters_from_context", "Create stream failed"},
        {"avio_open", "Open output failed: Input/output error"},
        {"avformat_write_header", "Write header failed: Input/output error"},
        {"avcodec_send_frame", "Send frame failed: Input/output error"},
        {"avcodec_receive_packet", "Receive packet failed: Input/output error"},
        {"av_interleaved_write_frame", "Write frame failed: Input/output error"},
        {"av_write_trailer", "Write trailer failed: Input/output error"},
    };
    for (const auto &st : astCalls)
    {
        EXPECT_EQ(AVERROR(EIO), FailAndExpect(st.pszFunction, AVERROR(EIO), st.pszText)) << st.pszFunction;
    }
}

TEST_F(JpegYuv, ReturnsMinusOneWithoutAContext)
{
    EXPECT_EQ(-1, FailAndExpect("avformat_alloc_output_context2", AVERROR(ENOMEM),
                                "Create format context failed: Cannot allocate memory"));
    EXPECT_FALSE(TEST_Exists(m_strPath));
}

TEST_F(JpegYuv, CallsAFailureWithoutACodeASuccess)
{
    EXPECT_EQ(0, FailAndExpect("avcodec_find_encoder", 0, "Codec MJPEG not found"));
    EXPECT_EQ(0, FailAndExpect("avcodec_alloc_context3", 0, "Alloc codec context failed"));
    EXPECT_EQ(0, FailAndExpect("av_frame_alloc", 0, "Alloc frame failed"));
    EXPECT_EQ(0, FailAndExpect("avformat_new_stream", 0, "Create stream failed"));
    EXPECT_FALSE(TEST_Exists(m_strPath)); // all of them come before the file
    EXPECT_LE(0, FailAndExpect("av_packet_alloc", 0, "Alloc packet failed"));
}

TEST_F(JpegYuv, HasATextForEveryCodeOfFfmpegs)
{
    EXPECT_EQ(AVERROR_EXPERIMENTAL,
              FailAndExpect("avcodec_open2", AVERROR_EXPERIMENTAL, "Open codec failed: Experimental feature"));
    EXPECT_EQ(-123456, FailAndExpect("avcodec_open2", -123456, "Open codec failed: Error number -123456 occurred"));
}

TEST_F(JpegYuv, TakesTheStepsInTheirOrder)
{
    EXPECT_EQ(0, Save(Flat(64, 64, 50, 128, 128)));
    const std::vector<std::string> vecOrder = {"avformat_alloc_output_context2",
                                               "avcodec_find_encoder",
                                               "avcodec_alloc_context3",
                                               "avcodec_open2",
                                               "av_frame_alloc",
                                               "av_frame_get_buffer",
                                               "avformat_new_stream",
                                               "avcodec_parameters_from_context",
                                               "avio_open",
                                               "avformat_write_header",
                                               "av_packet_alloc",
                                               "avcodec_send_frame",
                                               "avcodec_receive_packet",
                                               "av_interleaved_write_frame",
                                               "avcodec_receive_packet",
                                               "av_write_trailer",
                                               "avio_closep"};
    EXPECT_EQ(vecOrder, FFMPEG_CALLS_Order());
}
