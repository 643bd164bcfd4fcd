// One life of a handle in a process of its own, while an allocation fails: mount, record with a split, list, replay, a
// still picture, quota, unmount, format, end. What must hold in any case is looked at in there.
#ifndef QUARRIN_TESTS_MEMORY_LIFE_H
#define QUARRIN_TESTS_MEMORY_LIFE_H

#include <cstdint>
#include <string>
#include <sys/types.h>

#include "libquarrin.h"

/// What one life is to go through.
struct LIFE_S
{
    libquarrin::QN_FILE_FMT_E enFormat = libquarrin::QN_FILE_FMT_E_MKV;
    int64_t s64Nth = 0;     ///< the allocation that fails; 0: none
    bool bAllLater = false; ///< and all that come after it
    int32_t s32Call = -1;   ///< a FAULT_CALL_E that fails as well; -1: none
    int32_t s32CallNth = 1; ///< which one of them
};

/// How it ended.
struct LIFE_END_S
{
    bool bUntouched = false;    ///< nothing failed: there are fewer allocations
    bool bForeignCrash = false; ///< a library that a rule names crashed; all that can be said
    int64_t s64Count = 0;       ///< allocations that counted
    std::string strTrouble;     ///< what did not hold; empty: all did
};

/// Makes what every life shares; once, before the first.
void LIFE_Prepare();

/// Begins a life in a process of its own, in a folder that exists and is empty.
pid_t LIFE_Begin(const LIFE_S &stLife, const std::string &strFolder);

/// Waits for its end. Longer than a minute is a hang.
LIFE_END_S LIFE_Wait(pid_t pid, const std::string &strFolder);

#endif
