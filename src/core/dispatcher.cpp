// The event thread: takes events out of the ring, one at a time and in order, and calls their handlers.
// Threads: the event thread; start and stop on the owner's. Locks: mutexEvent, never while a handler runs.

#include "ring/event_queue.h"

#include <cerrno>
#include <utility>

#include <sys/time.h>

#include "libquarrin/quota.h"
#include "ring/handle_private.h"
#include "storage/quota_again.h"
#include "util/line.h"
#include "util/log.h"

namespace libquarrin
{

constexpr long NSEC_PER_USEC = 1000;

int32_t QN_EVENT_Init(tagQN_HANDLER_S *pHandle)
{
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
        pHandle->u32EventTail = 0;
        pHandle->u32EventHead = 0;
        pHandle->u32EventCount = 0;
        pHandle->bEventExit = false;
        pHandle->pstPrivate->lstOwnEvents.clear();
        pHandle->pstPrivate->u32PlugsAhead = 0;
        pHandle->pstPrivate->u32OutcomesAhead = 0;
        pHandle->pstPrivate->u32OutcomesOld = 0;
        for (tagQN_EVENT_SLOT_S &stSlot : pHandle->astEventQueue)
        {
            stSlot = tagQN_EVENT_SLOT_S();
        }
        pthread_cond_broadcast(&pHandle->condEvent);
    }
    UTIL_LINE_S stName;
    (void)UTIL_LINE_Format(stName, "%s:event", QN_DeviceName(pHandle->strDevice));
    const char *pszName = stName.szShort; // a thread's name is short
    (void)UTIL_THREAD_InitData(&pHandle->stEventThread, pszName, QN_EVENT_ProcessThread, pHandle);
    (void)UTIL_THREAD_Create(&pHandle->stEventThread, nullptr); // a failure shows in the log and in the state
    QN_LOG_INFO("Thread %s start", pszName);
    pHandle->pstPrivate->bNoDispatcher = pHandle->stEventThread.bNoThread;
    if (pHandle->pstPrivate->bNoDispatcher)
    {
        QN_LOG_ERROR("Thread %s not started, all events are dropped", pszName);
        QN_EVENT_ShutDown(pHandle); // nobody would ever make room
    }
    return 0;
}

int32_t QN_EVENT_Destroy(tagQN_HANDLER_S *pHandle)
{
    QN_EVENT_ShutDown(pHandle);
    (void)UTIL_THREAD_Destory(&pHandle->stEventThread, 1); // always 0
    QN_LOG_INFO("exit");
    return 0;
}

// Waits at most a second; false when there is nothing to handle. Marks this thread as the one that dispatches.
static bool TakeEvent(tagQN_HANDLER_S *pHandle, tagQN_EVENT_SLOT_S &stEvent)
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
    QN_EVENT_TakenLocked(pHandle, stEvent.enEvent);

    tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    if (!pPrivate->lstOwnEvents.empty())
    {
        std::swap(pHandle->astEventQueue[pHandle->u32EventTail], pPrivate->lstOwnEvents.front());
        pPrivate->lstOwnEvents.front() = tagQN_EVENT_SLOT_S();
        pPrivate->lstOwnSpare.splice(pPrivate->lstOwnSpare.end(), pPrivate->lstOwnEvents,
                                     pPrivate->lstOwnEvents.begin());
        pHandle->u32EventTail = (pHandle->u32EventTail + 1) % QN_EVENT_SLOTS;
        pHandle->u32EventCount += 1;
    }
    pPrivate->bDispatching = true;
    pPrivate->tidDispatcher = pthread_self();
    pthread_cond_broadcast(&pHandle->condEvent);
    return true;
}

static void Dispatch(tagQN_HANDLER_S *pHandle, const tagQN_EVENT_SLOT_S &stEvent)
{
    // The tag of these lines is the dispatcher's step.
    constexpr const char *FUNC = "QN_EVENT_ProcessThread";
    switch (stEvent.enEvent)
    {
    case QN_EVENT_E_HOTPLUG_IN:
        QN_LOG_INFO_AS(FUNC, "QN_EVENT_E_HOTPLUG_IN");
        (void)QN_EVENT_HandleHotplugIn(pHandle); // handlers log their failures themselves
        break;
    case QN_EVENT_E_HOTPLUG_OUT:
        QN_LOG_INFO_AS(FUNC, "QN_EVENT_E_HOTPLUG_OUT");
        (void)QN_EVENT_HandleHotplugOut(pHandle);
        break;
    case QN_EVENT_E_FORMAT_SUCCESS:
        QN_LOG_INFO_AS(FUNC, "QN_EVENT_E_FORMAT_SUCCESS");
        (void)QN_EVENT_HandleFormatSuccess(pHandle);
        break;
    case QN_EVENT_E_FORMAT_FAILED:
        QN_LOG_INFO_AS(FUNC, "QN_EVENT_E_FORMAT_FAILED");
        (void)QN_EVENT_HandleFormatFailed(pHandle);
        break;
    case QN_EVENT_E_MOUNT_DONE:
        QN_LOG_INFO_AS(FUNC, "QN_EVENT_E_MOUNT_DONE");
        (void)QN_EVENT_HandleMountDone(pHandle);
        break;
    case QN_EVENT_E_RECORD_AUTO_SPLIT:
        QN_LOG_INFO_AS(FUNC, "QN_EVENT_E_RECORD_AUTO_SPLIT");
        (void)QN_EVENT_HandleRecordAutoSplit(pHandle, stEvent.spPayload);
        break;
    case QN_EVENT_E_QUOTA_THROTTLE:
        if (stEvent.spPayload != nullptr)
        {
            (void)QN_STORAGE_QuotaCheckWithThrottle(pHandle,
                                                    *static_cast<const QN_VOLUME_ID_E *>(stEvent.spPayload.get()));
        }
        break;
    case QN_EVENT_E_QUOTA_UPDATE:
        QN_LOG_INFO_AS(FUNC, "QN_EVENT_E_QUOTA_UPDATE");
        if (stEvent.spPayload != nullptr)
        {
            (void)QN_STORAGE_QuotaCheck(pHandle, *static_cast<const QN_VOLUME_ID_E *>(stEvent.spPayload.get()));
        }
        break;
    default:
        break; // a value that nobody posts is taken out and ignored
    }
}

void QN_EVENT_ProcessThread(void *pArg)
{
    tagQN_HANDLER_S *pHandle = static_cast<tagQN_HANDLER_S *>(pArg);
    tagQN_EVENT_SLOT_S stEvent;
    if (TakeEvent(pHandle, stEvent))
    {
        Dispatch(pHandle, stEvent);
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexEvent);
        pHandle->pstPrivate->bDispatching = false;
    }
    QN_QUOTA_CheckAgain(pHandle); // behind each event, and once a second without one
}

} // namespace libquarrin
