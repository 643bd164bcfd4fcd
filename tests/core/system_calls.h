// Stands between the library and some calls of the C library, in the test program only: closedir can be held up,
// select is counted and can be held up, the re-read of a partition table answers as told, and allocations that may fail
// do.
#ifndef QUARRIN_TESTS_SYSTEM_CALLS_H
#define QUARRIN_TESTS_SYSTEM_CALLS_H

#include <cstdint>
#include <string>

/// Everything works as on the machine, but for BLKRRPART: it succeeds, as on a card.
void SYSTEM_CALLS_Reset();

/// Result of BLKRRPART from now on; the machine is not asked, so that no device is needed.
void SYSTEM_CALLS_AnswerReread(int32_t s32Result);

/// Holds up whoever has listed a folder at or below a path, while the folder is still open.
void SYSTEM_CALLS_HoldListing(const std::string &strPath);
bool SYSTEM_CALLS_WaitListingHeld(int32_t s32Ms = 5000);
void SYSTEM_CALLS_ReleaseListing();

/// How often a thread began to wait in select so far. Of the library only the hotplug monitor does.
int32_t SYSTEM_CALLS_Selects();

/// From now on select ends at once with an answer in which no descriptor is readable.
void SYSTEM_CALLS_SelectNoneReadable();

/// Holds up whoever begins to wait in select: the monitor, and so the end of a handle, which joins it.
void SYSTEM_CALLS_HoldSelect();
void SYSTEM_CALLS_ReleaseSelect();

/// clock_gettime tells a wall clock that is so far ahead of what the kernel waits by, as one that is set back later.
void SYSTEM_CALLS_SetClockAhead(int32_t s32Seconds);

/// Lets the calling thread's next non-throwing allocation fail, after s32Skip that succeed. Switched off by a negative
/// number.
void SYSTEM_CALLS_FailAllocation(int32_t s32Skip);

#endif
