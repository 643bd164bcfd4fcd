// Allocations that fail, in this process: the nth that the library and FFmpeg make, or that one and all later ones.
//
// In an ordinary build every malloc of the process is seen, those of the C++ library, of FFmpeg and of the C library
// too; under a sanitizer, which has an allocator of its own, operator new alone. What the test itself and its utility
// layer allocate does not count.
// Threads: any.
#ifndef QUARRIN_TESTS_MEMORY_ALLOCATIONS_H
#define QUARRIN_TESTS_MEMORY_ALLOCATIONS_H

#include <cstdint>

/// From now on the nth allocation fails, counted from 1, with bAllLater those behind it too. 0: none fails, all count.
void ALLOCATIONS_Arm(int64_t s64Nth, bool bAllLater);

/// No allocation fails or counts from now on.
void ALLOCATIONS_Disarm();

/// Allocations that counted since the last ALLOCATIONS_Arm.
int64_t ALLOCATIONS_Count();

/// Says for the rest of a block whether the calling thread's allocations are the library's. The first thread's are not,
/// those of others are, until somebody says so.
class ALLOCATIONS_OWNER
{
public:
    explicit ALLOCATIONS_OWNER(bool bLibrary);
    ~ALLOCATIONS_OWNER();
    ALLOCATIONS_OWNER(const ALLOCATIONS_OWNER &) = delete;
    ALLOCATIONS_OWNER &operator=(const ALLOCATIONS_OWNER &) = delete;

private:
    bool m_bBefore;
};

#endif
