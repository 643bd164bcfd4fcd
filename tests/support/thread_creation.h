// Stands between the library and pthread_create: lets a start fail, and looks at one before it happens.
//
// Only programs that use it are affected. std::thread starts its threads through it too.
#ifndef QUARRIN_TESTS_THREAD_CREATION_H
#define QUARRIN_TESTS_THREAD_CREATION_H

#include <cstdint>
#include <functional>
#include <pthread.h>

/// What a start was asked for.
struct THREAD_CREATION_S
{
    const pthread_attr_t *pstAttr;
    void *pArg;
};

/// Every thread starts again, nobody looks.
void THREAD_CREATION_Reset();

/// Lets s32Skip starts pass and gives the s32Count after them this result instead of a thread.
void THREAD_CREATION_Fail(int32_t s32Result, int32_t s32Skip = 0, int32_t s32Count = 1);

/// Calls a function on the starting thread before each start.
void THREAD_CREATION_Before(std::function<void(const THREAD_CREATION_S &)> fnBefore);

/// Starts seen since the last reset, the failed ones included.
int32_t THREAD_CREATION_Count();

#endif
