// A video encoder that makes what the library can record: no B-frames, a key frame at least every second, parameter
// sets in front of every key frame.
#ifndef QUARRIN_TOOLS_ENCODER_H
#define QUARRIN_TOOLS_ENCODER_H

#include <deque>
#include <string>

#include "ff.h"
#include "input.h"

struct tagTOOL_ENCODER_S
{
    TOOL_CODEC pContext;
    TOOL_PACKET pPacket;
    int64_t s64LastTime = INT64_MIN; ///< time of the last picture, in microseconds
    int64_t s64LastKey = INT64_MIN;  ///< time of the last picture that was asked to be a key frame
};

/// Begins an encoder. Size and rate come from stVideo; false with strError set when it cannot be had.
bool TOOL_ENCODER_Open(const tagTOOL_VIDEO_S &stVideo, tagTOOL_ENCODER_S &stEncoder, std::string &strError);

/// Encodes one picture (YUV 4:2:0, its pts in microseconds) and appends what comes out; null ends the stream. False
/// with strError set when the encoder failed.
bool TOOL_ENCODER_Encode(tagTOOL_ENCODER_S &stEncoder, AVFrame *pPicture, std::deque<tagTOOL_FRAME_S> &dqFrames,
                         std::string &strError);

#endif
