// The event thread: takes events out of the ring, one at a time and in order, and calls their handlers.
// Threads: the event thread; start and stop on the owner's. Locks: none while a handler
// runs.

#include "libquarrin/events.h"

#include "core/format.h"
#include "libquarrin/quota.h"
#include "ring/ring.h"
#include "storage/device_name.h"
#include "storage/presence.h"
#include "storage/quota.h"
#include "util/line.h"
#include "util/log.h"

namespace libquarrin
{

int32_t QN_EVENT_Init(tagQN_HANDLER_S *pHandle)
{
    QN_RING_Open(pHandle);
    QN_PRESENCE_Reset(pHandle);
    QN_FORMAT_ResetOutcomes(pHandle);
    UTIL_LINE_S stName;
    (void)UTIL_LINE_Format(stName, "%s:event", QN_DeviceName(pHandle->strDevice));
    const char *pszName = stName.szShort; // a thread's name is short
    (void)UTIL_THREAD_InitData(&pHandle->stEventThread, pszName, QN_EVENT_ProcessThread, pHandle);
    (void)UTIL_THREAD_Create(&pHandle->stEventThread, nullptr); // a failure shows in the log and in the state
    QN_LOG_INFO("Thread %s start", pszName);
    if (pHandle->stEventThread.bNoThread)
    {
        QN_LOG_ERROR("Thread %s not started, all events are dropped", pszName);
        QN_RING_ShutDownUntaken(pHandle); // nobody would ever make room
    }
    return 0;
}

int32_t QN_EVENT_Destroy(tagQN_HANDLER_S *pHandle)
{
    QN_RING_ShutDown(pHandle);
    (void)UTIL_THREAD_Destory(&pHandle->stEventThread, 1); // always 0
    QN_LOG_INFO("exit");
    return 0;
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
    if (QN_RING_Take(pHandle, stEvent))
    {
        QN_PRESENCE_Taken(pHandle, stEvent.enEvent);
        Dispatch(pHandle, stEvent);
        QN_RING_Done(pHandle);
    }
    QN_QUOTA_CheckAgain(pHandle); // behind each event, and once a second without one
}

} // namespace libquarrin
