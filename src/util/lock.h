// Scoped locks: a lock is held for a visible block.
#ifndef QUARRIN_UTIL_LOCK_H
#define QUARRIN_UTIL_LOCK_H

#include <memory>
#include <pthread.h>

namespace libquarrin
{

/// A held mutex. reset() lets go of it before the end of the block.
using UTIL_LOCK = std::unique_ptr<pthread_mutex_t, int (*)(pthread_mutex_t *)>;

/// Locks a mutex until the end of the caller's block.
[[nodiscard]] inline UTIL_LOCK UTIL_LOCK_Scoped(pthread_mutex_t &stMutex)
{
    pthread_mutex_lock(&stMutex);
    return UTIL_LOCK(&stMutex, pthread_mutex_unlock);
}

/// A held side of a reader-writer lock.
using UTIL_RWLOCK = std::unique_ptr<pthread_rwlock_t, int (*)(pthread_rwlock_t *)>;

/// Takes the shared side until the end of the caller's block. Not to be nested: a waiting writer goes first.
[[nodiscard]] inline UTIL_RWLOCK UTIL_LOCK_Shared(pthread_rwlock_t &stLock)
{
    pthread_rwlock_rdlock(&stLock);
    return UTIL_RWLOCK(&stLock, pthread_rwlock_unlock);
}

/// Takes the exclusive side until the end of the caller's block.
[[nodiscard]] inline UTIL_RWLOCK UTIL_LOCK_Exclusive(pthread_rwlock_t &stLock)
{
    pthread_rwlock_wrlock(&stLock);
    return UTIL_RWLOCK(&stLock, pthread_rwlock_unlock);
}

} // namespace libquarrin

#endif
