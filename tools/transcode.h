// Transcoding: a video stream is decoded and encoded again without B-frames.
#ifndef QUARRIN_TOOLS_TRANSCODE_H
#define QUARRIN_TOOLS_TRANSCODE_H

#include <deque>
#include <memory>
#include <string>

#include "ff.h"
#include "input.h"

struct tagTOOL_TRANSCODER_S;

/// Begins a transcoder for a stream. Null with strError set when there is no decoder or encoder.
///
/// \param pParameters  the stream's codec parameters; borrowed for the call.
/// \param stVideo      [in, out] what comes out; a size that is odd is made even.
std::shared_ptr<tagTOOL_TRANSCODER_S> TOOL_TRANSCODE_Open(const AVCodecParameters *pParameters,
                                                          tagTOOL_VIDEO_S &stVideo, std::string &strError);

/// Takes one packet, its pts in microseconds, and appends the frames that come out; null ends the stream. False with
/// strError set when the encoder failed. Damaged packets are skipped.
bool TOOL_TRANSCODE_Packet(tagTOOL_TRANSCODER_S &stTranscoder, const AVPacket *pPacket,
                           std::deque<tagTOOL_FRAME_S> &dqFrames, std::string &strError);

#endif
