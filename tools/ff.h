// Owners of FFmpeg objects: each is freed at the end of its block.
#ifndef QUARRIN_TOOLS_FF_H
#define QUARRIN_TOOLS_FF_H

#include <memory>
#include <string>

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/frame.h>
}

struct tagTOOL_FF_FREE_S
{
    void operator()(AVPacket *pPacket) const
    {
        av_packet_free(&pPacket);
    }
    void operator()(AVFrame *pFrame) const
    {
        av_frame_free(&pFrame);
    }
    void operator()(AVCodecContext *pContext) const
    {
        avcodec_free_context(&pContext);
    }
    void operator()(AVBSFContext *pContext) const
    {
        av_bsf_free(&pContext);
    }
};

using TOOL_PACKET = std::unique_ptr<AVPacket, tagTOOL_FF_FREE_S>;
using TOOL_PICTURE = std::unique_ptr<AVFrame, tagTOOL_FF_FREE_S>;
using TOOL_CODEC = std::unique_ptr<AVCodecContext, tagTOOL_FF_FREE_S>;
using TOOL_FILTER = std::unique_ptr<AVBSFContext, tagTOOL_FF_FREE_S>;

/// Microseconds, the tool's own unit of time.
constexpr AVRational TOOL_TIME_BASE = {1, 1000000};

/// FFmpeg's text of an error code.
inline std::string TOOL_FF_Text(int32_t s32Error)
{
    char acText[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(s32Error, acText, sizeof(acText));
    return acText;
}

#endif
