// Pacing: frames of a file are handed in at the time that their stamps say.
#ifndef QUARRIN_TOOLS_PACING_H
#define QUARRIN_TOOLS_PACING_H

#include <chrono>
#include <cstdint>
#include <functional>

struct tagTOOL_PACING_S
{
    std::chrono::steady_clock::time_point stBegin; ///< when time 0 was
};

/// Begins at time 0. Away from the edge of a second: the library counts whole seconds of the wall clock, and a first
/// key frame near an edge would make a file a second shorter or longer than its split time by chance.
///
/// \param bAvoidEdge  wait up to half a second for a good moment.
void TOOL_PACING_Begin(tagTOOL_PACING_S &stPacing, bool bAvoidEdge);

/// Microseconds since the begin.
int64_t TOOL_PACING_Elapsed(const tagTOOL_PACING_S &stPacing);

/// Waits until s64Time microseconds after the begin. False when fnStop, asked now and then, ended the wait.
bool TOOL_PACING_Wait(const tagTOOL_PACING_S &stPacing, int64_t s64Time, const std::function<bool()> &fnStop);

#endif
