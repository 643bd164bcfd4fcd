// Frame queue. The library takes both streams in the order of their calls, and a file's first time stamp counts for
// both, so audio that belongs before a picture must not come behind it.

#include "frame_queue.h"

#include <algorithm>

static constexpr size_t QUEUE_LOOK_FILE = 50;  // pictures: two seconds show B-frames and an uneven rate
static constexpr size_t QUEUE_LOOK_LIVE = 8;   // a live input is not kept waiting
static constexpr size_t QUEUE_LOOK_KEY = 2000; // frames without a key frame, then it is given up
static constexpr int64_t QUEUE_WAIT = 1000000; // a stream that sends nothing does not hold the other one up for longer

static void Read(tagTOOL_QUEUE_S &stQueue)
{
    std::deque<tagTOOL_FRAME_S> dqFrames;
    stQueue.enInput = stQueue.pInput->pfnRead(*stQueue.pInput, dqFrames);
    for (tagTOOL_FRAME_S &stFrame : dqFrames)
    {
        (stFrame.bVideo ? stQueue.dqVideo : stQueue.dqAudio).push_back(std::move(stFrame));
    }
}

static bool GoesOn(const tagTOOL_QUEUE_S &stQueue)
{
    const tagTOOL_INPUT_S &stInput = *stQueue.pInput;
    return stQueue.enInput == TOOL_READ_E_GOOD && !(stInput.fnInterrupted && stInput.fnInterrupted());
}

static void DropUntilKey(std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    while (!dqFrames.empty() && !dqFrames.front().bKey)
    {
        dqFrames.pop_front();
    }
}

static tagTOOL_LOOK_S LookAt(const std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    tagTOOL_LOOK_S stLook;
    int64_t s64Shortest = INT64_MAX;
    int64_t s64Longest = 0;
    for (size_t u = 1; u < dqFrames.size(); u++)
    {
        const int64_t s64Step = dqFrames[u].s64Time - dqFrames[u - 1].s64Time;
        stLook.bReordered = stLook.bReordered || s64Step < 0;
        s64Shortest = std::min(s64Shortest, s64Step);
        s64Longest = std::max(s64Longest, s64Step);
    }
    // A container that rounds to milliseconds makes steps of 33 and 34.
    stLook.bUneven = s64Shortest != INT64_MAX && s64Longest - s64Shortest > s64Longest / 5 + 2000;
    return stLook;
}

bool TOOL_QUEUE_Begin(tagTOOL_QUEUE_S &stQueue, tagTOOL_LOOK_S &stLook)
{
    const bool bVideo = stQueue.pInput->stVideo.bPresent;
    std::deque<tagTOOL_FRAME_S> &dqMain = bVideo ? stQueue.dqVideo : stQueue.dqAudio;
    const size_t uEnough = stQueue.pInput->bLive ? QUEUE_LOOK_LIVE : QUEUE_LOOK_FILE;
    size_t uRead = 0;
    while (dqMain.size() < uEnough && uRead < QUEUE_LOOK_KEY && GoesOn(stQueue))
    {
        Read(stQueue);
        DropUntilKey(dqMain);
        uRead++;
    }
    if (dqMain.empty())
    {
        if (stQueue.enInput != TOOL_READ_E_FAILED)
        {
            stQueue.pInput->strError = bVideo ? "no key frame in it" : "no audio frame in it";
        }
        return false;
    }
    while (bVideo && !stQueue.dqAudio.empty() && stQueue.dqAudio.front().s64Time < dqMain.front().s64Time)
    {
        stQueue.dqAudio.pop_front();
    }
    stLook = LookAt(dqMain);
    return true;
}

/// True when nothing earlier can come any more, or when waiting for it has been long enough.
static bool IsOrdered(const tagTOOL_QUEUE_S &stQueue)
{
    if (!stQueue.pInput->stVideo.bPresent || !stQueue.pInput->stAudio.bPresent)
    {
        return !stQueue.dqVideo.empty() || !stQueue.dqAudio.empty();
    }
    if (!stQueue.dqVideo.empty() && !stQueue.dqAudio.empty())
    {
        return true;
    }
    const std::deque<tagTOOL_FRAME_S> &dqFull = stQueue.dqVideo.empty() ? stQueue.dqAudio : stQueue.dqVideo;
    return !dqFull.empty() && dqFull.back().s64Time - dqFull.front().s64Time > QUEUE_WAIT;
}

TOOL_READ_E TOOL_QUEUE_Next(tagTOOL_QUEUE_S &stQueue, tagTOOL_FRAME_S &stFrame)
{
    while (!IsOrdered(stQueue) && GoesOn(stQueue))
    {
        Read(stQueue);
    }
    const bool bVideoNext =
        !stQueue.dqVideo.empty() &&
        (stQueue.dqAudio.empty() || stQueue.dqVideo.front().s64Time <= stQueue.dqAudio.front().s64Time);
    std::deque<tagTOOL_FRAME_S> &dqNext = bVideoNext ? stQueue.dqVideo : stQueue.dqAudio;
    if (dqNext.empty())
    {
        return stQueue.enInput == TOOL_READ_E_GOOD ? TOOL_READ_E_END : stQueue.enInput; // interrupted counts as ended
    }
    stFrame = std::move(dqNext.front());
    dqNext.pop_front();
    return TOOL_READ_E_GOOD;
}
