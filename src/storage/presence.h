// Whether the device is there, as it was seen last: by a look, or by the plug events that are posted.
// Threads: any. Locks: mutexPresence, a leaf.
#ifndef QUARRIN_STORAGE_PRESENCE_H
#define QUARRIN_STORAGE_PRESENCE_H

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include "libquarrin/handle.h"

namespace libquarrin
{

struct tagQN_PRESENCE_S
{
    pthread_mutex_t mutexPresence = PTHREAD_MUTEX_INITIALIZER;
    uint32_t u32PlugsAhead = 0;     ///< guarded: plug events whose post has begun, and that are not taken out yet
    std::atomic<bool> bSeen{false}; ///< written under the mutex, readers take no lock

    // Of the monitor; see hotplug.cpp
    bool bKernelDevice = false; ///< constant once it runs: the device was a block device at the start
    bool bListened = false;     ///< its thread only: a socket was open before
    int64_t s64LookAtMs = 0;    ///< its thread only: when to look at the device again, CLOCK_MONOTONIC; 0: not
};

/// No plug event is ahead: the ring has been emptied.
void QN_PRESENCE_Reset(tagQN_HANDLER_S *pHandle);

/// The device was seen, or not. What a plug event tells whose handler has not begun yet is newer, and stays.
void QN_PRESENCE_Note(tagQN_HANDLER_S *pHandle, bool bPresent);

/// What was noted last.
bool QN_PRESENCE_Seen(const tagQN_HANDLER_S *pHandle);

/// The post of an event begins. What a plug event tells counts from here on, before it waits for room or for its
/// handler: the monitor would take it for something new when it looks at the device meanwhile, and tell it twice.
void QN_PRESENCE_PostBegins(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent);

/// An event was taken out of the ring.
void QN_PRESENCE_Taken(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent);

} // namespace libquarrin

#endif
