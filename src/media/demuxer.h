// The FFmpeg reader behind qn_media_api_ffmpeg: its record.
// Threads: any; a reader has no lock, calls on one are serialised by the caller. Locks: none.
#ifndef QUARRIN_MEDIA_DEMUXER_H
#define QUARRIN_MEDIA_DEMUXER_H

#include <cstdint>

extern "C"
{
#include <libavformat/avformat.h>
}

#include "libquarrin/media.h"

namespace libquarrin
{

/// One open file: what the table's slots pass as void *.
struct tagFFREAD_HANDLER_S
{
    AVFormatContext *pFormatCtx = nullptr; ///< owned
    int32_t s32VideoIndex = -1;            ///< the chosen video stream; -1 none
    int32_t s32AudioIndex = -1;            ///< the chosen audio stream; -1 none
    AVPacket *pPacket = nullptr;           ///< owned; handed out and not yet released. Null: none is out
};

} // namespace libquarrin

#endif
