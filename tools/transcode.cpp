// Transcoder: decoder, scaler, encoder.

#include "transcode.h"

extern "C"
{
#include <libswscale/swscale.h>
}

#include "encoder.h"

struct tagTOOL_TRANSCODER_S
{
    TOOL_CODEC pDecoder;
    TOOL_PICTURE pDecoded;
    TOOL_PICTURE pScaled;
    std::unique_ptr<SwsContext, void (*)(SwsContext *)> pScaler{nullptr, sws_freeContext};
    tagTOOL_ENCODER_S stEncoder;
    bool bEnded = false;
};

static bool OpenDecoder(const AVCodecParameters *pParameters, tagTOOL_TRANSCODER_S &stTranscoder, std::string &strError)
{
    const AVCodec *pCodec = avcodec_find_decoder(pParameters->codec_id);
    stTranscoder.pDecoder.reset(avcodec_alloc_context3(pCodec));
    if (pCodec == nullptr || !stTranscoder.pDecoder)
    {
        strError = std::string("this FFmpeg has no decoder for ") + avcodec_get_name(pParameters->codec_id);
        return false;
    }
    int s32Result = avcodec_parameters_to_context(stTranscoder.pDecoder.get(), pParameters);
    stTranscoder.pDecoder->pkt_timebase = TOOL_TIME_BASE;
    s32Result = s32Result < 0 ? s32Result : avcodec_open2(stTranscoder.pDecoder.get(), pCodec, nullptr);
    if (s32Result < 0)
    {
        strError = "cannot begin the decoder: " + TOOL_FF_Text(s32Result);
    }
    return s32Result >= 0;
}

std::shared_ptr<tagTOOL_TRANSCODER_S> TOOL_TRANSCODE_Open(const AVCodecParameters *pParameters,
                                                          tagTOOL_VIDEO_S &stVideo, std::string &strError)
{
    std::shared_ptr<tagTOOL_TRANSCODER_S> spTranscoder = std::make_shared<tagTOOL_TRANSCODER_S>();
    spTranscoder->pDecoded.reset(av_frame_alloc());
    spTranscoder->pScaled.reset(av_frame_alloc());
    stVideo.u32Width = (stVideo.u32Width + 1) & ~1u;
    stVideo.u32Height = (stVideo.u32Height + 1) & ~1u;
    stVideo.u32BitRate = 0;
    if (!spTranscoder->pDecoded || !spTranscoder->pScaled)
    {
        strError = "out of memory";
        return nullptr;
    }
    const bool bGood = OpenDecoder(pParameters, *spTranscoder, strError) &&
                       TOOL_ENCODER_Open(stVideo, spTranscoder->stEncoder, strError);
    return bGood ? spTranscoder : nullptr;
}

/// Brings a picture to the encoder's size and YUV 4:2:0; null when it cannot be.
static AVFrame *Scale(tagTOOL_TRANSCODER_S &stTranscoder)
{
    const AVFrame *pFrom = stTranscoder.pDecoded.get();
    const AVCodecContext *pEncoder = stTranscoder.stEncoder.pContext.get();
    AVFrame *pTo = stTranscoder.pScaled.get();
    av_frame_unref(pTo);
    pTo->format = AV_PIX_FMT_YUV420P;
    pTo->width = pEncoder->width;
    pTo->height = pEncoder->height;
    if (av_frame_get_buffer(pTo, 0) < 0)
    {
        return nullptr;
    }
    stTranscoder.pScaler.reset(sws_getCachedContext(stTranscoder.pScaler.release(), pFrom->width, pFrom->height,
                                                    static_cast<AVPixelFormat>(pFrom->format), pTo->width, pTo->height,
                                                    AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!stTranscoder.pScaler)
    {
        return nullptr;
    }
    sws_scale(stTranscoder.pScaler.get(), pFrom->data, pFrom->linesize, 0, pFrom->height, pTo->data, pTo->linesize);
    pTo->pts = pFrom->best_effort_timestamp;
    return pTo;
}

bool TOOL_TRANSCODE_Packet(tagTOOL_TRANSCODER_S &stTranscoder, const AVPacket *pPacket,
                           std::deque<tagTOOL_FRAME_S> &dqFrames, std::string &strError)
{
    if (stTranscoder.bEnded)
    {
        return true;
    }
    stTranscoder.bEnded = pPacket == nullptr;
    (void)avcodec_send_packet(stTranscoder.pDecoder.get(), pPacket); // a damaged packet gives no picture
    while (avcodec_receive_frame(stTranscoder.pDecoder.get(), stTranscoder.pDecoded.get()) >= 0)
    {
        AVFrame *pPicture = Scale(stTranscoder);
        if (pPicture != nullptr && pPicture->pts != AV_NOPTS_VALUE &&
            !TOOL_ENCODER_Encode(stTranscoder.stEncoder, pPicture, dqFrames, strError))
        {
            return false;
        }
    }
    return pPacket != nullptr || TOOL_ENCODER_Encode(stTranscoder.stEncoder, nullptr, dqFrames, strError);
}
