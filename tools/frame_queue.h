// Puts the frames of an input's two streams into one order by time, and looks ahead before a recording begins.
#ifndef QUARRIN_TOOLS_FRAME_QUEUE_H
#define QUARRIN_TOOLS_FRAME_QUEUE_H

#include "input.h"

struct tagTOOL_QUEUE_S
{
    tagTOOL_INPUT_S *pInput = nullptr; ///< borrowed
    std::deque<tagTOOL_FRAME_S> dqVideo;
    std::deque<tagTOOL_FRAME_S> dqAudio;
    TOOL_READ_E enInput = TOOL_READ_E_GOOD; ///< outcome of the last read
};

/// What a look ahead finds.
struct tagTOOL_LOOK_S
{
    bool bReordered = false; ///< presentation time goes back: B-frames
    bool bUneven = false;    ///< the time between pictures varies
};

/// Reads ahead until the first frame that a file may begin with is at the front, and drops what is before it.
///
/// \param stLook  [out] what the frames behind it show.
///
/// \return false when there is none; the input's strError says why.
bool TOOL_QUEUE_Begin(tagTOOL_QUEUE_S &stQueue, tagTOOL_LOOK_S &stLook);

/// Takes out the next frame by time. Anything but TOOL_READ_E_GOOD: no frame is left.
TOOL_READ_E TOOL_QUEUE_Next(tagTOOL_QUEUE_S &stQueue, tagTOOL_FRAME_S &stFrame);

#endif
