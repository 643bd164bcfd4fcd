// Calls that no life makes in a moment without memory.

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "memory/allocations.h"

using namespace libquarrin;

TEST(SingleCall, CopiesNoBytesWithoutMemory)
{
    uint8_t au8Bytes[] = {1, 2, 3};
    ALLOCATIONS_Arm(1, false);
    tagQN_BYTES stCopy = QN_BYTES_dup({au8Bytes, sizeof(au8Bytes)});
    const bool bFailed = ALLOCATIONS_Count() > 0; // a sanitizer's malloc does not fail
    ALLOCATIONS_Disarm();
    EXPECT_EQ(bFailed, stCopy.pu8Data == nullptr);
    EXPECT_EQ(bFailed ? 0u : 3u, stCopy.u32Len);
    QN_BYTES_free(stCopy);
}
