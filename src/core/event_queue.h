// The event ring as the rest of the library uses it. See libquarrin/events.h for the exported calls.
#ifndef QUARRIN_CORE_EVENT_QUEUE_H
#define QUARRIN_CORE_EVENT_QUEUE_H

#include "libquarrin/events.h"
#include "util/lock.h"

namespace libquarrin
{

/// Posts without waiting. True: queued (or dropped, after a shut-down); false: the ring is full, nothing was done.
///
/// Threads: any. Locks: mutexEvent, a leaf.
bool QN_EVENT_TryPush(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload);

/// The ring has room, or was shut down, at this moment.
bool QN_EVENT_HasRoom(tagQN_HANDLER_S *pHandle);

/// Waits until the ring has room or is shut down. Call it holding no lock that a handler takes.
void QN_EVENT_WaitForRoom(tagQN_HANDLER_S *pHandle);

/// Waits until the producers that a shut-down has woken are out of the queue: the handle may go then.
void QN_EVENT_WaitForProducers(tagQN_HANDLER_S *pHandle);

/// From now on posts are dropped, those that wait for room too.
void QN_EVENT_ShutDown(tagQN_HANDLER_S *pHandle);

/// Posts under a lock while there is room. A full ring lets go of the lock first: the handler that would make room may
/// want it.
void QN_EVENT_PushUnlocking(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload,
                            UTIL_LOCK &lock);

/// The text behind the last "/" of a device path, or the whole of it.
const char *QN_DeviceName(const std::string &strDevice);

} // namespace libquarrin

#endif
