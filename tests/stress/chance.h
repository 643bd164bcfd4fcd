// Choices and delays of a stress run. All come from one seed, so that a seed repeats them; what the kernel makes of it
// is its own. Nothing here synchronises threads: that would hide races from the sanitizer.
#ifndef QUARRIN_TESTS_CHANCE_H
#define QUARRIN_TESTS_CHANCE_H

#include <cstdint>

/// Sets the seed of the program. Before any thread makes a choice.
void CHANCE_Seed(uint64_t u64Seed);

/// Gives the calling thread a stream of choices of its own. A thread without one gets the next free stream.
void CHANCE_Thread(uint64_t u64Stream);

/// A number from 0 to u32Limit - 1.
uint32_t CHANCE_Below(uint32_t u32Limit);

/// True in so many of a hundred times.
bool CHANCE_In100(uint32_t u32Percent);

/// Mostly nothing, sometimes a yield, seldom some milliseconds, hardly ever s32LongestMs.
void CHANCE_Delay(int32_t s32LongestMs);

#endif
