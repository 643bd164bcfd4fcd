// One running time line of an input, whatever its clock does.
#ifndef QUARRIN_TOOLS_TIMELINE_H
#define QUARRIN_TOOLS_TIMELINE_H

#include <cstdint>

/// Turns the input's times into times that begin near 0 and do not jump.
struct tagTOOL_TIMELINE_S
{
    bool bBegun = false;
    int64_t s64Base = 0; ///< time of the input that counts as 0
    int64_t s64Last = 0; ///< last time given out
};

/// Time of a frame in microseconds, counted from the first one.
///
/// A clock that jumps back by more than two seconds or ahead by more than a minute was set anew by the sender: time
/// goes on from where it was.
int64_t TOOL_TIMELINE_At(tagTOOL_TIMELINE_S &stLine, int64_t s64Time);

#endif
