// The calls that are inside an object, counted, so that its end can wait for them.
#ifndef QUARRIN_UTIL_CALLS_H
#define QUARRIN_UTIL_CALLS_H

#include <cstdint>
#include <memory>
#include <pthread.h>

namespace libquarrin
{

/// The calls on one object. mutexCalls is a leaf: it is held for the counting alone.
struct UTIL_CALLS_S
{
    pthread_mutex_t mutexCalls = PTHREAD_MUTEX_INITIALIZER; ///< guards the rest
    pthread_cond_t condCalls = PTHREAD_COND_INITIALIZER;    ///< the last call has left
    uint32_t u32Inside = 0;                                 ///< calls that have begun and not ended
};

inline void UTIL_CALL_End(UTIL_CALLS_S *pCalls)
{
    pthread_mutex_lock(&pCalls->mutexCalls);
    pCalls->u32Inside -= 1;
    if (pCalls->u32Inside == 0)
    {
        pthread_cond_broadcast(&pCalls->condCalls);
    }
    pthread_mutex_unlock(&pCalls->mutexCalls); // the object may go from here on
}

/// A call that has begun; it ends with the caller's block, after every lock that is taken behind it.
using UTIL_CALL = std::unique_ptr<UTIL_CALLS_S, void (*)(UTIL_CALLS_S *)>;

/// Begins a call: its first step, since nothing keeps the object before.
[[nodiscard]] inline UTIL_CALL UTIL_CALL_Begin(UTIL_CALLS_S &stCalls)
{
    pthread_mutex_lock(&stCalls.mutexCalls);
    stCalls.u32Inside += 1;
    pthread_mutex_unlock(&stCalls.mutexCalls);
    return UTIL_CALL(&stCalls, UTIL_CALL_End);
}

/// Waits until nobody is inside. The caller holds nothing that a call may want.
inline void UTIL_CALLS_Wait(UTIL_CALLS_S &stCalls)
{
    pthread_mutex_lock(&stCalls.mutexCalls);
    while (stCalls.u32Inside > 0)
    {
        pthread_cond_wait(&stCalls.condCalls, &stCalls.mutexCalls);
    }
    pthread_mutex_unlock(&stCalls.mutexCalls);
}

} // namespace libquarrin

#endif
