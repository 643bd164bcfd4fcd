// Inputs: where the encoded frames of a recording come from.
#ifndef QUARRIN_TOOLS_INPUT_H
#define QUARRIN_TOOLS_INPUT_H

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "libquarrin.h"

/// One encoded frame, ready for the library: Annex B with four-byte start codes, or AAC with an ADTS header.
struct tagTOOL_FRAME_S
{
    std::vector<uint8_t> vecData; ///< the bytes
    int64_t s64Time = 0;          ///< presentation time in microseconds on the input's own clock
    bool bKey = false;            ///< a file may begin here
    bool bVideo = false;          ///< video, otherwise audio
};

/// The video stream of an input.
struct tagTOOL_VIDEO_S
{
    bool bPresent = false;
    libquarrin::QN_CODEC_TYPE_E enCodec = libquarrin::QN_CODEC_H264;
    uint32_t u32Width = 0;   ///< pixels
    uint32_t u32Height = 0;  ///< pixels
    int32_t s32RateNum = 0;  ///< frames per second, numerator; 0 when unknown
    int32_t s32RateDen = 1;  ///< frames per second, denominator
    uint32_t u32BitRate = 0; ///< bit/s; 0 when unknown
};

/// The audio stream of an input.
struct tagTOOL_AUDIO_S
{
    bool bPresent = false;
    uint32_t u32SampleRate = 0; ///< Hz, of the AAC core
    uint32_t u32Channels = 0;
};

/// Outcome of a read.
enum TOOL_READ_E : int32_t
{
    TOOL_READ_E_GOOD = 0,   ///< the input goes on; a read may have added no frame yet
    TOOL_READ_E_END = 1,    ///< the input has ended
    TOOL_READ_E_FAILED = 2, ///< the input broke; strError says how
};

/// An open input. Closed when the record goes.
struct tagTOOL_INPUT_S
{
    tagTOOL_VIDEO_S stVideo;
    tagTOOL_AUDIO_S stAudio;
    bool bLive = false;                  ///< paces itself
    std::string strError;                ///< one line about the last failure
    std::vector<std::string> vecNotes;   ///< lines that the user ought to read, for instance of streams left out
    std::function<bool()> fnInterrupted; ///< asked during a read that waits; true ends the wait
    std::shared_ptr<void> spState;       ///< the kind's own
    /// Reads on and appends what came: frames in decoding order, per stream.
    TOOL_READ_E (*pfnRead)(tagTOOL_INPUT_S &stInput, std::deque<tagTOOL_FRAME_S> &dqFrames) = nullptr;
};

/// How an input is opened.
struct tagTOOL_INPUT_OPTIONS_S
{
    std::string strInput;    ///< "test", a file or an address
    bool bTranscode = false; ///< decode the video and encode it again without B-frames
    libquarrin::QN_CODEC_TYPE_E enTestCodec = libquarrin::QN_CODEC_H264; ///< video codec of the generated clip
};

/// Opens a file or an address through libavformat. False with strError set when it cannot be recorded.
bool TOOL_INPUT_OpenFile(const tagTOOL_INPUT_OPTIONS_S &stOptions, tagTOOL_INPUT_S &stInput);

/// Begins the generated clip: a moving picture with a tone, a key frame every second. False with strError set when an
/// encoder is missing.
bool TOOL_INPUT_OpenTest(const tagTOOL_INPUT_OPTIONS_S &stOptions, tagTOOL_INPUT_S &stInput);

#endif
