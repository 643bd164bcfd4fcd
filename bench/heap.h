// The heap of this process, block by block: who asked for it, how much is held, how much was held at most.
//
// The program's own malloc family stands before the C library's, for every library in the process. A block counts as
// the allocator sees it: the room that it really has, and its header.
#ifndef QUARRIN_BENCH_HEAP_H
#define QUARRIN_BENCH_HEAP_H

#include <cstdint>

/// Bytes held.
struct HEAP_S
{
    int64_t s64Library = 0; ///< asked for by libquarrin, or for it by the C++ library
    int64_t s64Others = 0;  ///< asked for by FFmpeg, SDL, the C library

    int64_t Total() const
    {
        return s64Library + s64Others;
    }
};

/// Begins to count; blocks from before stay out.
void HEAP_Start();

/// What is held now.
HEAP_S HEAP_Now();

/// What came since then.
HEAP_S HEAP_Since(const HEAP_S &stThen);

/// Lets the peak begin anew, with what is held now.
void HEAP_ResetPeak();

/// The most that was held at once since then, in all.
int64_t HEAP_Peak();

#endif
