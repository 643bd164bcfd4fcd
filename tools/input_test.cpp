// The generated clip: colour stripes, a square that walks, and a tone, encoded while it is recorded.

#include "input.h"

#include <algorithm>
#include <cmath>

#include "annexb.h"
#include "encoder.h"
#include "ff.h"

static constexpr int32_t TEST_WIDTH = 640;
static constexpr int32_t TEST_HEIGHT = 360;
static constexpr int32_t TEST_FPS = 25;
static constexpr int32_t TEST_SAMPLE_RATE = 48000;
static constexpr int32_t TEST_CHANNELS = 2;
static constexpr double TEST_TONE_HZ = 440.0;
static constexpr double TEST_PI = 3.14159265358979323846;

struct tagTOOL_TEST_S
{
    tagTOOL_ENCODER_S stEncoder;
    TOOL_PICTURE pPicture;
    int64_t s64Pictures = 0; // drawn so far
    TOOL_CODEC pAudio;
    TOOL_PICTURE pSamples;
    TOOL_PACKET pPacket;
    tagTOOL_ADTS_S stAdts;
    int64_t s64Samples = 0; // made so far
};

static void FillPlane(AVFrame *pPicture, int32_t s32Plane, int32_t s32Shift, const uint8_t *pu8Stripes, int64_t s64No)
{
    const int32_t s32Stripe = (TEST_WIDTH >> s32Shift) / 8;
    const int32_t s32Height = TEST_HEIGHT >> s32Shift;
    const int32_t s32Side = s32Height / 4;
    const int32_t s32Left = static_cast<int32_t>((s64No * 4) % (TEST_WIDTH - TEST_HEIGHT / 4)) >> s32Shift;
    const uint8_t u8White = s32Plane == 0 ? 235 : 128;
    for (int32_t y = 0; y < s32Height; y++)
    {
        uint8_t *pu8Row = pPicture->data[s32Plane] + y * pPicture->linesize[s32Plane];
        for (int32_t s32No = 0; s32No < 8; s32No++)
        {
            std::fill_n(pu8Row + s32No * s32Stripe, s32Stripe, pu8Stripes[s32No]);
        }
        if (y >= s32Height / 2 && y < s32Height / 2 + s32Side)
        {
            std::fill_n(pu8Row + s32Left, s32Side, u8White);
        }
    }
}

static void DrawPicture(AVFrame *pPicture, int64_t s64No)
{
    static const uint8_t au8Y[8] = {180, 162, 131, 112, 84, 65, 35, 16};
    static const uint8_t au8U[8] = {128, 44, 156, 72, 184, 100, 212, 128};
    static const uint8_t au8V[8] = {128, 142, 44, 58, 198, 212, 114, 128};
    FillPlane(pPicture, 0, 0, au8Y, s64No);
    FillPlane(pPicture, 1, 1, au8U, s64No);
    FillPlane(pPicture, 2, 1, au8V, s64No);
}

static bool AddVideo(tagTOOL_INPUT_S &stInput, tagTOOL_TEST_S &stTest, std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    if (av_frame_make_writable(stTest.pPicture.get()) < 0)
    {
        stInput.strError = "out of memory";
        return false;
    }
    DrawPicture(stTest.pPicture.get(), stTest.s64Pictures);
    stTest.pPicture->pts = stTest.s64Pictures * 1000000 / TEST_FPS;
    stTest.s64Pictures++;
    return TOOL_ENCODER_Encode(stTest.stEncoder, stTest.pPicture.get(), dqFrames, stInput.strError);
}

static void MakeTone(tagTOOL_TEST_S &stTest)
{
    AVFrame *pSamples = stTest.pSamples.get();
    for (int32_t s32Sample = 0; s32Sample < pSamples->nb_samples; s32Sample++)
    {
        const double dTime = static_cast<double>(stTest.s64Samples + s32Sample) / TEST_SAMPLE_RATE;
        const float fValue = static_cast<float>(0.2 * std::sin(2.0 * TEST_PI * TEST_TONE_HZ * dTime));
        for (int32_t s32Channel = 0; s32Channel < TEST_CHANNELS; s32Channel++)
        {
            reinterpret_cast<float *>(pSamples->data[s32Channel])[s32Sample] = fValue;
        }
    }
    pSamples->pts = stTest.s64Samples;
    stTest.s64Samples += pSamples->nb_samples;
}

static bool AppendAudio(tagTOOL_TEST_S &stTest, std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    const AVPacket *pPacket = stTest.pPacket.get();
    tagTOOL_FRAME_S stFrame;
    if (!TOOL_ADTS_Append(stTest.stAdts, static_cast<size_t>(pPacket->size), stFrame.vecData))
    {
        return false;
    }
    stFrame.vecData.insert(stFrame.vecData.end(), pPacket->data, pPacket->data + pPacket->size);
    stFrame.s64Time = av_rescale_q(pPacket->pts, AVRational{1, TEST_SAMPLE_RATE}, TOOL_TIME_BASE);
    stFrame.bKey = true;
    dqFrames.push_back(std::move(stFrame));
    return true;
}

static bool AddAudio(tagTOOL_INPUT_S &stInput, tagTOOL_TEST_S &stTest, std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    int s32Result = av_frame_make_writable(stTest.pSamples.get());
    if (s32Result >= 0)
    {
        MakeTone(stTest);
        s32Result = avcodec_send_frame(stTest.pAudio.get(), stTest.pSamples.get());
    }
    while (s32Result >= 0)
    {
        s32Result = avcodec_receive_packet(stTest.pAudio.get(), stTest.pPacket.get());
        if (s32Result >= 0 && !AppendAudio(stTest, dqFrames))
        {
            s32Result = AVERROR(ERANGE);
        }
        av_packet_unref(stTest.pPacket.get());
    }
    if (s32Result != AVERROR(EAGAIN))
    {
        stInput.strError = "the audio encoder failed: " + TOOL_FF_Text(s32Result);
        return false;
    }
    return true;
}

/// Makes whichever stream is behind, so that the two keep together.
static TOOL_READ_E ReadTest(tagTOOL_INPUT_S &stInput, std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    tagTOOL_TEST_S &stTest = *static_cast<tagTOOL_TEST_S *>(stInput.spState.get());
    const bool bVideoBehind =
        stTest.s64Pictures * TEST_SAMPLE_RATE <= stTest.s64Samples * static_cast<int64_t>(TEST_FPS);
    const bool bGood = bVideoBehind ? AddVideo(stInput, stTest, dqFrames) : AddAudio(stInput, stTest, dqFrames);
    return bGood ? TOOL_READ_E_GOOD : TOOL_READ_E_FAILED;
}

static bool OpenVideo(tagTOOL_INPUT_S &stInput, tagTOOL_TEST_S &stTest)
{
    stTest.pPicture.reset(av_frame_alloc());
    if (!stTest.pPicture)
    {
        return false;
    }
    stTest.pPicture->format = AV_PIX_FMT_YUV420P;
    stTest.pPicture->width = TEST_WIDTH;
    stTest.pPicture->height = TEST_HEIGHT;
    return av_frame_get_buffer(stTest.pPicture.get(), 0) >= 0 &&
           TOOL_ENCODER_Open(stInput.stVideo, stTest.stEncoder, stInput.strError);
}

static bool OpenAudio(tagTOOL_INPUT_S &stInput, tagTOOL_TEST_S &stTest)
{
    const AVCodec *pCodec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    stTest.pAudio.reset(avcodec_alloc_context3(pCodec));
    stTest.pSamples.reset(av_frame_alloc());
    stTest.pPacket.reset(av_packet_alloc());
    if (pCodec == nullptr || !stTest.pAudio || !stTest.pSamples || !stTest.pPacket)
    {
        stInput.strError = "this FFmpeg has no AAC encoder";
        return false;
    }
    stTest.pAudio->sample_rate = TEST_SAMPLE_RATE;
    stTest.pAudio->sample_fmt = AV_SAMPLE_FMT_FLTP;
    stTest.pAudio->bit_rate = 96000;
    av_channel_layout_default(&stTest.pAudio->ch_layout, TEST_CHANNELS);
    int s32Result = avcodec_open2(stTest.pAudio.get(), pCodec, nullptr);
    stTest.pSamples->format = AV_SAMPLE_FMT_FLTP;
    stTest.pSamples->sample_rate = TEST_SAMPLE_RATE;
    stTest.pSamples->nb_samples = stTest.pAudio->frame_size;
    av_channel_layout_default(&stTest.pSamples->ch_layout, TEST_CHANNELS);
    s32Result = s32Result < 0 ? s32Result : av_frame_get_buffer(stTest.pSamples.get(), 0);
    if (s32Result < 0)
    {
        stInput.strError = "cannot begin the AAC encoder: " + TOOL_FF_Text(s32Result);
        return false;
    }
    return TOOL_ADTS_FromConfig(stTest.pAudio->extradata, static_cast<size_t>(stTest.pAudio->extradata_size),
                                stTest.stAdts);
}

bool TOOL_INPUT_OpenTest(const tagTOOL_INPUT_OPTIONS_S &stOptions, tagTOOL_INPUT_S &stInput)
{
    std::shared_ptr<tagTOOL_TEST_S> spTest = std::make_shared<tagTOOL_TEST_S>();
    stInput.stVideo.bPresent = true;
    stInput.stVideo.enCodec = stOptions.enTestCodec;
    stInput.stVideo.u32Width = TEST_WIDTH;
    stInput.stVideo.u32Height = TEST_HEIGHT;
    stInput.stVideo.s32RateNum = TEST_FPS;
    stInput.stAudio.bPresent = true;
    stInput.stAudio.u32SampleRate = TEST_SAMPLE_RATE;
    stInput.stAudio.u32Channels = TEST_CHANNELS;
    stInput.strError = "cannot begin the generated clip";
    if (!OpenVideo(stInput, *spTest) || !OpenAudio(stInput, *spTest))
    {
        return false;
    }
    stInput.strError.clear();
    stInput.spState = spTest;
    stInput.pfnRead = ReadTest;
    return true;
}
