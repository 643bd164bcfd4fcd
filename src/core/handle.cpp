// The handle: made and destroyed here; version and state queries; the byte buffer.
// Threads: the host's. Locks: QN_Destroy takes the list mutexes, then mutexState with the card gate, one after another.

#include "libquarrin/core.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "core/format.h"
#include "core/storage_state.h"
#include "libquarrin/events.h"
#include "libquarrin/hotplug.h"
#include "libquarrin/quota.h"
#include "libquarrin/replay.h"
#include "libquarrin/storage.h"
#include "record/session.h"
#include "record/split_files.h"
#include "replay/frames_out.h"
#include "ring/handle_private.h"
#include "ring/ring.h"
#include "storage/card.h"
#include "storage/device_name.h"
#include "storage/presence.h"
#include "storage/quota.h"
#include "util/lock.h"
#include "util/results.h"

namespace libquarrin
{

const char *QN_LibVersion()
{
    return "1.0.0";
}

tagQN_BYTES QN_BYTES_dup(tagQN_BYTES stSrc)
{
    if (stSrc.u32Len == 0 || stSrc.pu8Data == nullptr)
    {
        return {nullptr, 0};
    }
    uint8_t *pu8Copy = static_cast<uint8_t *>(malloc(stSrc.u32Len));
    if (pu8Copy == nullptr)
    {
        return {nullptr, 0};
    }
    memcpy(pu8Copy, stSrc.pu8Data, stSrc.u32Len);
    return {pu8Copy, stSrc.u32Len};
}

void QN_BYTES_free(tagQN_BYTES &stBytes)
{
    if (stBytes.pu8Data != nullptr)
    {
        free(stBytes.pu8Data);
        stBytes.pu8Data = nullptr;
        stBytes.u32Len = 0;
    }
}

uint32_t QN_GetState(tagQN_HANDLER_S *pHandle, QN_STATE_E *penState)
{
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
    *penState = pHandle->enState.load();
    return QN_RET_OK;
}

uint32_t QN_GetStorageState(tagQN_HANDLER_S *pHandle, QN_STORAGE_STATE_E *penState)
{
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexState);
    *penState = pHandle->enStorageState.load();
    return QN_RET_OK;
}

static void FreeParts(tagQN_HANDLER_PRIVATE_S *pPrivate)
{
    delete pPrivate->pEnds;
    QN_FORMAT_Delete(pPrivate->pFormats);
    delete pPrivate->pFramesOut;
    delete pPrivate->pSplits;
    delete pPrivate->pQuota;
    QN_CARD_Delete(pPrivate->pCard);
    delete pPrivate->pPresence;
    QN_RING_Delete(pPrivate->pRing);
    delete pPrivate;
}

// Null: no memory.
static tagQN_HANDLER_PRIVATE_S *MakeParts(tagQN_HANDLER_S *pHandle)
{
    tagQN_HANDLER_PRIVATE_S *pPrivate = new (std::nothrow) tagQN_HANDLER_PRIVATE_S();
    if (pPrivate == nullptr)
    {
        return nullptr;
    }
    pPrivate->pRing = QN_RING_New();
    pPrivate->pPresence = new (std::nothrow) tagQN_PRESENCE_S();
    pPrivate->pCard = QN_CARD_New();
    pPrivate->pQuota = new (std::nothrow) tagQN_QUOTA_S();
    pPrivate->pSplits = new (std::nothrow) tagQN_SPLITS_S();
    pPrivate->pFramesOut = new (std::nothrow) tagQN_FRAMES_OUT_S();
    pPrivate->pFormats = QN_FORMAT_New(pHandle);
    pPrivate->pEnds = new (std::nothrow) UTIL_CALLS_S();
    if (pPrivate->pRing == nullptr || pPrivate->pPresence == nullptr || pPrivate->pCard == nullptr ||
        pPrivate->pQuota == nullptr || pPrivate->pSplits == nullptr || pPrivate->pFramesOut == nullptr ||
        pPrivate->pFormats == nullptr || pPrivate->pEnds == nullptr)
    {
        FreeParts(pPrivate);
        return nullptr;
    }
    return pPrivate;
}

// The handle's own parameters. False: no memory.
static bool CopyParam(tagQN_HANDLER_S *pHandle, const tagQN_STORAGE_PARAM_S *pParam)
try
{
    pHandle->strDevice = pParam->strDevice;
    pHandle->s32PartitionNo = pParam->s32PartitionNo;
    pHandle->pszMountPoint = pParam->pszMountPoint;
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        pHandle->astVolume[i] = pParam->astVolume[i];
    }
    pHandle->strDevName = QN_DeviceName(pHandle->strDevice);
    return true;
}
catch (const std::exception &)
{
    return false;
}

uint32_t QN_Init(tagQN_STORAGE_PARAM_S *pParam, tagQN_HANDLER_S *&pHandle)
{
    if (pHandle != nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    std::unique_ptr<tagQN_HANDLER_S> spHandle(new (std::nothrow) tagQN_HANDLER_S());
    if (spHandle == nullptr || !CopyParam(spHandle.get(), pParam))
    {
        return QN_RET_NO_MEMORY;
    }
    spHandle->pstPrivate = MakeParts(spHandle.get());
    if (spHandle->pstPrivate == nullptr)
    {
        return QN_RET_NO_MEMORY;
    }
    pHandle = spHandle.release();
    (void)QN_EVENT_Init(pHandle); // failures of both show in the log and in the state
    (void)QN_STORAGE_Init(pHandle);
    return QN_RET_OK;
}

int32_t QN_STORAGE_Destroy(tagQN_HANDLER_S *pHandle)
{
    (void)QN_STORAGE_QuotaDestroy(pHandle); // both always 0
    (void)QN_STORAGE_HotplugDestroy(pHandle);
    return 0;
}

static tagQN_RECORD_HANDLER_S *FirstSession(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexRecordList);
    return pHandle->lstRecord.empty() ? nullptr : pHandle->lstRecord.front();
}

// The list is held for a look at its head alone: a destroy waits, and what it waits for may want the list.
static void DestroySessions(tagQN_HANDLER_S *pHandle)
{
    while (tagQN_RECORD_HANDLER_S *pSession = FirstSession(pHandle))
    {
        QN_RECORD_DestroySession(pSession, true);
    }
}

static void CloseReplays(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexReplayList);
    for (tagQN_REPLAY_HANDLER_S *pReplay : pHandle->lstReplay)
    {
        (void)QN_ReplayClose(pReplay, 0); // 0 for every replay that exists
    }
    pHandle->lstReplay.clear();
}

uint32_t QN_Destroy(tagQN_HANDLER_S *&pHandle)
{
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    if (pHandle->stEventThread.bNoThread)
    {
        QN_RING_ShutDown(pHandle); // nobody makes room in the ring: posts are dropped, also those that wait
    }
    UTIL_CALLS_Wait(*pHandle->pstPrivate->pEnds); // destroys and closes that began before
    DestroySessions(pHandle);
    CloseReplays(pHandle);
    QN_FORMAT_Detach(pHandle);
    QN_STORAGE_UnmountAtEnd(pHandle);
    (void)QN_STORAGE_Destroy(pHandle); // both always 0
    (void)QN_EVENT_Destroy(pHandle);
    QN_STORAGE_UnmountLate(pHandle); // a plugged card or the end of a format may have been queued
    QN_RING_WaitForProducers(pHandle);

    FreeParts(pHandle->pstPrivate);
    pthread_cond_destroy(&pHandle->condEvent);
    pthread_mutex_destroy(&pHandle->mutexEvent);
    pthread_mutex_destroy(&pHandle->mutexState);
    pthread_mutex_destroy(&pHandle->mutexRecordList);
    pthread_mutex_destroy(&pHandle->mutexReplayList);
    delete pHandle;
    pHandle = nullptr;
    return QN_RET_OK;
}

} // namespace libquarrin
