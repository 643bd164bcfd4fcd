// Keeps what is recorded on the card itself: a thread writes new data through at short intervals, so that a power cut
// costs little. Without it the kernel may hold data back for tens of seconds, and a finished name may come before its
// data.
#ifndef QUARRIN_TOOLS_DURABLE_H
#define QUARRIN_TOOLS_DURABLE_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>

#include <pthread.h>
#include <sys/types.h>

/// A file as it was when it was last written through.
struct tagTOOL_SYNCED_S
{
    int64_t s64Size = 0;
    timespec stWritten = {}; ///< last change of the data
    timespec stChanged = {}; ///< last change of data, name or anything else
};

struct tagTOOL_DURABLE_S
{
    // Constant between begin and end
    std::string strFolder;
    uint32_t u32Seconds = 0; ///< 0: nothing runs

    // The thread's own while it runs
    std::map<ino_t, tagTOOL_SYNCED_S> mapSynced;

    // Atomic; milliseconds of CLOCK_MONOTONIC
    std::atomic<int64_t> s64PassBegin{0};   ///< begin of the pass that runs; 0: none does
    std::atomic<int64_t> s64LongestPass{0}; ///< longest pass that ended

    // Guarded by stMutex, a leaf that is never held while anything is written
    bool bEnd = false;
    int32_t s32Error = 0; ///< the first failure that nobody was told of; 0: none
    pthread_mutex_t stMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t stWake;
    pthread_t stThread = 0;
};

/// Begins to write the files of a folder through every u32Seconds seconds: the files in progress, the finished ones,
/// and the folder with their names. Files that are there already count as written. 0 seconds: does nothing.
///
/// \return false when the thread cannot be started.
bool TOOL_DURABLE_Begin(tagTOOL_DURABLE_S &stDurable, const std::string &strFolder, uint32_t u32Seconds);

/// The first failure since the last call, as errno; 0: none. Takes no time.
int32_t TOOL_DURABLE_TakeError(tagTOOL_DURABLE_S &stDurable);

/// Writes the rest through and ends the thread; may be called without a begin, and twice.
void TOOL_DURABLE_End(tagTOOL_DURABLE_S &stDurable);

#endif
