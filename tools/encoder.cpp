// Video encoder for the generated clip and for --transcode.

#include "encoder.h"

extern "C"
{
#include <libavutil/opt.h>
}

#include "annexb.h"

static constexpr int64_t TOOL_KEY_INTERVAL = 1000000; // a split waits for a key frame, so there is one every second

static AVRational RateOf(const tagTOOL_VIDEO_S &stVideo)
{
    const bool bKnown = stVideo.s32RateNum > 0 && stVideo.s32RateDen > 0;
    return bKnown ? AVRational{stVideo.s32RateNum, stVideo.s32RateDen} : AVRational{25, 1};
}

static void SetUp(AVCodecContext *pContext, const tagTOOL_VIDEO_S &stVideo)
{
    const AVRational stRate = RateOf(stVideo);
    pContext->width = static_cast<int>(stVideo.u32Width);
    pContext->height = static_cast<int>(stVideo.u32Height);
    pContext->pix_fmt = AV_PIX_FMT_YUV420P;
    pContext->time_base = TOOL_TIME_BASE;
    pContext->framerate = stRate;
    pContext->gop_size = (stRate.num + stRate.den - 1) / stRate.den;
    pContext->max_b_frames = 0;
    av_opt_set(pContext->priv_data, "preset", "ultrafast", 0);
    av_opt_set(pContext->priv_data, "tune", "zerolatency", 0);
    av_opt_set(pContext->priv_data, "forced-idr", "1", 0);
    av_opt_set(pContext->priv_data, "x264-params", "scenecut=0:open-gop=0:bframes=0", 0);
    av_opt_set(pContext->priv_data, "x265-params", "log-level=none:scenecut=0:open-gop=0:bframes=0:repeat-headers=1",
               0);
}

bool TOOL_ENCODER_Open(const tagTOOL_VIDEO_S &stVideo, tagTOOL_ENCODER_S &stEncoder, std::string &strError)
{
    const char *pszName = stVideo.enCodec == libquarrin::QN_CODEC_H265 ? "libx265" : "libx264";
    const AVCodec *pCodec = avcodec_find_encoder_by_name(pszName);
    if (pCodec == nullptr)
    {
        strError = std::string("this FFmpeg has no encoder ") + pszName;
        return false;
    }
    stEncoder.pContext.reset(avcodec_alloc_context3(pCodec));
    stEncoder.pPacket.reset(av_packet_alloc());
    if (!stEncoder.pContext || !stEncoder.pPacket)
    {
        strError = "out of memory";
        return false;
    }
    SetUp(stEncoder.pContext.get(), stVideo);
    const int s32Result = avcodec_open2(stEncoder.pContext.get(), pCodec, nullptr);
    if (s32Result < 0)
    {
        strError = std::string("cannot begin encoder ") + pszName + ": " + TOOL_FF_Text(s32Result);
        return false;
    }
    return true;
}

static void AppendPacket(const AVPacket *pPacket, std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    tagTOOL_FRAME_S stFrame;
    TOOL_ANNEXB_Append(pPacket->data, static_cast<size_t>(pPacket->size), stFrame.vecData);
    stFrame.s64Time = pPacket->pts;
    stFrame.bKey = (pPacket->flags & AV_PKT_FLAG_KEY) != 0;
    stFrame.bVideo = true;
    dqFrames.push_back(std::move(stFrame));
}

/// Key frames go by time, not by count: the rate of a transcoded input may be unknown or vary.
static void ChooseType(tagTOOL_ENCODER_S &stEncoder, AVFrame *pPicture)
{
    const bool bKey = stEncoder.s64LastKey == INT64_MIN || pPicture->pts - stEncoder.s64LastKey >= TOOL_KEY_INTERVAL;
    pPicture->pict_type = bKey ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    stEncoder.s64LastKey = bKey ? pPicture->pts : stEncoder.s64LastKey;
    stEncoder.s64LastTime = pPicture->pts;
}

bool TOOL_ENCODER_Encode(tagTOOL_ENCODER_S &stEncoder, AVFrame *pPicture, std::deque<tagTOOL_FRAME_S> &dqFrames,
                         std::string &strError)
{
    if (pPicture != nullptr && pPicture->pts <= stEncoder.s64LastTime)
    {
        return true; // an encoder refuses time that stands still; the picture is a duplicate
    }
    if (pPicture != nullptr)
    {
        ChooseType(stEncoder, pPicture);
    }
    int s32Result = avcodec_send_frame(stEncoder.pContext.get(), pPicture);
    while (s32Result >= 0)
    {
        s32Result = avcodec_receive_packet(stEncoder.pContext.get(), stEncoder.pPacket.get());
        if (s32Result >= 0)
        {
            AppendPacket(stEncoder.pPacket.get(), dqFrames);
            av_packet_unref(stEncoder.pPacket.get());
        }
    }
    if (s32Result != AVERROR(EAGAIN) && s32Result != AVERROR_EOF)
    {
        strError = "the video encoder failed: " + TOOL_FF_Text(s32Result);
        return false;
    }
    return true;
}
