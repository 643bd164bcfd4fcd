// Quota checks that no session asks for: behind a mount, and behind one that the file system or the memory cut short.
// Threads: the event thread. Locks: the card gate, shared; mutexQuota, a leaf. Both look at a mounted card only.
#ifndef QUARRIN_STORAGE_QUOTA_H
#define QUARRIN_STORAGE_QUOTA_H

#include <cstdint>
#include <memory>
#include <pthread.h>

#include "libquarrin/handle.h"

namespace libquarrin
{

struct tagQN_QUOTA_S
{
    pthread_mutex_t mutexQuota = PTHREAD_MUTEX_INITIALIZER; ///< a host may check, too
    /// Guarded: when to check a volume again whose file system did not tell its size, or for whose list there was no
    /// memory, CLOCK_MONOTONIC; 0: not.
    int64_t as64AgainUs[QN_VOLUME_COUNT] = {};
};

/// The payload of a quota event; null: no memory. Threads: any. Locks: none.
std::shared_ptr<void> QN_QUOTA_MakePayload(QN_VOLUME_ID_E enVolume);

/// A check of each enabled volume, so that a full storage that was found on another card, or on none, does not outlive
/// the mount. Volume 0 comes last, so that the word is its.
///
/// Call it behind every mount that found the storage full, with the folders made.
void QN_QUOTA_CheckAfterMount(tagQN_HANDLER_S *pHandle);

/// Checks a volume whose quota is a part of a file system that did not tell its size a second ago, and that counts as
/// full for it; or whose files there was no memory to list. One volume a call, so that events come between them.
///
/// Call it at every step of the event thread; it comes back at once when nothing is due.
void QN_QUOTA_CheckAgain(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
