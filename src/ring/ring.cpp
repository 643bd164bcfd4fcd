// The event ring. See the header.
// Threads: any. Locks: mutexEvent, a leaf; payloads are released outside it.

#include "ring/ring.h"

#include <cerrno>
#include <exception>
#include <utility>

#include <sys/time.h>

#include "ring/handle_private.h"

namespace libquarrin
{

// A handler posts one event at most, and the next one is taken out before the next handler runs.
constexpr size_t OWN_EVENTS = 2;
constexpr long NSEC_PER_USEC = 1000;

tagQN_RING_S *QN_RING_New()
try
{
    auto spRing = std::make_unique<tagQN_RING_S>();
    spRing->lstOwnSpare.resize(OWN_EVENTS);
    return spRing.release();
}
catch (const std::exception &)
{
    return nullptr;
}

void QN_RING_Delete(tagQN_RING_S *pRing)
{
    delete pRing;
}

void QN_RING_Open(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    pHandle->u32EventTail = 0;
    pHandle->u32EventHead = 0;
    pHandle->u32EventCount = 0;
    pHandle->bEventExit = false;
    pHandle->pstPrivate->pRing->bNoTaker = false;
    pHandle->pstPrivate->pRing->lstOwnEvents.clear();
    for (tagQN_EVENT_SLOT_S &stSlot : pHandle->astEventQueue)
    {
        stSlot = tagQN_EVENT_SLOT_S();
    }
    pthread_cond_broadcast(&pHandle->condEvent);
}

// The caller holds mutexEvent and has seen room. Hands back what the slot held, to be released without the lock.
static std::shared_ptr<void> StoreLocked(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent,
                                         const std::shared_ptr<void> &spPayload)
{
    tagQN_EVENT_SLOT_S &stSlot = pHandle->astEventQueue[pHandle->u32EventTail];
    std::shared_ptr<void> spOld = spPayload;
    stSlot.enEvent = enEvent;
    stSlot.spPayload.swap(spOld);
    pHandle->u32EventCount += 1;
    pHandle->u32EventTail = (pHandle->u32EventTail + 1) % QN_EVENT_SLOTS;
    pthread_cond_broadcast(&pHandle->condEvent);
    return spOld;
}

static bool IsTakerLocked(const tagQN_RING_S *pRing)
{
    return pRing->bTaken && pthread_equal(pRing->tidTaker, pthread_self()) != 0;
}

static void AddOwnLocked(tagQN_RING_S *pRing, tagQN_EVENT_SLOT_S stEvent)
{
    if (pRing->lstOwnSpare.empty())
    {
        pRing->lstOwnSpare.emplace_back();
    }
    pRing->lstOwnSpare.front() = std::move(stEvent);
    pRing->lstOwnEvents.splice(pRing->lstOwnEvents.end(), pRing->lstOwnSpare, pRing->lstOwnSpare.begin());
}

// Queues the event, or drops it after a shut-down. False: the ring is full. spOld takes what the slot held.
static bool TryPushLocked(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload,
                          std::shared_ptr<void> &spOld)
{
    if (pHandle->bEventExit)
    {
        return true;
    }
    if (pHandle->u32EventCount < QN_EVENT_SLOTS)
    {
        spOld = StoreLocked(pHandle, enEvent, spPayload);
        return true;
    }
    if (IsTakerLocked(pHandle->pstPrivate->pRing))
    {
        // A handler that waited for room here would wait for itself.
        AddOwnLocked(pHandle->pstPrivate->pRing, {enEvent, spPayload});
        return true;
    }
    return false;
}

bool QN_RING_TryPush(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload)
{
    std::shared_ptr<void> spOld; // released after the lock
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    return TryPushLocked(pHandle, enEvent, spPayload, spOld);
}

bool QN_RING_HasRoom(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    return pHandle->u32EventCount < QN_EVENT_SLOTS || pHandle->bEventExit;
}

void QN_RING_WaitForRoom(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    while (pHandle->u32EventCount >= QN_EVENT_SLOTS && !pHandle->bEventExit)
    {
        pthread_cond_wait(&pHandle->condEvent, &pHandle->mutexEvent);
    }
}

void QN_RING_ShutDown(tagQN_HANDLER_S *pHandle)
{
    // Under the lock: a producer between its test and its wait would sleep for good otherwise.
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    pHandle->bEventExit = true;
    pthread_cond_broadcast(&pHandle->condEvent);
}

void QN_RING_ShutDownUntaken(tagQN_HANDLER_S *pHandle)
{
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
        pHandle->pstPrivate->pRing->bNoTaker = true;
    }
    QN_RING_ShutDown(pHandle);
}

bool QN_RING_HasTaker(const tagQN_HANDLER_S *pHandle)
{
    return !pHandle->pstPrivate->pRing->bNoTaker; // constant once the ring is open
}

static void CountProducerLocked(tagQN_HANDLER_S *pHandle, bool bBegins)
{
    uint32_t &u32Producers = pHandle->pstPrivate->pRing->u32Producers;
    u32Producers = bBegins ? u32Producers + 1 : u32Producers - 1;
    if (pHandle->bEventExit)
    {
        pthread_cond_broadcast(&pHandle->condEvent); // QN_RING_WaitForProducers
    }
}

void QN_RING_CountProducer(tagQN_HANDLER_S *pHandle, bool bBegins)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    CountProducerLocked(pHandle, bBegins);
}

// Posts, and waits for room where there is none. pCallers is let go of before the wait: a handler may want it. The call
// is counted by then, so that nobody takes the handle away from under it.
static void Push(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload,
                 UTIL_LOCK *pCallers)
{
    std::shared_ptr<void> spOld; // released after the lock
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    if (TryPushLocked(pHandle, enEvent, spPayload, spOld))
    {
        return;
    }
    CountProducerLocked(pHandle, true);
    if (pCallers != nullptr)
    {
        pCallers->reset();
    }
    while (!TryPushLocked(pHandle, enEvent, spPayload, spOld))
    {
        pthread_cond_wait(&pHandle->condEvent, &pHandle->mutexEvent);
    }
    CountProducerLocked(pHandle, false);
}

void QN_RING_WaitForProducers(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    while (pHandle->pstPrivate->pRing->u32Producers > 0)
    {
        pthread_cond_wait(&pHandle->condEvent, &pHandle->mutexEvent);
    }
}

void QN_RING_Push(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload)
{
    Push(pHandle, enEvent, spPayload, nullptr);
}

void QN_RING_PushUnlocking(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload,
                           UTIL_LOCK &lock)
{
    Push(pHandle, enEvent, spPayload, &lock);
}

// An event of the taker's own goes into the slot that has just become free.
static void MoveOwnLocked(tagQN_HANDLER_S *pHandle)
{
    tagQN_RING_S *pRing = pHandle->pstPrivate->pRing;
    if (!pRing->lstOwnEvents.empty())
    {
        std::swap(pHandle->astEventQueue[pHandle->u32EventTail], pRing->lstOwnEvents.front());
        pRing->lstOwnEvents.front() = tagQN_EVENT_SLOT_S();
        pRing->lstOwnSpare.splice(pRing->lstOwnSpare.end(), pRing->lstOwnEvents, pRing->lstOwnEvents.begin());
        pHandle->u32EventTail = (pHandle->u32EventTail + 1) % QN_EVENT_SLOTS;
        pHandle->u32EventCount += 1;
    }
}

bool QN_RING_Take(tagQN_HANDLER_S *pHandle, tagQN_EVENT_SLOT_S &stEvent)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    struct timeval stNow = {};
    gettimeofday(&stNow, nullptr);
    struct timespec stDeadline = {};
    stDeadline.tv_sec = stNow.tv_sec + 1;
    stDeadline.tv_nsec = static_cast<long>(stNow.tv_usec) * NSEC_PER_USEC;
    while (pHandle->u32EventCount == 0)
    {
        if (pHandle->bEventExit ||
            pthread_cond_timedwait(&pHandle->condEvent, &pHandle->mutexEvent, &stDeadline) == ETIMEDOUT)
        {
            return false;
        }
    }
    if (pHandle->bEventExit)
    {
        return false;
    }
    // The slot keeps its reference until a later event takes the slot.
    stEvent = pHandle->astEventQueue[pHandle->u32EventHead];
    pHandle->u32EventHead = (pHandle->u32EventHead + 1) % QN_EVENT_SLOTS;
    pHandle->u32EventCount -= 1;
    MoveOwnLocked(pHandle);
    pHandle->pstPrivate->pRing->bTaken = true;
    pHandle->pstPrivate->pRing->tidTaker = pthread_self();
    pthread_cond_broadcast(&pHandle->condEvent);
    return true;
}

void QN_RING_Done(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    pHandle->pstPrivate->pRing->bTaken = false;
}

} // namespace libquarrin
