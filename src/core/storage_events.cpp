// Storage state machine, the event thread's side: what hotplug, mount, format and split events do.
// Threads: the event thread. Locks: mutexState; in a hot-unplug then the card gate, the lists' mutexes and the
// sessions'.

#include "libquarrin/events.h"

#include "core/format.h"
#include "libquarrin/quota.h"
#include "libquarrin/storage.h"
#include "record/session.h"
#include "record/split_files.h"
#include "replay/replay.h"
#include "storage/card.h"
#include "storage/presence.h"
#include "storage/quota.h"
#include "util/lock.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

// Mounts the handle's partition; the caller holds mutexState and logs under its own name.
static bool MountLocked(tagQN_HANDLER_S *pHandle, const char *pszFunc)
{
    if (!QN_CARD_Mount(pHandle))
    {
        QN_LOG_ERROR_AS(pszFunc, "Mount %s failed!", pHandle->pszMountPoint.c_str());
        pHandle->enState = QN_STATE_E_PLUGIN;
        return false;
    }
    pHandle->enState = QN_STATE_E_MOUNTED;
    return true;
}

// Mounts a device that is there; the caller holds mutexState. False: there is none, or no mount.
static bool PlugLocked(tagQN_HANDLER_S *pHandle)
{
    constexpr const char *FUNC = "QN_EVENT_HandleHotplugIn";
    const bool bDevice = QN_STORAGE_CheckBlockDevExist(pHandle->strDevice.c_str()) == 0;
    QN_PRESENCE_Note(pHandle, bDevice);
    if (!bDevice)
    {
        QN_LOG_ERROR_AS(FUNC, "OOPs, trigger hotplug-in event but device %s not found!", pHandle->strDevice.c_str());
        pHandle->enState = QN_STATE_E_UNPLUGIN;
        return false;
    }
    if (QN_STORAGE_CheckPartitionExist(pHandle->strDevice.c_str(), QN_CARD_PartitionNo(pHandle)) != 0)
    {
        QN_LOG_ERROR_AS(FUNC, "partition not found!");
        pHandle->enState = QN_STATE_E_PLUGIN;
        return false;
    }
    return MountLocked(pHandle, FUNC);
}

int32_t QN_EVENT_HandleHotplugIn(tagQN_HANDLER_S *pHandle)
{
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
        const bool bWasMounted = pHandle->enState.load() == QN_STATE_E_MOUNTED;
        if (!PlugLocked(pHandle))
        {
            if (bWasMounted)
            {
                QN_CARD_LeaveMounted(pHandle);
            }
            return 0;
        }
    }
    return QN_EVENT_PushEvent(pHandle, QN_EVENT_E_MOUNT_DONE, nullptr);
}

int32_t QN_EVENT_HandleHotplugOut(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
    QN_PRESENCE_Note(pHandle, false);
    // Kept: sessions are not closed here; they drop frames until the host stops them.
    // Before the gate: somebody behind it may be listing a folder of the dying card, and take his time.
    QN_RECORD_StopAll(pHandle);
    QN_REPLAY_CloseReaders(pHandle);
    const UTIL_RWLOCK card = QN_CARD_Close(pHandle);
    // And behind it: a start or an open that was on its way through is done by now.
    QN_RECORD_StopAll(pHandle);
    QN_REPLAY_CloseReaders(pHandle);
    // Their writers are closed before umount looks; no session can split off another one now.
    QN_SPLIT_FinishAll(pHandle, nullptr);
    QN_CARD_Unmount(pHandle, true);
    (void)QN_STORAGE_QuotaDestroy(pHandle); // always 0
    pHandle->enState = QN_STATE_E_UNPLUGIN;
    return 0;
}

int32_t QN_EVENT_HandleMountDone(tagQN_HANDLER_S *pHandle)
{
    // As the mount found it: checks run on this thread alone, so nothing else is left over from before.
    const bool bFull = pHandle->enStorageState.load() == QN_STORAGE_STATE_E_FULL;
    const int32_t s32Result = QN_STORAGE_QuotaInit(pHandle);
    if (bFull)
    {
        QN_QUOTA_CheckAfterMount(pHandle);
    }
    return s32Result;
}

int32_t QN_EVENT_HandleFormatSuccess(tagQN_HANDLER_S *pHandle)
{
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
        if (!QN_FORMAT_TakeOutcome(pHandle) || pHandle->enState.load() != QN_STATE_E_FORMATING)
        {
            QN_LOG_ERROR("OOPs, trigger format-success event but not in FORMATING!");
            return 0;
        }
        if (!MountLocked(pHandle, __func__))
        {
            return 0;
        }
    }
    return QN_EVENT_PushEvent(pHandle, QN_EVENT_E_MOUNT_DONE, nullptr);
}

int32_t QN_EVENT_HandleFormatFailed(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
    if (!QN_FORMAT_TakeOutcome(pHandle) || pHandle->enState.load() != QN_STATE_E_FORMATING)
    {
        QN_LOG_ERROR("OOPs, trigger format-failed event but not in FORMATING!");
        return 0;
    }
    pHandle->enState = QN_STATE_E_PLUGIN;
    return 0;
}

int32_t QN_EVENT_HandleRecordAutoSplit(tagQN_HANDLER_S *pHandle, std::shared_ptr<void> spPayload)
{
    const auto spEvent = std::static_pointer_cast<tagQN_AUTO_SPLIT_EVENT_S>(spPayload);
    if (spEvent == nullptr)
    {
        return static_cast<int32_t>(QN_RET_NULL_HANDLE);
    }
    return static_cast<int32_t>(QN_SPLIT_Finish(pHandle, spEvent));
}

} // namespace libquarrin
