// The wall clock of this test program, as the library sees it: a test may stop it, set it and step it.
// Threads: any.
#ifndef QUARRIN_TESTS_RELIABILITY_VIRTUAL_CLOCK_H
#define QUARRIN_TESTS_RELIABILITY_VIRTUAL_CLOCK_H

#include <cstdint>
#include <ctime>

/// From now on time() answers s64Ms milliseconds since 1970, until it is set again.
void CLOCK_Set(int64_t s64Ms);

/// Moves the clock that was set; back with a negative number.
void CLOCK_Step(int64_t s64Ms);

/// time() answers with the machine's clock again.
void CLOCK_Release();

/// Milliseconds of a clock that is never set.
int64_t CLOCK_RealMs();

#endif
