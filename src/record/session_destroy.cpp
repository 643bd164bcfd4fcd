// The end of a record session, and the switch of automatic deletion.
// Threads: the host's. Locks: stMutex, then mutexRecordList, one after the other and never nested: a hot-unplug takes
// them the other way round. None is held while waiting, be it for ring room or for calls on the session.

#include "record/session.h"

#include <memory>

#include "record/split_files.h"
#include "ring/handle_private.h"
#include "ring/ring.h"
#include "storage/quota.h"
#include "util/lock.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

static void Stop(tagQN_RECORD_HANDLER_S *pSession)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->stMutex);
    pSession->pstPrivate->u32Stops += 1; // a start that is under way ends, and none begins to record
    const QN_RECORD_STATE_E enState = pSession->enRecordState.load();
    if (enState != QN_RECORD_STATE_IDLE)
    {
        QN_LOG_WARN_AS("QN_RecordDestroy", "destroy but still recording state=%d, stop it first",
                       static_cast<int>(enState));
        (void)QN_RecordStopNoLock(pSession, 0); // 0 for every session
    }
}

void QN_RECORD_FreeSession(tagQN_RECORD_HANDLER_S *pSession)
{
    if (pSession->pstPrivate->bOwnsParameterSets)
    {
        QN_BYTES_free(pSession->stParam.stVideo.stSps);
        QN_BYTES_free(pSession->stParam.stVideo.stPps);
    }
    delete pSession->pstPrivate;
    delete pSession;
}

void QN_RECORD_DestroySession(tagQN_RECORD_HANDLER_S *pSession, bool bUnlink)
{
    tagQN_HANDLER_S *pHandle = pSession->pstHandle;
    Stop(pSession);
    QN_SPLIT_FinishAll(pHandle, pSession);
    const std::shared_ptr<void> spVolume = QN_QUOTA_MakePayload(pSession->enVolumeId);
    if (spVolume != nullptr) // without memory the next frame's check has to do
    {
        QN_RING_Push(pHandle, QN_EVENT_E_QUOTA_THROTTLE, spVolume);
    }
    // With nothing held: calls that have begun want stMutex, and the card gate, behind which an unplug may want the
    // list.
    UTIL_CALLS_Wait(pSession->pstPrivate->stCalls);
    if (bUnlink)
    {
        // A handler that has found the session in the list is done with it once the list is ours.
        const UTIL_LOCK list = UTIL_LOCK_Scoped(pHandle->mutexRecordList);
        pHandle->lstRecord.remove(pSession);
    }
    QN_RECORD_FreeSession(pSession);
}

uint32_t QN_RecordDestroy(tagQN_RECORD_HANDLER_S *&pSession, tagBU_BOOL bUnlink)
{
    if (pSession == nullptr)
    {
        return QN_RET_OK;
    }
    const UTIL_CALL end = UTIL_CALL_Begin(*pSession->pstHandle->pstPrivate->pEnds); // ends when the session is gone
    QN_RECORD_DestroySession(pSession, bUnlink != 0);
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
    const std::shared_ptr<void> spVolume = QN_QUOTA_MakePayload(enVolume);
    if (spVolume == nullptr)
    {
        return QN_RET_NO_MEMORY;
    }
    // Atomic: a check may be reading it on the event thread.
    __atomic_store_n(&pHandle->astVolume[enVolume].bAutoDelete, bAutoDelete != 0, __ATOMIC_SEQ_CST);
    if (bAutoDelete != 0 && pHandle->enStorageState.load() == QN_STORAGE_STATE_E_FULL)
    {
        pHandle->enStorageState = QN_STORAGE_STATE_E_NORMAL;
        return QN_RET_OK;
    }
    QN_RING_Push(pHandle, QN_EVENT_E_QUOTA_UPDATE, spVolume);
    return QN_RET_OK;
}

} // namespace libquarrin
