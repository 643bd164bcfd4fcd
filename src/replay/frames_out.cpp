// Frames that hosts have out of closed readers. See the header.

#include "replay/frames_out.h"

#include "media/frame_out.h"
#include "ring/handle_private.h"
#include "util/lock.h"

namespace libquarrin
{

void QN_FRAMES_Add(tagQN_HANDLER_S *pHandle, std::list<QN_FRAME_OUT> &lstNode)
{
    tagQN_FRAMES_OUT_S *pFramesOut = pHandle->pstPrivate->pFramesOut;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pFramesOut->mutexFrames);
    pFramesOut->lstFrames.splice(pFramesOut->lstFrames.end(), lstNode);
}

void QN_FRAMES_Keep(const tagQN_REPLAY_HANDLER_S *pReplay, void *pFrame)
{
    tagQN_FRAMES_OUT_S *pFramesOut = pReplay->pHandle->pstPrivate->pFramesOut;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pFramesOut->mutexFrames);
    for (QN_FRAME_OUT &frame : pFramesOut->lstFrames)
    {
        if (frame.first == pReplay && frame.second == nullptr)
        {
            frame.second = pFrame;
            return;
        }
    }
    FFREAD_FreeFrameOut(pFrame);
}

void QN_FRAMES_Free(const tagQN_REPLAY_HANDLER_S *pReplay)
{
    tagQN_FRAMES_OUT_S *pFramesOut = pReplay->pHandle->pstPrivate->pFramesOut;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pFramesOut->mutexFrames);
    pFramesOut->lstFrames.remove_if(
        [pReplay](const QN_FRAME_OUT &frame)
        {
            if (frame.first == pReplay)
            {
                FFREAD_FreeFrameOut(frame.second);
                return true;
            }
            return false;
        });
}

} // namespace libquarrin
