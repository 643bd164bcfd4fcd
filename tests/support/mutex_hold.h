// Stands between the library and its mutexes: holds a thread up at one of them, so that a test can let something else
// happen in just that moment.
// Threads that were not told to stop pass through.
#ifndef QUARRIN_TESTS_MUTEX_HOLD_H
#define QUARRIN_TESTS_MUTEX_HOLD_H

#include <cstdint>
#include <functional>
#include <pthread.h>

/// Holds the calling thread up before the s32Nth mutex that it locks from now on (1: the next one). With a mutex only its
/// locks count.
void MUTEX_HOLD_BeforeLock(int32_t s32Nth, const pthread_mutex_t *pMutex = nullptr);

/// Holds the calling thread up when it has let go of a mutex, the next time.
void MUTEX_HOLD_AfterUnlock(const pthread_mutex_t *pMutex);

/// Waits until a thread is held up. False after s32Ms milliseconds.
bool MUTEX_HOLD_WaitHeld(int32_t s32Ms = 5000);

/// Lets it go on.
void MUTEX_HOLD_Release();

/// How many mutexes the calling thread locks while fn runs.
int32_t MUTEX_HOLD_CountLocks(const std::function<void()> &fn);

/// Counts from now on how often any thread locks a mutex. It may go meanwhile: its place is watched.
void MUTEX_HOLD_Watch(const pthread_mutex_t *pMutex);

/// How often it was locked since.
int32_t MUTEX_HOLD_Watched();

#endif
