// The end of a record session, and the switch of automatic deletion.
// Threads: the host's. Locks: stMutex, then mutexRecordList, one after the other and never nested: a hot-unplug takes
// them the other way round. None is held while waiting for ring room.

#include "record/session.h"

#include <memory>

#include "core/event_queue.h"
#include "core/handle_private.h"
#include "record/split_files.h"
#include "util/lock.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

static void StopLocked(tagQN_RECORD_HANDLER_S *pSession)
{
    const QN_RECORD_STATE_E enState = pSession->enRecordState.load();
    if (enState != QN_RECORD_STATE_IDLE)
    {
        QN_LOG_WARN_AS("QN_RecordDestroy", "destroy but still recording state=%d, stop it first",
                       static_cast<int>(enState));
        (void)QN_RecordStopNoLock(pSession, 0); // 0 for every session
    }
}

// Posts the last quota check; a full ring makes it let go of the locks until there is room.
static void PostQuota(tagQN_RECORD_HANDLER_S *pSession, UTIL_LOCK &lock, UTIL_LOCK *pListLock)
{
    tagQN_HANDLER_S *pHandle = pSession->pstHandle;
    const auto spVolume = std::make_shared<QN_VOLUME_ID_E>(pSession->enVolumeId);
    if (QN_EVENT_TryPush(pHandle, QN_EVENT_E_QUOTA_THROTTLE, spVolume))
    {
        return;
    }
    lock.reset();
    if (pListLock != nullptr)
    {
        pListLock->reset();
    }
    (void)QN_EVENT_PushEvent(pHandle, QN_EVENT_E_QUOTA_THROTTLE, spVolume); // always 0
    if (pListLock != nullptr)
    {
        *pListLock = UTIL_LOCK_Scoped(pHandle->mutexRecordList);
    }
    lock = UTIL_LOCK_Scoped(pSession->stMutex);
}

// Frame calls that wait for ring room come back to the session once more: it must still be there.
static void WaitForFrameCalls(tagQN_RECORD_HANDLER_S *pSession, UTIL_LOCK &lock, UTIL_LOCK *pListLock)
{
    tagQN_RECORD_PRIVATE_S *pPrivate = pSession->pstPrivate;
    if (pPrivate->u32Waiting == 0)
    {
        return;
    }
    if (pListLock != nullptr)
    {
        pListLock->reset();
    }
    while (pPrivate->u32Waiting > 0)
    {
        pthread_cond_wait(&pPrivate->condWaiting, &pSession->stMutex);
    }
    if (pListLock != nullptr)
    {
        lock.reset();
        *pListLock = UTIL_LOCK_Scoped(pSession->pstHandle->mutexRecordList);
        lock = UTIL_LOCK_Scoped(pSession->stMutex);
    }
}

void QN_RECORD_DestroySession(tagQN_RECORD_HANDLER_S *pSession, bool bUnlink, UTIL_LOCK *pListLock)
{
    tagQN_HANDLER_S *pHandle = pSession->pstHandle;
    UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->stMutex);
    StopLocked(pSession);
    QN_SPLIT_FinishAll(pHandle, pSession);
    PostQuota(pSession, lock, pListLock);
    WaitForFrameCalls(pSession, lock, pListLock);
    if (bUnlink)
    {
        // A handler that has found the session in the list is done with it once the list is ours.
        lock.reset();
        const UTIL_LOCK list = UTIL_LOCK_Scoped(pHandle->mutexRecordList);
        pHandle->lstRecord.remove(pSession);
        lock = UTIL_LOCK_Scoped(pSession->stMutex);
    }
    if (pSession->pstPrivate->bOwnsParameterSets)
    {
        QN_BYTES_free(pSession->stParam.stVideo.stSps);
        QN_BYTES_free(pSession->stParam.stVideo.stPps);
    }
    lock.reset();
    delete pSession->pstPrivate;
    delete pSession;
}

uint32_t QN_RecordDestroy(tagQN_RECORD_HANDLER_S *&pSession, tagBU_BOOL bUnlink)
{
    if (pSession == nullptr)
    {
        return QN_RET_OK;
    }
    QN_RECORD_DestroySession(pSession, bUnlink != 0, nullptr);
    pSession = nullptr;
    return QN_RET_OK;
}

uint32_t QN_RecordDestroy(tagQN_RECORD_HANDLER_S *&pSession)
{
    return QN_RecordDestroy(pSession, 1);
}

uint32_t QN_RecordStorageUpdate(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, tagBU_BOOL bAutoDelete)
{
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    if (enVolume < QN_VOLUME_ID_E_0 || enVolume > QN_VOLUME_ID_E_2)
    {
        return QN_RET_STATE;
    }
    // Atomic: a check may be reading it on the event thread.
    __atomic_store_n(&pHandle->astVolume[enVolume].bAutoDelete, bAutoDelete != 0, __ATOMIC_SEQ_CST);
    if (bAutoDelete != 0 && pHandle->enStorageState.load() == QN_STORAGE_STATE_E_FULL)
    {
        pHandle->enStorageState = QN_STORAGE_STATE_E_NORMAL;
        return QN_RET_OK;
    }
    (void)QN_EVENT_PushEvent(pHandle, QN_EVENT_E_QUOTA_UPDATE, std::make_shared<QN_VOLUME_ID_E>(enVolume));
    return QN_RET_OK;
}

} // namespace libquarrin
