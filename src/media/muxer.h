// The FFmpeg writer behind qn_media_api_ffmpeg: its records and the steps of an open.
// Threads: any; a writer has no lock, calls on one are serialised by the caller. Locks: none.
#ifndef QUARRIN_MEDIA_MUXER_H
#define QUARRIN_MEDIA_MUXER_H

#include <cstdint>

extern "C"
{
#include <libavformat/avformat.h>
}

#include "libquarrin/media.h"

namespace libquarrin
{

/// Time base of the host's pts, in seconds.
struct tagFFWRITE_TIME_BASE_S
{
    uint32_t u32Num; ///< numerator
    uint32_t u32Den; ///< denominator
};

/// One output stream.
struct tagFFWRITE_STREAM_S
{
    AVStream *pstStream = nullptr;              ///< borrowed from the context; null: the stream is not enabled
    tagFFWRITE_TIME_BASE_S stTimeBase = {0, 0}; ///< of the host's pts
    uint64_t u64FrameCount = 0;                 ///< frames written so far
};

/// One open file: what the table's slots pass as void *.
struct tagFFWRITE_HANDLER_S
{
    AVFormatContext *pstFmtCtx = nullptr; ///< owned
    tagFFWRITE_STREAM_S stVideo;
    tagFFWRITE_STREAM_S stAudio;
    bool bPtsByCount = false;             ///< time stamps are made from frame counts (MP4, MOV)
    bool bPtsFromFirst = false;           ///< time stamps count from the first pts seen (all others)
    uint64_t u64FirstPts = 0;             ///< the first pts seen, of either stream; 0: none yet
    bool bSetsDue = false;                ///< FFmpeg takes the parameter sets from the next video packet that it takes
    bool bAwaitKey = false;               ///< a frame that may not begin the video was left out: wait for a key frame
    int64_t s64VideoDts = AV_NOPTS_VALUE; ///< while bSetsDue: the latest dts of a video packet
    AVPacket *pShells = nullptr; ///< owned: packets whose payload has gone to FFmpeg; opaque leads to the one before
};

/// Sets the options of a container's header. 0.
int32_t FFMUXER_SetInitOutputDict(QN_FILE_FMT_E enFormat, AVDictionary **ppstDict);

/// Adds one stream to the writer's context.
///
/// \param pWriter  has a context.
/// \param pstParam the stream's parameters; borrowed for the call.
/// \param pstOut   [out] the stream; on failure pstStream may be set and belongs to the context all the same.
///
/// \return 0; -1 the codec is not supported (logged), or out of memory.
int32_t FFMUXER_InitStream(tagFFWRITE_HANDLER_S *pWriter, const tagQN_STREAM_PARAM_S *pstParam,
                           tagFFWRITE_STREAM_S *pstOut);

/// Time stamp of the next packet of a stream, in the stream's time base; AV_NOPTS_VALUE when the host's time base or
/// frame rate is no fraction (a denominator of 0).
int64_t FFMUXER_ReCalcPts(tagFFWRITE_HANDLER_S *pWriter, const tagFFWRITE_STREAM_S *pstStream, int64_t s64Pts);

} // namespace libquarrin

#endif
