// The FFmpeg reader: packets of one media file, one at a time, with seeks and the parameters of its streams.
// Threads: any; calls on one reader are serialised by the caller. Locks: none.
// Invariant: at most one packet is out; its bytes are valid until it is released, or until a seek or the close, unless
// somebody keeps it.

#include "media/demuxer.h"

#include <cerrno>
#include <new>

extern "C"
{
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
}

#include "media/error_text.h"
#include "media/file_check.h"
#include "media/frame_out.h"
#include "media/stream_info.h"
#include "util/log.h"

namespace libquarrin
{

// Status codes of the reader, beside QN_RET_*.
constexpr int32_t FFREAD_RET_OK = 0;
constexpr int32_t FFREAD_RET_STATE = 1;   ///< null reader, or a frame is out
constexpr int32_t FFREAD_RET_ERROR = 8;   ///< the file cannot be read on
constexpr int32_t FFREAD_RET_END = 9;     ///< end of file
constexpr int32_t FFREAD_RET_MEMORY = 10; ///< no memory for a packet

// What a recording of this library holds, and MP3, which the reader picks too. No other decoder sees a byte.
constexpr const char *CODECS = "h264,hevc,aac,mp3,mp3float";

// Serves the half-open reader too.
static void FreeReader(tagFFREAD_HANDLER_S *pReader)
{
    av_packet_free(&pReader->pPacket);
    avformat_close_input(&pReader->pFormatCtx);
    delete pReader;
}

// False: no memory.
static bool SetLimits(AVFormatContext *pContext)
{
    pContext->codec_whitelist = av_strdup(CODECS); // the context frees it
    pContext->max_streams = FFREAD_MAX_STREAMS;
    return pContext->codec_whitelist != nullptr;
}

// FFmpeg frees the context and clears the pointer when avformat_open_input fails.
static bool OpenFile(tagFFREAD_HANDLER_S *pReader, const char *pszPath, QN_FILE_FMT_E enFormat)
{
    pReader->pFormatCtx = avformat_alloc_context();
    if (pReader->pFormatCtx == nullptr)
    {
        QN_LOG_ERROR_AS("FFMUXER_ReadOpen", "avformat_alloc_context failed");
        return false;
    }
    // One demuxer may have several names ("mov,mp4,m4a,..."); each of them finds it.
    const AVInputFormat *pFormat = av_find_input_format(getMuxerByFmt(enFormat));
    if (pFormat == nullptr)
    {
        QN_LOG_ERROR_AS("FFMUXER_ReadOpen", "av_find_input_format failed");
        return false;
    }
    int s32Ret = AVERROR(ENOMEM);
    if (SetLimits(pReader->pFormatCtx))
    {
        s32Ret = FFREAD_IsModest(pszPath, enFormat)
                     ? avformat_open_input(&pReader->pFormatCtx, pszPath, pFormat, nullptr)
                     : AVERROR_INVALIDDATA;
    }
    if (s32Ret < 0)
    {
        QN_LOG_ERROR_AS("FFMUXER_ReadOpen", "avformat_open_input failed: %s", QN_FF_ErrorText(s32Ret).szText);
        return false;
    }
    s32Ret = FFREAD_FindStreamInfo(pReader->pFormatCtx);
    if (s32Ret < 0)
    {
        QN_LOG_ERROR_AS("FFMUXER_ReadOpen", "avformat_find_stream_info failed: %s", QN_FF_ErrorText(s32Ret).szText);
        return false;
    }
    av_dump_format(pReader->pFormatCtx, 0, pszPath, 0);
    return true;
}

static bool IsUsableVideo(const AVCodecParameters *pPar)
{
    return pPar->codec_type == AVMEDIA_TYPE_VIDEO &&
           (pPar->codec_id == AV_CODEC_ID_H264 || pPar->codec_id == AV_CODEC_ID_HEVC);
}

static bool IsUsableAudio(const AVCodecParameters *pPar)
{
    return pPar->codec_type == AVMEDIA_TYPE_AUDIO &&
           (pPar->codec_id == AV_CODEC_ID_MP3 || pPar->codec_id == AV_CODEC_ID_AAC);
}

// Kept: the walk ends at the first usable video, so audio behind it is never chosen; before it the last audio is.
static void ChooseStreams(tagFFREAD_HANDLER_S *pReader)
{
    for (uint32_t i = 0; i < pReader->pFormatCtx->nb_streams; ++i)
    {
        const AVCodecParameters *pPar = pReader->pFormatCtx->streams[i]->codecpar;
        if (IsUsableVideo(pPar))
        {
            pReader->s32VideoIndex = static_cast<int32_t>(i);
            return;
        }
        if (IsUsableAudio(pPar))
        {
            pReader->s32AudioIndex = static_cast<int32_t>(i);
        }
    }
}

void *FFMUXER_ReadOpen(tagQN_REPLAY_PARAM_S *, const char *pszPath, QN_FILE_FMT_E enFormat)
{
    tagFFREAD_HANDLER_S *pReader = new (std::nothrow) tagFFREAD_HANDLER_S;
    if (pReader == nullptr)
    {
        return nullptr;
    }
    if (!OpenFile(pReader, pszPath != nullptr ? pszPath : "", enFormat)) // an empty path does not open
    {
        FreeReader(pReader);
        return nullptr;
    }
    ChooseStreams(pReader);
    return pReader;
}

// Kept: 0 for H.264 and 1 for every other codec, audio codecs too.
static uint32_t CodecWord(const AVStream *pStream)
{
    return pStream->codecpar->codec_id != AV_CODEC_ID_H264 ? 1 : 0;
}

static void DescribeVideo(const AVStream *pStream, tagQN_METADATA_S *pstMetadata)
{
    pstMetadata->u32VideoCodec = CodecWord(pStream);
    pstMetadata->u32Width = static_cast<uint32_t>(pStream->codecpar->width);
    pstMetadata->u32Height = static_cast<uint32_t>(pStream->codecpar->height);
    pstMetadata->u32VideoBitRate = static_cast<uint32_t>(pStream->codecpar->bit_rate);
    if (pStream->avg_frame_rate.den != 0)
    {
        pstMetadata->u32FrameRate = static_cast<uint32_t>(pStream->avg_frame_rate.num / pStream->avg_frame_rate.den);
    }
    pstMetadata->u32VideoTimeBaseNum = static_cast<uint32_t>(pStream->time_base.num);
    pstMetadata->u32VideoTimeBaseDen = static_cast<uint32_t>(pStream->time_base.den);
}

static void DescribeAudio(const AVStream *pStream, tagQN_METADATA_S *pstMetadata)
{
    pstMetadata->u32AudioCodec = CodecWord(pStream);
    pstMetadata->u32SampleRate = static_cast<uint32_t>(pStream->codecpar->sample_rate);
    pstMetadata->u32AudioBitRate = static_cast<uint32_t>(pStream->codecpar->bit_rate);
    pstMetadata->u32Channels = static_cast<uint32_t>(pStream->codecpar->ch_layout.nb_channels);
    pstMetadata->u32AudioTimeBaseNum = static_cast<uint32_t>(pStream->time_base.num);
    pstMetadata->u32AudioTimeBaseDen = static_cast<uint32_t>(pStream->time_base.den);
}

int32_t FFMUXER_ReadMetadata(void *pReader, tagQN_METADATA_S *pstMetadata)
{
    if (pReader == nullptr || pstMetadata == nullptr)
    {
        return -1;
    }
    const tagFFREAD_HANDLER_S *pHandler = static_cast<const tagFFREAD_HANDLER_S *>(pReader);
    if (pHandler->s32VideoIndex >= 0)
    {
        DescribeVideo(pHandler->pFormatCtx->streams[pHandler->s32VideoIndex], pstMetadata);
    }
    // Kept: audio at stream index 0 counts as none, unlike video.
    pstMetadata->bHasAudio = pHandler->s32AudioIndex >= 1 ? 1 : 0;
    if (pHandler->s32AudioIndex >= 1)
    {
        DescribeAudio(pHandler->pFormatCtx->streams[pHandler->s32AudioIndex], pstMetadata);
    }
    return 0;
}

// Reads the next packet into pPacket; on failure there is none.
static int32_t ReadPacket(tagFFREAD_HANDLER_S *pReader)
{
    pReader->pPacket = av_packet_alloc();
    if (pReader->pPacket == nullptr)
    {
        QN_LOG_ERROR_AS("FFMUXER_ReadGetFrame", "av_packet_alloc failed");
        return FFREAD_RET_MEMORY;
    }
    const int s32Ret = av_read_frame(pReader->pFormatCtx, pReader->pPacket);
    if (s32Ret >= 0)
    {
        return FFREAD_RET_OK;
    }
    av_packet_free(&pReader->pPacket);
    if (s32Ret == AVERROR_EOF)
    {
        return FFREAD_RET_END;
    }
    QN_LOG_ERROR_AS("FFMUXER_ReadGetFrame", "av_read_frame failed, ret=%s", QN_FF_ErrorText(s32Ret).szText);
    return FFREAD_RET_ERROR;
}

int32_t FFMUXER_ReadGetFrame(void *pReader, uint8_t **ppu8Data, uint32_t *pu32Size, uint64_t *pu64Pts, bool *pbKey,
                             bool *pbVideo)
{
    if (pReader == nullptr)
    {
        return FFREAD_RET_STATE;
    }
    tagFFREAD_HANDLER_S *pHandler = static_cast<tagFFREAD_HANDLER_S *>(pReader);
    if (pHandler->pPacket != nullptr)
    {
        QN_LOG_ERROR("frame in use, need release first");
        return FFREAD_RET_STATE;
    }
    const int32_t s32Ret = ReadPacket(pHandler);
    if (s32Ret != FFREAD_RET_OK)
    {
        return s32Ret;
    }
    const AVPacket *pPacket = pHandler->pPacket;
    *ppu8Data = pPacket->data;
    *pu32Size = static_cast<uint32_t>(pPacket->size);
    *pu64Pts = static_cast<uint64_t>(pPacket->pts); // Kept: the demuxer's value, in the time base of its stream
    *pbKey = (pPacket->flags & AV_PKT_FLAG_KEY) != 0;
    *pbVideo = pPacket->stream_index == pHandler->s32VideoIndex; // packets of streams not chosen come too
    return FFREAD_RET_OK;
}

int32_t FFMUXER_ReadReleaseFrame(void *pReader, uint8_t *pu8Data)
{
    if (pReader == nullptr)
    {
        return FFREAD_RET_STATE;
    }
    tagFFREAD_HANDLER_S *pHandler = static_cast<tagFFREAD_HANDLER_S *>(pReader);
    if (pHandler->pPacket == nullptr)
    {
        QN_LOG_ERROR("frame no get yet, need get first");
        return -1;
    }
    if (pHandler->pPacket->data != pu8Data)
    {
        QN_LOG_ERROR("frame not match to release");
        return FFREAD_RET_OK; // Kept: a success code, and the frame stays out
    }
    av_packet_free(&pHandler->pPacket);
    return FFREAD_RET_OK;
}

int32_t FFMUXER_ReadSeek(void *pReader, uint32_t u32Seconds)
{
    if (pReader == nullptr)
    {
        return -1;
    }
    tagFFREAD_HANDLER_S *pHandler = static_cast<tagFFREAD_HANDLER_S *>(pReader);
    if (pHandler->pPacket != nullptr)
    {
        av_packet_free(&pHandler->pPacket);
        QN_LOG_INFO("ReadSeek: Cleaned up dangling packet.");
    }
    const int64_t s64Time = av_rescale_q(u32Seconds, AVRational{1, 1}, AVRational{1, AV_TIME_BASE});
    const int s32Ret = av_seek_frame(pHandler->pFormatCtx, -1, s64Time, AVSEEK_FLAG_BACKWARD);
    (void)avformat_flush(pHandler->pFormatCtx); // has no failure; what was read ahead belongs to the old position
    return s32Ret;
}

// Where FFMUXER_ReadClose of this thread leaves the frame that is out; null: nowhere, it is freed.
static thread_local void **g_ppKeep = nullptr;

void FFREAD_KeepFrameOut(void **ppFrame)
{
    g_ppKeep = ppFrame;
}

void FFREAD_FreeFrameOut(void *pFrame)
{
    AVPacket *pPacket = static_cast<AVPacket *>(pFrame);
    av_packet_free(&pPacket);
}

int32_t FFMUXER_ReadClose(void *pReader)
{
    if (pReader == nullptr)
    {
        return -1;
    }
    tagFFREAD_HANDLER_S *pHandler = static_cast<tagFFREAD_HANDLER_S *>(pReader);
    if (g_ppKeep != nullptr && pHandler->pPacket != nullptr)
    {
        *g_ppKeep = pHandler->pPacket;
        pHandler->pPacket = nullptr;
    }
    FreeReader(pHandler);
    return 0;
}

} // namespace libquarrin
