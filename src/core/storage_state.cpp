// Storage state machine, the host's side: the first look at the storage, mount, unmount and format.
// Threads: the host's. Locks: mutexState around every change of enState; the card gate around the unmount line. Not
// here: what hotplug and format events do (storage_events.cpp).

#include "core/storage_state.h"

#include "core/format.h"
#include "libquarrin/hotplug.h"
#include "libquarrin/record.h"
#include "libquarrin/storage.h"
#include "ring/ring.h"
#include "storage/card.h"
#include "storage/presence.h"
#include "util/lock.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

// Waits for room without the lock that the handlers want.
static void PostUnlocking(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, UTIL_LOCK &lock)
{
    QN_PRESENCE_PostBegins(pHandle, enEvent);
    QN_RING_PushUnlocking(pHandle, enEvent, nullptr, lock);
}

int32_t QN_STORAGE_Init(tagQN_HANDLER_S *pHandle)
{
    const int32_t s32Result = QN_STORAGE_HotplugInit(pHandle);
    if (s32Result != 0)
    {
        return s32Result;
    }
    UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
    const bool bMountDir = QN_STORAGE_CheckPartitionMounted(pHandle->pszMountPoint.c_str()) == 0;
    const bool bDevice = QN_STORAGE_CheckBlockDevExist(pHandle->strDevice.c_str()) == 0;
    QN_PRESENCE_Note(pHandle, bDevice);
    if (bMountDir)
    {
        pHandle->enState = QN_STATE_E_MOUNTED;
        PostUnlocking(pHandle, bDevice ? QN_EVENT_E_MOUNT_DONE : QN_EVENT_E_HOTPLUG_OUT, lock);
    }
    else if (bDevice)
    {
        PostUnlocking(pHandle, QN_EVENT_E_HOTPLUG_IN, lock);
    }
    return 0;
}

uint32_t QN_StorageFormat(tagQN_HANDLER_S *pHandle, QN_FS_TYPE_E enFsType)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
    switch (pHandle->enState.load())
    {
    case QN_STATE_E_UNPLUGIN:
        QN_LOG_ERROR("OOPs, trigger format event but in UNPLUGIN state!");
        return QN_RET_STATE;
    case QN_STATE_E_FORMATING:
        QN_LOG_ERROR("OOPs, trigger format event but already formating!");
        return QN_RET_STATE;
    case QN_STATE_E_MOUNTED:
        QN_LOG_ERROR("OOPs, trigger format event but already mounted!");
        return QN_RET_STATE;
    case QN_STATE_E_PLUGIN:
    case QN_STATE_E_UNMOUNTED:
        break;
    }
    tagQN_FORMAT_JOB_S *pJob = QN_FORMAT_Make(pHandle, enFsType);
    if (pJob == nullptr)
    {
        return QN_RET_NO_MEMORY;
    }
    pHandle->enState = QN_STATE_E_FORMATING;
    pHandle->enFormatFsType = enFsType;
    QN_FORMAT_Start(pHandle, pJob);
    return QN_RET_OK;
}

static bool AnyRecordSessionBusy(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexRecordList);
    for (const tagQN_RECORD_HANDLER_S *pSession : pHandle->lstRecord)
    {
        if (pSession->enRecordState.load() != QN_RECORD_STATE_IDLE)
        {
            return true;
        }
    }
    return false;
}

uint32_t QN_StorageMount(tagQN_HANDLER_S *pHandle)
{
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
    const QN_STATE_E enState = pHandle->enState.load();
    if (enState == QN_STATE_E_MOUNTED)
    {
        QN_LOG_ERROR("already mounted");
        return QN_RET_OK; // Kept: hosts mount without asking first
    }
    if (enState != QN_STATE_E_UNMOUNTED)
    {
        QN_LOG_ERROR("invalid state %d", static_cast<int>(enState));
        return QN_RET_STATE;
    }
    if (AnyRecordSessionBusy(pHandle))
    {
        QN_LOG_ERROR("record handler is not idle");
        return QN_RET_STATE;
    }
    if (!QN_CARD_Mount(pHandle))
    {
        QN_LOG_ERROR("Mount %s failed!", pHandle->pszMountPoint.c_str());
        pHandle->enState = QN_STATE_E_PLUGIN;
        return QN_MOUNT_FAILED;
    }
    pHandle->enState = QN_STATE_E_MOUNTED;
    PostUnlocking(pHandle, QN_EVENT_E_MOUNT_DONE, lock);
    return QN_RET_OK;
}

static bool AnySessionOpen(tagQN_HANDLER_S *pHandle)
{
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexRecordList);
        if (!pHandle->lstRecord.empty())
        {
            return true;
        }
    }
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexReplayList);
    return !pHandle->lstReplay.empty();
}

uint32_t QN_StorageUnMount(tagQN_HANDLER_S *pHandle)
{
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
    if (pHandle->enState.load() != QN_STATE_E_MOUNTED)
    {
        QN_LOG_ERROR("try unmount but not mounted");
        return QN_RET_STATE;
    }
    if (AnySessionOpen(pHandle))
    {
        QN_LOG_ERROR("handler is not idle"); // at once: a session that is just opening a file holds the gate
        return QN_RET_STATE;
    }
    // Once more behind the gate: a replay that was just being opened is in its list by now.
    const UTIL_RWLOCK card = QN_CARD_Close(pHandle);
    if (AnySessionOpen(pHandle))
    {
        QN_LOG_ERROR("handler is not idle");
        return QN_RET_STATE;
    }
    QN_CARD_Unmount(pHandle, false); // Kept: the state changes whatever the command says
    pHandle->enState = QN_STATE_E_UNMOUNTED;
    return QN_RET_OK;
}

static void UnmountLocked(tagQN_HANDLER_S *pHandle)
{
    const UTIL_RWLOCK card = QN_CARD_Close(pHandle);
    QN_CARD_Unmount(pHandle, false); // the handle goes in any case
}

void QN_STORAGE_UnmountAtEnd(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
    if (pHandle->enState.load() == QN_STATE_E_MOUNTED || QN_CARD_IsLeftMounted(pHandle))
    {
        UnmountLocked(pHandle);
    }
}

void QN_STORAGE_UnmountLate(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
    const bool bMounted = pHandle->enState.load() == QN_STATE_E_MOUNTED && !QN_CARD_IsUnmounted(pHandle);
    if (bMounted || QN_CARD_IsLeftMounted(pHandle))
    {
        UnmountLocked(pHandle);
    }
}

} // namespace libquarrin
