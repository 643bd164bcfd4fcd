// What has to be on a card that lost its power, by the notes of the recorder alone.
#ifndef QUARRIN_TESTS_RELIABILITY_BLOCK_DUE_H
#define QUARRIN_TESTS_RELIABILITY_BLOCK_DUE_H

#include <cstdint>

#include "recorder.h"

/// One file of the recorder.
struct BLOCK_DUE_S
{
    bool bThere = false;    ///< a sync of it had returned
    bool bWhole = false;    ///< the sync had begun behind the trailer and the final name: every frame is due
    bool bFinal = false;    ///< so had a sync of the folder: the final name is due
    bool bMayGo = false;    ///< its deletion had begun
    uint32_t u32Video = 0;  ///< pictures that were handed in before the sync began
    int64_t s64FinalMs = 0; ///< when it had got its final name; 0: not yet
};

/// The passes of --durable.
struct BLOCK_PASSES_S
{
    int64_t s64LongestMs = 0; ///< from its first sync to its last; the one that was cut counts up to the cut
    int64_t s64LateMs = 0;    ///< so much later than promised a pass began, on a machine that was busy
};

/// What is due of a file when the card got s64Logged entries.
BLOCK_DUE_S BLOCK_Due(const RECORDER_LOG_S &stLog, uint32_t u32File, int64_t s64Logged);

/// The passes until then. The last may be cut off at s64CutMs.
BLOCK_PASSES_S BLOCK_Passes(const RECORDER_LOG_S &stLog, uint32_t u32Seconds, int64_t s64Logged, int64_t s64CutMs);

#endif
