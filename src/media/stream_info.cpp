// What the streams of an open file are, found without decoding a picture.
// Threads: any; calls on one context are serialised by the caller. Locks: none.
// Not here: which of the streams are read (demuxer.cpp), how large tables may be (file_check.cpp).

#include "media/stream_info.h"

#include <array>

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavutil/mathematics.h>
}

namespace libquarrin
{

// As far as FFmpeg looks for streams.
static constexpr int64_t LOOK_BYTES = 5000000;
static constexpr int64_t LOOK_MICROSECONDS = 7000000;

// A size for streams whose size is not known yet: FFmpeg wants one.
static constexpr int NO_SIZE = 1;
static constexpr const char *NO_SIZE_TEXT = "1x1";

/// The size of a picture.
struct tagSIZE_S
{
    int s32Width;
    int s32Height;
};

static bool IsVideo(const AVStream *pStream)
{
    return pStream->codecpar->codec_id == AV_CODEC_ID_H264 || pStream->codecpar->codec_id == AV_CODEC_ID_HEVC;
}

// The packet is so far behind the first one of its stream that FFmpeg would not look on.
static bool IsFar(const AVFormatContext *pContext, const AVPacket *pPacket,
                  std::array<int64_t, FFREAD_MAX_STREAMS> &as64First)
{
    const size_t stream = static_cast<size_t>(pPacket->stream_index);
    if (stream >= as64First.size() || pPacket->dts == AV_NOPTS_VALUE)
    {
        return false;
    }
    if (as64First[stream] == AV_NOPTS_VALUE)
    {
        as64First[stream] = pPacket->dts;
    }
    const AVRational stMicroseconds = {1, AV_TIME_BASE};
    return av_compare_ts(pPacket->dts, pContext->streams[stream]->time_base,
                         av_rescale_q(as64First[stream], pContext->streams[stream]->time_base, stMicroseconds) +
                             LOOK_MICROSECONDS,
                         stMicroseconds) > 0;
}

// From the parameter sets that were read last; zeros: none yet.
static tagSIZE_S SizeOfSets(const AVStream *pStream)
{
    const AVCodecParserContext *pParser = av_stream_get_parser(pStream);
    return pParser != nullptr ? tagSIZE_S{pParser->width, pParser->height} : tagSIZE_S{0, 0};
}

static void NoteSize(AVStream *pStream)
{
    const tagSIZE_S stSets = SizeOfSets(pStream);
    if (IsVideo(pStream) && stSets.s32Width > 0 && stSets.s32Height > 0)
    {
        pStream->codecpar->width = stSets.s32Width;
        pStream->codecpar->height = stSets.s32Height;
    }
}

// Streams of MPEG-TS may show with their packets alone. One that FFmpeg meets while it looks for stream information has
// no options: what comes is met before that, sizes of pictures too, and the file begins anew.
static void MeetStreams(AVFormatContext *pContext)
{
    AVPacket *pPacket = av_packet_alloc();
    std::array<int64_t, FFREAD_MAX_STREAMS> as64First;
    as64First.fill(AV_NOPTS_VALUE);
    bool bFar = pPacket == nullptr; // without memory: those of the header only
    while (!bFar && avio_tell(pContext->pb) < LOOK_BYTES && av_read_frame(pContext, pPacket) >= 0)
    {
        bFar = IsFar(pContext, pPacket, as64First);
        NoteSize(pContext->streams[pPacket->stream_index]); // the parser goes with the last packet
        av_packet_unref(pPacket);
    }
    av_packet_free(&pPacket);
    (void)av_seek_frame(pContext, -1, 0, AVSEEK_FLAG_BYTE); // to the first byte; one that fails shows in the first read
    (void)avformat_flush(pContext);                         // has no failure
}

// FFmpeg decodes pictures as long as it lacks the size or the format of a stream, and some more of H.264. Without a
// format it opens the decoder at once, with options by which nothing is missing and no picture is made. Nobody here
// asks for the format.
static tagSIZE_S PrepareVideo(AVStream *pStream, AVDictionary **ppOptions)
{
    AVCodecParameters *pPar = pStream->codecpar;
    const tagSIZE_S stSize = {pPar->width, pPar->height};
    pPar->format = AV_PIX_FMT_NONE;
    (void)av_dict_set(ppOptions, "skip_frame", "all", 0); // without memory the open fails anyway
    (void)av_dict_set(ppOptions, "pixel_format", "yuv420p", 0);
    if (stSize.s32Width <= 0 || stSize.s32Height <= 0)
    {
        (void)av_dict_set(ppOptions, "video_size", NO_SIZE_TEXT, 0);
    }
    return stSize;
}

static int Align16(int s32Number)
{
    return (s32Number + 15) / 16 * 16;
}

// The container cuts whole macroblocks to the picture, and the parameter sets do not.
static bool CutsMacroblocks(const tagSIZE_S &stOuter, const tagSIZE_S &stSets)
{
    return stOuter.s32Width > 0 && stOuter.s32Height > 0 && stOuter.s32Width <= stSets.s32Width &&
           stOuter.s32Height <= stSets.s32Height && Align16(stOuter.s32Width) == Align16(stSets.s32Width) &&
           Align16(stOuter.s32Height) == Align16(stSets.s32Height);
}

// The parameter sets win over the container, as with a decoder.
static void SettleSize(AVStream *pStream, const tagSIZE_S &stOuter)
{
    AVCodecParameters *pPar = pStream->codecpar;
    const tagSIZE_S stSets = SizeOfSets(pStream);
    if (stSets.s32Width > 0 && stSets.s32Height > 0)
    {
        const bool bCuts = pPar->codec_id == AV_CODEC_ID_H264 && CutsMacroblocks(stOuter, stSets);
        pPar->width = bCuts ? stOuter.s32Width : stSets.s32Width;
        pPar->height = bCuts ? stOuter.s32Height : stSets.s32Height;
    }
    else if (pPar->width == NO_SIZE && pPar->height == NO_SIZE)
    {
        pPar->width = stOuter.s32Width;
        pPar->height = stOuter.s32Height;
    }
}

int FFREAD_FindStreamInfo(AVFormatContext *pContext)
{
    if ((pContext->ctx_flags & AVFMTCTX_NOHEADER) != 0)
    {
        MeetStreams(pContext);
    }
    const uint32_t u32Streams = pContext->nb_streams;
    std::array<AVDictionary *, FFREAD_MAX_STREAMS> apOptions = {};
    std::array<tagSIZE_S, FFREAD_MAX_STREAMS> astSizes = {};
    for (uint32_t i = 0; i < u32Streams && i < apOptions.size(); ++i)
    {
        if (IsVideo(pContext->streams[i]))
        {
            astSizes[i] = PrepareVideo(pContext->streams[i], &apOptions[i]);
        }
    }
    pContext->max_streams = static_cast<int>(u32Streams); // none that has no options
    const int s32Ret = avformat_find_stream_info(pContext, u32Streams > 0 ? apOptions.data() : nullptr);
    pContext->max_streams = FFREAD_MAX_STREAMS;
    for (uint32_t i = 0; i < u32Streams && i < apOptions.size(); ++i)
    {
        if (IsVideo(pContext->streams[i]))
        {
            SettleSize(pContext->streams[i], astSizes[i]);
        }
        av_dict_free(&apOptions[i]);
    }
    return s32Ret;
}

} // namespace libquarrin
