// The FFmpeg writer: one media file from its creation to its trailer.
// Threads: any; calls on one writer are serialised by the caller. Locks: none. Not here: codec parameters and time
// stamps (muxer_stream.cpp).

#include "media/muxer.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include <unistd.h>

extern "C"
{
#include <libavutil/dict.h>
}

#include "media/error_text.h"
#include "media/h265_sps.h"
#include "util/log.h"

namespace libquarrin
{

static void FreeWriter(tagFFWRITE_HANDLER_S *pWriter)
{
    avformat_free_context(pWriter->pstFmtCtx);
    while (pWriter->pShells != nullptr)
    {
        AVPacket *pShell = pWriter->pShells;
        pWriter->pShells = static_cast<AVPacket *>(pShell->opaque);
        av_packet_free(&pShell);
    }
    delete pWriter;
}

const char *getMuxerByFmt(QN_FILE_FMT_E enFormat)
{
    switch (enFormat)
    {
    case QN_FILE_FMT_E_TS:
        return "mpegts";
    case QN_FILE_FMT_E_MP4:
        return "mp4";
    case QN_FILE_FMT_E_MOV:
        return "mov";
    case QN_FILE_FMT_E_AAC:
        return "aac";
    default:
        return "matroska";
    }
}

int32_t FFMUXER_SetInitOutputDict(QN_FILE_FMT_E enFormat, AVDictionary **ppstDict)
{
    if (enFormat == QN_FILE_FMT_E_MP4)
    {
        (void)av_dict_set(ppstDict, "movflags", "faststart", 0); // nobody reads it, see WriteHeader
    }
    return 0;
}

static bool AddStreams(tagFFWRITE_HANDLER_S *pWriter, const tagQN_RECORD_PARAM_S *pstParam)
{
    if (pstParam->stVideo.bEnable && FFMUXER_InitStream(pWriter, &pstParam->stVideo, &pWriter->stVideo) != 0)
    {
        QN_LOG_ERROR_AS("FFMUXER_WriteOpen", "AVStream for video prepare failed.");
        return false;
    }
    if (pstParam->stAudio.bEnable && FFMUXER_InitStream(pWriter, &pstParam->stAudio, &pWriter->stAudio) != 0)
    {
        QN_LOG_ERROR_AS("FFMUXER_WriteOpen", "AVStream for audio prepare failed.");
        return false;
    }
    return true;
}

// Kept: the options are made and not handed to FFmpeg, so MP4 files have their index at the end.
static bool WriteHeader(AVFormatContext *pContext, QN_FILE_FMT_E enFormat, const char *pszPath)
{
    AVDictionary *pDict = nullptr;
    (void)FFMUXER_SetInitOutputDict(enFormat, &pDict); // always 0
    av_dict_free(&pDict);

    int s32Ret = avformat_init_output(pContext, nullptr);
    if (s32Ret < 0)
    {
        // Kept: the text of this and of the next message ends with a newline of its own.
        QN_LOG_ERROR_AS("FFMUXER_WriteOpen", "avformat_init_output init failed! %s\n", QN_FF_ErrorText(s32Ret).szText);
        return false;
    }
    av_dump_format(pContext, 0, pszPath, 1);
    s32Ret = avformat_write_header(pContext, nullptr);
    if (s32Ret < 0)
    {
        QN_LOG_ERROR_AS("FFMUXER_WriteOpen", "avformat_write_header failed! %s\n", QN_FF_ErrorText(s32Ret).szText);
        return false;
    }
    return true;
}

// Everything between the context and the first frame. On failure the I/O context may be open.
static bool CreateFile(tagFFWRITE_HANDLER_S *pWriter, const tagQN_RECORD_PARAM_S *pstParam, const char *pszPath)
{
    // FFmpeg's file protocol opens close-on-exec.
    const int s32Ret = avio_open(&pWriter->pstFmtCtx->pb, pszPath, AVIO_FLAG_WRITE);
    if (s32Ret < 0)
    {
        QN_LOG_ERROR_AS("FFMUXER_WriteOpen", "avio_open failed: %s", QN_FF_ErrorText(s32Ret).szText);
        return false;
    }
    return AddStreams(pWriter, pstParam) && WriteHeader(pWriter->pstFmtCtx, pstParam->enFormat, pszPath);
}

void *FFMUXER_WriteOpen(tagQN_RECORD_PARAM_S *pstParam, const char *pszPath)
{
    tagFFWRITE_HANDLER_S *pWriter =
        pstParam != nullptr && pszPath != nullptr ? new (std::nothrow) tagFFWRITE_HANDLER_S : nullptr;
    if (pWriter == nullptr)
    {
        return nullptr;
    }
    // Kept: FFmpeg has no muxer of the name "aac" (its name there is "adts"), so this call refuses that format.
    if (avformat_alloc_output_context2(&pWriter->pstFmtCtx, nullptr, getMuxerByFmt(pstParam->enFormat), pszPath) < 0)
    {
        QN_LOG_ERROR("malloc ffmpeg AVFormatContext failed");
        FreeWriter(pWriter);
        return nullptr;
    }
    pWriter->pstFmtCtx->flags |= AVFMT_FLAG_FLUSH_PACKETS; // little is lost when the card is pulled
    if (!CreateFile(pWriter, pstParam, pszPath))
    {
        (void)avio_closep(&pWriter->pstFmtCtx->pb); // the file goes away anyway; null when it never opened
        (void)unlink(pszPath);                      // there may be none; a folder that stands there stays
        FreeWriter(pWriter);
        return nullptr;
    }
    pWriter->bPtsByCount = pstParam->enFormat == QN_FILE_FMT_E_MP4 || pstParam->enFormat == QN_FILE_FMT_E_MOV;
    pWriter->bPtsFromFirst = !pWriter->bPtsByCount;
    pWriter->bSetsDue = FFWRITE_TakesSetsFromVideo(pstParam);
    return pWriter;
}

// A packet with a copy of the frame; null when it cannot be had.
static AVPacket *MakePacket(const unsigned char *pu8Data, uint32_t u32Len)
{
    if (u32Len > INT_MAX || (pu8Data == nullptr && u32Len != 0))
    {
        return nullptr;
    }
    AVPacket *pPacket = av_packet_alloc();
    if (pPacket == nullptr || av_new_packet(pPacket, static_cast<int>(u32Len)) < 0)
    {
        av_packet_free(&pPacket);
        return nullptr;
    }
    if (u32Len != 0)
    {
        memcpy(pPacket->data, pu8Data, u32Len);
    }
    return pPacket;
}

// False: the file does not begin with this frame of video, and with none before the next sound key frame.
static bool MayBeWritten(tagFFWRITE_HANDLER_S *pWriter, const unsigned char *pu8Data, uint32_t u32Len, bool bKey)
{
    if (!pWriter->bSetsDue)
    {
        return true;
    }
    if (H265_SpsAreWhole(pu8Data, u32Len))
    {
        pWriter->bAwaitKey = pWriter->bAwaitKey && !bKey;
        return !pWriter->bAwaitKey;
    }
    if (!pWriter->bAwaitKey)
    {
        QN_LOG_WARN_AS("FFMUXER_WriteFrame", "H.265 parameter sets are damaged, waiting for the next key frame");
        pWriter->bAwaitKey = true;
    }
    return false;
}

// FFmpeg refuses a packet without a dts above the last one, and makes no sets of an empty one.
static bool BringsSets(tagFFWRITE_HANDLER_S *pWriter, const AVPacket *pPacket)
{
    if (pPacket->dts <= pWriter->s64VideoDts) // the lowest number of all stands for none
    {
        return false;
    }
    pWriter->s64VideoDts = pPacket->dts;
    return pPacket->size > 0;
}

int32_t FFMUXER_WriteFrame(void *pWriter, const unsigned char *pu8Data, uint32_t u32Len, uint64_t u64Pts, bool bKey,
                           bool bVideo)
{
    if (pWriter == nullptr)
    {
        return -1;
    }
    tagFFWRITE_HANDLER_S *pHandler = static_cast<tagFFWRITE_HANDLER_S *>(pWriter);
    tagFFWRITE_STREAM_S *pstStream = bVideo ? &pHandler->stVideo : &pHandler->stAudio;
    if (pstStream->pstStream == nullptr)
    {
        return 0;
    }
    if (bVideo && !MayBeWritten(pHandler, pu8Data, u32Len, bKey))
    {
        return 0;
    }
    AVPacket *pPacket = MakePacket(pu8Data, u32Len);
    if (pPacket == nullptr)
    {
        return 0; // a frame that cannot be written is not reported
    }
    pPacket->stream_index = pstStream->pstStream->index;
    pPacket->flags |= bKey ? AV_PKT_FLAG_KEY : 0;
    pPacket->pos = -1;
    pPacket->pts = FFMUXER_ReCalcPts(pHandler, pstStream, static_cast<int64_t>(u64Pts));
    pPacket->dts = pPacket->pts; // no B-frames
    pPacket->time_base = pstStream->pstStream->time_base;
    ++pstStream->u64FrameCount;
    const bool bSets = bVideo && pHandler->bSetsDue && BringsSets(pHandler, pPacket);
    // The payload is FFmpeg's from here on, also when the write fails; a host sees write errors in the bytes written.
    const int s32Ret = av_interleaved_write_frame(pHandler->pstFmtCtx, pPacket);
    pHandler->bSetsDue = pHandler->bSetsDue && (!bSets || s32Ret < 0);
    // Kept: the empty packet stays allocated, one for each frame, until the writer goes. FFmpeg has cleared it, so it
    // can carry the chain itself: an hour has some 260,000 of them.
    pPacket->opaque = pHandler->pShells;
    pHandler->pShells = pPacket;
    return 0;
}

int32_t FFMUXER_WriteClose(void *pWriter)
{
    if (pWriter == nullptr)
    {
        return -1;
    }
    tagFFWRITE_HANDLER_S *pHandler = static_cast<tagFFWRITE_HANDLER_S *>(pWriter);
    (void)av_write_trailer(pHandler->pstFmtCtx); // what could be written is in the file
    if (pHandler->pstFmtCtx->pb != nullptr)
    {
        const int s32Ret = avio_closep(&pHandler->pstFmtCtx->pb);
        if (s32Ret < 0)
        {
            QN_TRACE("close error! ret = %d\n", s32Ret);
        }
    }
    FreeWriter(pHandler);
    return 0;
}

int64_t FFMUXER_GetWriteBytes(void *pWriter)
{
    if (pWriter == nullptr)
    {
        return -1;
    }
    // FFmpeg answers its own negative code when there is no I/O context.
    return avio_seek(static_cast<tagFFWRITE_HANDLER_S *>(pWriter)->pstFmtCtx->pb, 0, SEEK_CUR);
}

} // namespace libquarrin
