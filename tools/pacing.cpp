// Pacing by the steady clock. Threads: the main thread.

#include "pacing.h"

#include <algorithm>
#include <thread>

static constexpr int64_t PACING_SLICE = 50000;       // how long a stop may go unseen
static constexpr int64_t PACING_EDGE_FIRST = 150000; // a good moment lies in this part of a second
static constexpr int64_t PACING_EDGE_LAST = 650000;

static int64_t WallFraction()
{
    const auto stNow = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(stNow).count() % 1000000;
}

void TOOL_PACING_Begin(tagTOOL_PACING_S &stPacing, bool bAvoidEdge)
{
    const int64_t s64Fraction = WallFraction();
    if (bAvoidEdge && (s64Fraction < PACING_EDGE_FIRST || s64Fraction > PACING_EDGE_LAST))
    {
        const int64_t s64Wait = (PACING_EDGE_FIRST - s64Fraction + 1000000) % 1000000;
        std::this_thread::sleep_for(std::chrono::microseconds(s64Wait));
    }
    stPacing.stBegin = std::chrono::steady_clock::now();
}

int64_t TOOL_PACING_Elapsed(const tagTOOL_PACING_S &stPacing)
{
    const auto stElapsed = std::chrono::steady_clock::now() - stPacing.stBegin;
    return std::chrono::duration_cast<std::chrono::microseconds>(stElapsed).count();
}

bool TOOL_PACING_Wait(const tagTOOL_PACING_S &stPacing, int64_t s64Time, const std::function<bool()> &fnStop)
{
    while (!fnStop())
    {
        const int64_t s64Left = s64Time - TOOL_PACING_Elapsed(stPacing);
        if (s64Left <= 0)
        {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(std::min(s64Left, PACING_SLICE)));
    }
    return false;
}
