// The snapshot command: the picture of the very time, with the colours of a JPEG.

#include <cstdint>
#include <memory>

extern "C"
{
#include <libavcodec/avcodec.h>
}

#include "recordings.h"

/// Brightness of a JPEG's pixels.
class PICTURE
{
public:
    explicit PICTURE(const std::string &strPath)
    {
        const std::string strBytes = TEST_ReadFile(strPath);
        AVPacket *pPacket = av_packet_alloc();
        AVCodecContext *pDecoder = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_MJPEG));
        EXPECT_EQ(0, avcodec_open2(pDecoder, nullptr, nullptr));
        EXPECT_EQ(0, av_new_packet(pPacket, static_cast<int>(strBytes.size())));
        std::copy(strBytes.begin(), strBytes.end(), pPacket->data);
        EXPECT_EQ(0, avcodec_send_packet(pDecoder, pPacket));
        EXPECT_EQ(0, avcodec_receive_frame(pDecoder, m_pFrame.get()));
        avcodec_free_context(&pDecoder);
        av_packet_free(&pPacket);
    }

    int32_t Width() const
    {
        return m_pFrame->width;
    }
    int32_t Height() const
    {
        return m_pFrame->height;
    }
    int32_t At(int32_t s32X, int32_t s32Y) const
    {
        return m_pFrame->data[0] == nullptr ? -1 : m_pFrame->data[0][s32Y * m_pFrame->linesize[0] + s32X];
    }

private:
    static void Free(AVFrame *pFrame)
    {
        av_frame_free(&pFrame);
    }
    std::unique_ptr<AVFrame, void (*)(AVFrame *)> m_pFrame{av_frame_alloc(), Free};
};

static TOOL_RESULT_S Take(const RECORDING_S &stRecording, const std::string &strOutput, const std::string &strAt)
{
    return TOOL_Run({"snapshot", stRecording.Path(), "--storage", stRecording.strStorage, strOutput, "--at", strAt});
}

class Snapshot : public ::testing::TestWithParam<const char *>
{
};

TEST_P(Snapshot, ShowsThePictureOfItsTimeInFullRange)
{
    RECORDING_S &stRecording = RECORDINGS::Get().Of(GetParam());
    ASSERT_EQ(0, stRecording.pTool->Wait()) << stRecording.pTool->Err();
    const std::string strOutput = RECORDINGS::Get().NewFolder() + "/still.jpg";
    const TOOL_RESULT_S stResult = Take(stRecording, strOutput, "2.5");
    ASSERT_EQ(0, stResult.s32Status) << stResult.strErr;
    EXPECT_EQ("", stResult.strErr);
    EXPECT_EQ("", stResult.strOut);
    const PICTURE picture(strOutput);
    EXPECT_EQ(640, picture.Width());
    EXPECT_EQ(360, picture.Height());
    // The stripes: 180 and 16 of the video's 16 to 235 are 191 and 0 of 0 to 255.
    EXPECT_NEAR(191, picture.At(20, 20), 8);
    EXPECT_NEAR(0, picture.At(620, 20), 8);
    // The white square of picture 62 reaches from 248 to 338; the key frame at 2 s, picture 50, has it up to 290.
    EXPECT_NEAR(255, picture.At(325, 220), 12);
    EXPECT_LT(picture.At(235, 220), 200);
    EXPECT_LT(picture.At(350, 220), 200);
}

INSTANTIATE_TEST_SUITE_P(Each, Snapshot, ::testing::Values("testmp4", "test265"),
                         [](const auto &stInfo) { return std::string(stInfo.param); });

TEST(SnapshotFile, CutsAnOddSizeToAnEvenOne)
{
    const std::string strStorage = RECORDINGS::Get().NewFolder();
    const std::string strClip = strStorage + "/2024-03-01-08-15-00.To.2024-03-01-08-15-02.mkv";
    ASSERT_TRUE(
        TOOL_RunFfmpeg("-f lavfi -i testsrc=size=161x121:rate=25 -t 1 -c:v libx264 -pix_fmt yuv444p -bf 0 " + strClip));
    const TOOL_RESULT_S stResult = TOOL_Run({"snapshot", strClip, strStorage + "/a.jpg", "--storage", strStorage});
    ASSERT_EQ(0, stResult.s32Status) << stResult.strErr;
    const PICTURE picture(strStorage + "/a.jpg");
    EXPECT_EQ(160, picture.Width());
    EXPECT_EQ(120, picture.Height());
}
