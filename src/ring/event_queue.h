// The event ring as the rest of the library uses it. See libquarrin/events.h for the exported calls.
#ifndef QUARRIN_RING_EVENT_QUEUE_H
#define QUARRIN_RING_EVENT_QUEUE_H

#include "libquarrin/events.h"
#include "util/lock.h"

namespace libquarrin
{

/// The device was seen, or not. What a plug event tells whose handler has not begun yet is newer, and stays.
///
/// Threads: any. Locks: mutexEvent, a leaf.
void QN_EVENT_NotePresence(tagQN_HANDLER_S *pHandle, bool bPresent);

/// A new format begins: outcomes that are queued, or whose handlers have not begun, are an earlier one's.
///
/// Threads: any; the caller holds mutexState. Locks: mutexEvent, a leaf.
void QN_EVENT_OutdateOutcomes(tagQN_HANDLER_S *pHandle);

/// The handler of a format's outcome begins. False: it is an earlier format's.
///
/// Threads: the event thread; the caller holds mutexState. Locks: mutexEvent, a leaf.
bool QN_EVENT_TakeOutcome(tagQN_HANDLER_S *pHandle);

/// A call begins, or ends, that looks at the handle again after it has waited for room: the handle stays that long.
///
/// Threads: any. Locks: mutexEvent, a leaf.
void QN_EVENT_CountProducer(tagQN_HANDLER_S *pHandle, bool bBegins);

/// The dispatcher has taken an event out of the ring. The caller holds mutexEvent.
void QN_EVENT_TakenLocked(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent);

/// The payload of a quota event; null: no memory.
std::shared_ptr<void> QN_EVENT_MakeVolume(QN_VOLUME_ID_E enVolume);

/// Posts without waiting, but for plug events: these are posted by the calls that may wait. True: queued (or dropped,
/// after a shut-down); false: the ring is full, nothing was done.
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

/// Posts, and waits for room where there is none. QN_EVENT_PushEvent, which hosts call, notes a split-off file as well.
///
/// Threads: any. Locks: mutexEvent, a leaf. Call it holding no lock that a handler takes.
void QN_EVENT_Push(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload);

/// Posts under a lock while there is room. A full ring lets go of the lock first: the handler that would make room may
/// want it.
void QN_EVENT_PushUnlocking(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload,
                            UTIL_LOCK &lock);

/// The text behind the last "/" of a device path, or the whole of it.
const char *QN_DeviceName(const std::string &strDevice);

} // namespace libquarrin

#endif
