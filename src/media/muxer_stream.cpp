// Streams of the FFmpeg writer: codec parameters from the host's, and the time stamp of each packet.
// Threads: any, serialised by the caller. Locks: none. Not here: files and packets (muxer.cpp).

#include "media/muxer.h"

#include <climits>
#include <cstring>

extern "C"
{
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
}

#include "media/h265_sps.h"
#include "util/log.h"

namespace libquarrin
{

// What a stream is declared with; MP4 and MOV take it over for video, Matroska and audio settle their own.
static constexpr int32_t STREAM_TIME_BASE_DEN = 90000;
static constexpr int32_t AAC_SAMPLES_PER_FRAME = 1024;

static uint32_t LengthOf(const tagQN_BYTES &stBytes)
{
    return stBytes.pu8Data != nullptr ? stBytes.u32Len : 0;
}

// The parameter sets as the host gave them, one behind the other. False when FFmpeg cannot hold that many.
static bool SetExtradata(AVCodecParameters *pPar, const tagQN_STREAM_PARAM_S *pstParam)
{
    const uint32_t u32Sps = LengthOf(pstParam->stSps);
    const uint32_t u32Pps = LengthOf(pstParam->stPps);
    const uint64_t u64Size = uint64_t{u32Sps} + u32Pps;
    if (u64Size > static_cast<uint64_t>(INT_MAX - AV_INPUT_BUFFER_PADDING_SIZE))
    {
        return false;
    }
    // Kept: the padding stays as allocated; the writer reads none of it.
    pPar->extradata = static_cast<uint8_t *>(av_malloc(static_cast<size_t>(u64Size) + AV_INPUT_BUFFER_PADDING_SIZE));
    if (pPar->extradata == nullptr)
    {
        return false;
    }
    if (u32Sps != 0)
    {
        memcpy(pPar->extradata, pstParam->stSps.pu8Data, u32Sps);
    }
    if (u32Pps != 0)
    {
        memcpy(pPar->extradata + u32Sps, pstParam->stPps.pu8Data, u32Pps);
    }
    pPar->extradata_size = static_cast<int>(u64Size);
    return true;
}

// Marks the parameter sets that begin in the bytes: bit 0 VPS, bit 1 SPS, bit 2 PPS (ISO/IEC 23008-2, table 7-1).
static uint32_t H265SetsIn(const tagQN_BYTES &stBytes)
{
    uint32_t u32Found = 0;
    const uint32_t u32Len = LengthOf(stBytes);
    for (uint32_t i = 0; i + 3 < u32Len; ++i)
    {
        const uint8_t *pu8 = stBytes.pu8Data + i;
        if (pu8[0] == 0 && pu8[1] == 0 && pu8[2] == 1) // also the end of a four-byte start code
        {
            const uint32_t u32Type = pu8[3] >> 1 & 63u;
            u32Found |= u32Type >= 32 && u32Type <= 34 ? 1u << (u32Type - 32) : 0;
        }
    }
    return u32Found;
}

// Matroska's header cannot be written without the parameter sets of H.265; the other containers find them in-band.
static bool NeedsH265Extradata(const AVFormatContext *pContext, const tagQN_STREAM_PARAM_S *pstParam)
{
    return strcmp(pContext->oformat->name, "matroska") == 0 &&
           (H265SetsIn(pstParam->stSps) | H265SetsIn(pstParam->stPps)) == 7;
}

// FFmpeg would be busy for minutes with a set that is cut: it gets none then, and refuses to write the header.
static bool SetH265Extradata(AVCodecParameters *pPar, const tagQN_STREAM_PARAM_S *pstParam)
{
    if (!SetExtradata(pPar, pstParam))
    {
        return false;
    }
    if (!H265_SpsAreWhole(pPar->extradata, static_cast<uint32_t>(pPar->extradata_size)))
    {
        av_freep(&pPar->extradata);
        pPar->extradata_size = 0;
    }
    return true;
}

static void SetVideo(AVStream *pStream, AVCodecID enCodecId, const tagQN_STREAM_PARAM_S *pstParam)
{
    AVCodecParameters *pPar = pStream->codecpar;
    pPar->codec_type = AVMEDIA_TYPE_VIDEO;
    pPar->codec_id = enCodecId;
    pPar->width = static_cast<int>(pstParam->u32Width); // absurd sizes are negative here and FFmpeg refuses them
    pPar->height = static_cast<int>(pstParam->u32Height);
    pPar->bit_rate = pstParam->u32BitRate;
    pStream->r_frame_rate = AVRational{static_cast<int>(pstParam->u32Fps), 1};
}

static void SetAac(AVStream *pStream, const tagQN_STREAM_PARAM_S *pstParam)
{
    AVCodecParameters *pPar = pStream->codecpar;
    pPar->codec_type = AVMEDIA_TYPE_AUDIO;
    pPar->codec_id = AV_CODEC_ID_AAC;
    pPar->sample_rate = static_cast<int>(pstParam->u32Width);
    pPar->format = AV_SAMPLE_FMT_S16;
    // Kept: every channel count but 2 is mono.
    (void)av_channel_layout_from_mask(&pPar->ch_layout, // cannot fail for a mask of FFmpeg's own
                                      pstParam->u32Fps == 2 ? AV_CH_LAYOUT_STEREO : AV_CH_LAYOUT_MONO);
    pStream->r_frame_rate = AVRational{pPar->sample_rate, AAC_SAMPLES_PER_FRAME};
}

static bool SetCodec(const AVFormatContext *pContext, AVStream *pStream, const tagQN_STREAM_PARAM_S *pstParam)
{
    switch (pstParam->enCodec)
    {
    case QN_CODEC_H264:
        SetVideo(pStream, AV_CODEC_ID_H264, pstParam);
        pStream->codecpar->format = AV_PIX_FMT_YUV420P;
        return SetExtradata(pStream->codecpar, pstParam);
    case QN_CODEC_H265:
        SetVideo(pStream, AV_CODEC_ID_HEVC, pstParam);
        return !NeedsH265Extradata(pContext, pstParam) || SetH265Extradata(pStream->codecpar, pstParam);
    case QN_CODEC_AAC:
        SetAac(pStream, pstParam);
        return true;
    }
    QN_LOG_ERROR_AS("FFMUXER_InitStream", "unsupport stream type %d for ffmuxer", pstParam->enCodec);
    return false;
}

int32_t FFMUXER_InitStream(tagFFWRITE_HANDLER_S *pWriter, const tagQN_STREAM_PARAM_S *pstParam,
                           tagFFWRITE_STREAM_S *pstOut)
{
    AVStream *pStream = avformat_new_stream(pWriter->pstFmtCtx, nullptr);
    if (pStream == nullptr)
    {
        return -1;
    }
    pStream->time_base = AVRational{1, STREAM_TIME_BASE_DEN};
    pstOut->pstStream = pStream;
    pstOut->stTimeBase = {pstParam->u32TimeBaseNum, pstParam->u32TimeBaseDen};
    pstOut->u64FrameCount = 0;
    return SetCodec(pWriter->pstFmtCtx, pStream, pstParam) ? 0 : -1;
}

// av_rescale_q asserts, or answers nonsense, when a fraction is none.
static int64_t Rescale(int64_t s64Value, int64_t s64Num, int64_t s64Den, AVRational stTo)
{
    if (s64Num < 0 || s64Num > INT_MAX || s64Den <= 0 || s64Den > INT_MAX || stTo.num <= 0 || stTo.den <= 0)
    {
        return AV_NOPTS_VALUE;
    }
    return av_rescale_q(s64Value, AVRational{static_cast<int>(s64Num), static_cast<int>(s64Den)}, stTo);
}

int64_t FFMUXER_ReCalcPts(tagFFWRITE_HANDLER_S *pWriter, const tagFFWRITE_STREAM_S *pstStream, int64_t s64Pts)
{
    const AVStream *pStream = pstStream->pstStream;
    if (pWriter->bPtsByCount)
    {
        // The frame rate turned over.
        return Rescale(static_cast<int64_t>(pstStream->u64FrameCount), pStream->r_frame_rate.den,
                       pStream->r_frame_rate.num, pStream->time_base);
    }
    uint64_t u64Value = static_cast<uint64_t>(s64Pts); // unsigned, so that no pts of a host overflows
    if (pWriter->bPtsFromFirst && pWriter->u64FirstPts != 0)
    {
        u64Value -= pWriter->u64FirstPts;
    }
    else if (pWriter->bPtsFromFirst)
    {
        // Kept: a first pts of 0 counts as not seen, so the next frame becomes the first one again.
        pWriter->u64FirstPts = u64Value;
        u64Value = 0;
    }
    return Rescale(static_cast<int64_t>(u64Value), pstStream->stTimeBase.u32Num, pstStream->stTimeBase.u32Den,
                   pStream->time_base);
}

} // namespace libquarrin
