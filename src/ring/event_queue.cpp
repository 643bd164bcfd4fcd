// The event ring: four slots, any number of producers, one dispatcher.
// Threads: any. Locks: mutexEvent, a leaf; payloads are released outside it. Not here: what the events do
// (core/dispatcher.cpp).

#include "ring/event_queue.h"

#include <exception>
#include <utility>

#include "ring/handle_private.h"

namespace libquarrin
{

const char *QN_DeviceName(const std::string &strDevice)
{
    const size_t slash = strDevice.rfind('/');
    return strDevice.c_str() + (slash == std::string::npos ? 0 : slash + 1);
}

std::shared_ptr<void> QN_EVENT_MakeVolume(QN_VOLUME_ID_E enVolume)
try
{
    return std::make_shared<QN_VOLUME_ID_E>(enVolume);
}
catch (const std::exception &)
{
    return nullptr;
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

static bool IsPlug(QN_EVENT_E enEvent)
{
    return enEvent == QN_EVENT_E_HOTPLUG_IN || enEvent == QN_EVENT_E_HOTPLUG_OUT;
}

// What a plug event tells counts from the begin of its post, before it waits for room or for its handler: the monitor
// would take it for something new when it looks at the device meanwhile, and tell it twice.
static void NotePlugLocked(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent)
{
    if (IsPlug(enEvent))
    {
        pHandle->pstPrivate->u32PlugsAhead += 1;
        pHandle->pstPrivate->bSeenPresent = enEvent == QN_EVENT_E_HOTPLUG_IN;
    }
}

void QN_EVENT_NotePresence(tagQN_HANDLER_S *pHandle, bool bPresent)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    if (pHandle->pstPrivate->u32PlugsAhead == 0)
    {
        pHandle->pstPrivate->bSeenPresent = bPresent;
    }
}

static void NoteOutcomeLocked(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent)
{
    if (enEvent == QN_EVENT_E_FORMAT_SUCCESS || enEvent == QN_EVENT_E_FORMAT_FAILED)
    {
        pHandle->pstPrivate->u32OutcomesAhead += 1;
    }
}

void QN_EVENT_OutdateOutcomes(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    pHandle->pstPrivate->u32OutcomesOld = pHandle->pstPrivate->u32OutcomesAhead;
}

// Counts down, but never below nothing: a host may call a handler itself.
static bool TakeOne(uint32_t &u32Count)
{
    const bool bAny = u32Count > 0;
    u32Count -= bAny ? 1 : 0;
    return bAny;
}

bool QN_EVENT_TakeOutcome(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    (void)TakeOne(pHandle->pstPrivate->u32OutcomesAhead);
    return !TakeOne(pHandle->pstPrivate->u32OutcomesOld); // they are handled in order: the old ones come first
}

void QN_EVENT_TakenLocked(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent)
{
    if (IsPlug(enEvent))
    {
        (void)TakeOne(pHandle->pstPrivate->u32PlugsAhead);
    }
}

static bool IsDispatcherLocked(const tagQN_HANDLER_S *pHandle)
{
    const tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    return pPrivate->bDispatching && pthread_equal(pPrivate->tidDispatcher, pthread_self()) != 0;
}

static void AddOwnLocked(tagQN_HANDLER_PRIVATE_S *pPrivate, tagQN_EVENT_SLOT_S stEvent)
{
    if (pPrivate->lstOwnSpare.empty())
    {
        pPrivate->lstOwnSpare.emplace_back();
    }
    pPrivate->lstOwnSpare.front() = std::move(stEvent);
    pPrivate->lstOwnEvents.splice(pPrivate->lstOwnEvents.end(), pPrivate->lstOwnSpare, pPrivate->lstOwnSpare.begin());
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
        NoteOutcomeLocked(pHandle, enEvent);
        spOld = StoreLocked(pHandle, enEvent, spPayload);
        return true;
    }
    if (IsDispatcherLocked(pHandle))
    {
        // A handler that waited for room here would wait for itself.
        AddOwnLocked(pHandle->pstPrivate, {enEvent, spPayload});
        NoteOutcomeLocked(pHandle, enEvent);
        return true;
    }
    return false;
}

bool QN_EVENT_TryPush(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload)
{
    std::shared_ptr<void> spOld; // released after the lock
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    return TryPushLocked(pHandle, enEvent, spPayload, spOld);
}

bool QN_EVENT_HasRoom(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    return pHandle->u32EventCount < QN_EVENT_SLOTS || pHandle->bEventExit;
}

void QN_EVENT_WaitForRoom(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    while (pHandle->u32EventCount >= QN_EVENT_SLOTS && !pHandle->bEventExit)
    {
        pthread_cond_wait(&pHandle->condEvent, &pHandle->mutexEvent);
    }
}

void QN_EVENT_ShutDown(tagQN_HANDLER_S *pHandle)
{
    // Under the lock: a producer between its test and its wait would sleep for good otherwise.
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    pHandle->bEventExit = true;
    pthread_cond_broadcast(&pHandle->condEvent);
}

static void CountProducerLocked(tagQN_HANDLER_S *pHandle, bool bBegins)
{
    uint32_t &u32Producers = pHandle->pstPrivate->u32Producers;
    u32Producers = bBegins ? u32Producers + 1 : u32Producers - 1;
    if (pHandle->bEventExit)
    {
        pthread_cond_broadcast(&pHandle->condEvent); // QN_EVENT_WaitForProducers
    }
}

void QN_EVENT_CountProducer(tagQN_HANDLER_S *pHandle, bool bBegins)
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
    NotePlugLocked(pHandle, enEvent);
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

void QN_EVENT_WaitForProducers(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
    while (pHandle->pstPrivate->u32Producers > 0)
    {
        pthread_cond_wait(&pHandle->condEvent, &pHandle->mutexEvent);
    }
}

void QN_EVENT_Push(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload)
{
    Push(pHandle, enEvent, spPayload, nullptr);
}

void QN_EVENT_PushUnlocking(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, const std::shared_ptr<void> &spPayload,
                            UTIL_LOCK &lock)
{
    Push(pHandle, enEvent, spPayload, &lock);
}

} // namespace libquarrin
