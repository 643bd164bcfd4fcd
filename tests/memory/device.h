// A device for one life of a handle: nodes and a mount point in a folder of its own, commands that make and remove
// folders there and nothing else, a wall clock that the test sets.
// Threads: any, one device at a time in a process.
#ifndef QUARRIN_TESTS_MEMORY_DEVICE_H
#define QUARRIN_TESTS_MEMORY_DEVICE_H

#include <cstdint>
#include <string>

#include "libquarrin.h"

struct DEVICE_S
{
    std::string strRoot;
    std::string strNode;   ///< with a partition beside it
    std::string strMount;  ///< does not exist before the first mount
    std::string strFolder; ///< of volume 0
    libquarrin::tagQN_STORAGE_PARAM_S stParam;
};

/// Makes the nodes below strRoot, which exists and is empty.
DEVICE_S DEVICE_Make(const std::string &strRoot);

/// What time(nullptr) tells from now on.
void DEVICE_SetClock(int64_t s64Seconds);
void DEVICE_StepClock(int64_t s64Seconds);

/// Commands of the library that ran so far and begin so.
int32_t DEVICE_CommandCount(const char *pszBegin);

#endif
