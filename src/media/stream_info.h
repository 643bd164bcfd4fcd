// What the streams of an open file are, found without decoding a picture.
// Threads: any; calls on one context are serialised by the caller. Locks: none.
#ifndef QUARRIN_MEDIA_STREAM_INFO_H
#define QUARRIN_MEDIA_STREAM_INFO_H

#include <cstdint>

extern "C"
{
#include <libavformat/avformat.h>
}

namespace libquarrin
{

/// A file may speak of a thousand streams, each with tables and a decoder of its own; a recording has two.
constexpr int32_t FFREAD_MAX_STREAMS = 16;

/// avformat_find_stream_info, for a file of a stranger: the sizes of pictures come from the parameter sets, and no
/// frame is made. A few bytes may speak of pictures of gigabytes, and of sixteen to be kept.
///
/// \param pContext  opened; max_streams is FFREAD_MAX_STREAMS.
///
/// \return as of avformat_find_stream_info: negative on failure.
///
/// Blocks: for the begin of the file, some seconds of it or 5 MB.
int FFREAD_FindStreamInfo(AVFormatContext *pContext);

} // namespace libquarrin

#endif
