// Time line of an input. Pure functions of their arguments.

#include "timeline.h"

static constexpr int64_t TIMELINE_JUMP_BACK = 2000000;   // more than any reordering or interleaving
static constexpr int64_t TIMELINE_JUMP_AHEAD = 60000000; // more than a camera pauses between two pictures
static constexpr int64_t TIMELINE_STEP = 40000;          // what stands for the unknown distance at a jump

int64_t TOOL_TIMELINE_At(tagTOOL_TIMELINE_S &stLine, int64_t s64Time)
{
    if (!stLine.bBegun)
    {
        stLine.bBegun = true;
        stLine.s64Base = s64Time;
    }
    const int64_t s64Step = s64Time - stLine.s64Base - stLine.s64Last;
    if (s64Step < -TIMELINE_JUMP_BACK || s64Step > TIMELINE_JUMP_AHEAD)
    {
        stLine.s64Base = s64Time - stLine.s64Last - TIMELINE_STEP;
    }
    stLine.s64Last = s64Time - stLine.s64Base;
    return stLine.s64Last;
}
