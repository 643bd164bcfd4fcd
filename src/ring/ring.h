// The event ring: four slots, any number of producers, one taker. It does not know what an event means.
//
// Lock order of a handle, outermost first: mutexState; the card gate; a list's mutex; a session's stMutex; its
// mutexWriter; the mutex of a format link. mutexEvent and the mutexes of the other private records are leaves. Nothing
// of it is held while a caller waits for room in the ring, or a destroy for the calls on its session.
#ifndef QUARRIN_RING_RING_H
#define QUARRIN_RING_RING_H

#include <list>
#include <memory>

#include "libquarrin/handle.h"
#include "util/lock.h"

namespace libquarrin
{

/// What the ring holds beside the handle's slots. Guarded by mutexEvent, but for bNoTaker.
struct tagQN_RING_S
{
    bool bNoTaker = false;                      ///< constant once the ring is open
    bool bTaken = false;                        ///< an event is out and being handled
    pthread_t tidTaker = 0;                     ///< by this thread
    uint32_t u32Producers = 0;                  ///< calls that wait for room, or have just got it
    std::list<tagQN_EVENT_SLOT_S> lstOwnEvents; ///< posted by the taker into a full ring; they take the next free slots
    std::list<tagQN_EVENT_SLOT_S> lstOwnSpare;  ///< room for them: a handler has done its work when it posts
};

/// The ring's own record; null: no memory. It has room for what a handler posts into a full ring.
tagQN_RING_S *QN_RING_New();

/// Frees it. Null is none.
void QN_RING_Delete(tagQN_RING_S *pRing);

/// Empties the ring and opens it.
void QN_RING_Open(tagQN_HANDLER_S *pHandle);

/// From now on posts are dropped, those that wait for room too.
void QN_RING_ShutDown(tagQN_HANDLER_S *pHandle);

/// Shuts the ring down because nobody takes events out of it, and never will.
void QN_RING_ShutDownUntaken(tagQN_HANDLER_S *pHandle);

/// Somebody takes events out of the ring, or has until it was shut down.
bool QN_RING_HasTaker(const tagQN_HANDLER_S *pHandle);

/// A call begins, or ends, that looks at the handle again after it has waited for room: the handle stays that long.
///
/// Threads: any. Locks: mutexEvent, a leaf.
void QN_RING_CountProducer(tagQN_HANDLER_S *pHandle, bool bBegins);

/// Waits until the producers that a shut-down has woken are out of the ring: the handle may go then.
void QN_RING_WaitForProducers(tagQN_HANDLER_S *pHandle);

/// Posts without waiting. True: queued (or dropped, after a shut-down); false: the ring is full, nothing was done.
///
/// Threads: any. Locks: mutexEvent, a leaf.
bool QN_RING_TryPush(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload);

/// The ring has room, or was shut down, at this moment.
bool QN_RING_HasRoom(tagQN_HANDLER_S *pHandle);

/// Waits until the ring has room or is shut down. Call it holding no lock that a handler takes.
void QN_RING_WaitForRoom(tagQN_HANDLER_S *pHandle);

/// Posts, and waits for room where there is none. QN_EVENT_PushEvent, which hosts call, does more for some events.
///
/// Threads: any. Locks: mutexEvent, a leaf. Call it holding no lock that a handler takes.
void QN_RING_Push(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload);

/// Posts under a lock while there is room. A full ring lets go of the lock first: the handler that would make room may
/// want it.
void QN_RING_PushUnlocking(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload,
                           UTIL_LOCK &lock);

/// Takes the oldest event out; waits at most a second. False: there is none. Until QN_RING_Done this thread is the
/// taker: what it posts into a full ring goes into the slots that become free next.
bool QN_RING_Take(tagQN_HANDLER_S *pHandle, tagQN_EVENT_SLOT_S &stEvent);

/// What was taken has been handled.
void QN_RING_Done(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
