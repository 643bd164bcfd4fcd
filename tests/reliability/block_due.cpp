#include "block_due.h"

#include <algorithm>

static constexpr int64_t FOLDER = 0;

static uint32_t Calls(const RECORDER_LOG_S &stLog)
{
    return std::min(stLog.u32Calls.load(), RECORDER_CALLS);
}

static bool Is(const RECORDER_CALL_S &stCall, RECORDER_CALL_E enCall, bool bAfter, int64_t s64Start)
{
    return stCall.enCall == enCall && stCall.bAfter == bAfter && stCall.s64Start == s64Start;
}

static uint32_t GivenOf(const RECORDER_FILE_S &stFile, uint32_t u32Video)
{
    const uint32_t u32Given = u32Video > stFile.u32First ? u32Video - stFile.u32First : 0;
    return std::min(u32Given, stFile.u32Video.load());
}

BLOCK_DUE_S BLOCK_Due(const RECORDER_LOG_S &stLog, uint32_t u32File, int64_t s64Logged)
{
    const RECORDER_FILE_S &stFile = stLog.astFiles[u32File];
    BLOCK_DUE_S stDue;
    BLOCK_DUE_S stNext; // once the sync that was begun last has returned
    bool bNamed = false;
    bool bNextFinal = false;
    for (uint32_t i = 0; i < Calls(stLog); i++)
    {
        const RECORDER_CALL_S &stCall = stLog.astCalls[i];
        const bool bReturned = stCall.s64Logged <= s64Logged;
        if (Is(stCall, RECORDER_CALL_RENAME, true, stFile.s64Start))
        {
            bNamed = true;
            stDue.s64FinalMs = stCall.s64Ms;
        }
        else if (Is(stCall, RECORDER_CALL_UNLINK, false, stFile.s64Start))
        {
            stDue.bMayGo = stDue.bMayGo || stCall.s64Logged < s64Logged;
        }
        else if (Is(stCall, RECORDER_CALL_SYNC, false, stFile.s64Start))
        {
            stNext.bWhole = bNamed;
            stNext.u32Video = GivenOf(stFile, stCall.u32Video);
        }
        else if (Is(stCall, RECORDER_CALL_SYNC, true, stFile.s64Start) && bReturned)
        {
            stDue.bThere = true;
            stDue.bWhole = stNext.bWhole;
            stDue.u32Video = stNext.u32Video;
        }
        else if (Is(stCall, RECORDER_CALL_SYNC, false, FOLDER))
        {
            bNextFinal = bNamed;
        }
        else if (Is(stCall, RECORDER_CALL_SYNC, true, FOLDER) && bReturned)
        {
            stDue.bFinal = bNextFinal;
        }
    }
    return stDue;
}

BLOCK_PASSES_S BLOCK_Passes(const RECORDER_LOG_S &stLog, uint32_t u32Seconds, int64_t s64Logged, int64_t s64CutMs)
{
    BLOCK_PASSES_S stPasses;
    int64_t s64PassMs = 0; // the latest
    int64_t s64NextMs = 0; // when the next has to begin
    bool bReturned = true; // the latest sync
    for (uint32_t i = 0; i < Calls(stLog) && stLog.astCalls[i].s64Logged <= s64Logged; i++)
    {
        const RECORDER_CALL_S &stCall = stLog.astCalls[i];
        if (stCall.enCall != RECORDER_CALL_SYNC)
        {
            continue;
        }
        if (stCall.s64PassMs != s64PassMs && s64PassMs != 0)
        {
            stPasses.s64LateMs = std::max(stPasses.s64LateMs, stCall.s64PassMs - s64NextMs);
        }
        s64PassMs = stCall.s64PassMs;
        s64NextMs = std::max(s64PassMs + 1000 * int64_t{u32Seconds}, stCall.s64Ms);
        stPasses.s64LongestMs = std::max(stPasses.s64LongestMs, stCall.s64Ms - s64PassMs);
        bReturned = stCall.bAfter;
    }
    if (!bReturned)
    {
        stPasses.s64LongestMs = std::max(stPasses.s64LongestMs, s64CutMs - s64PassMs);
    }
    else if (s64PassMs != 0)
    {
        stPasses.s64LateMs = std::max(stPasses.s64LateMs, s64CutMs - s64NextMs);
    }
    return stPasses;
}
