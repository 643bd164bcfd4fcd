// Record sessions: made, paused, resumed, stopped, measured.
// Threads: the host's; the event thread in QN_RECORD_StopAll. Locks: a session's stMutex; mutexWriter as a leaf around
// the writer. Not here: starting (start.cpp), destroying (session_destroy.cpp), frames (frame.cpp), finishing
// (finish.cpp).

#include "record/session.h"

#include <exception>
#include <new>

#include <time.h>

#include "libquarrin/naming.h"
#include "storage/card.h"
#include "storage/new_file.h"
#include "storage/volume_folder.h"
#include "util/lock.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

static tagQN_RECORD_HANDLER_S *Allocate()
{
    tagQN_RECORD_HANDLER_S *pSession = new (std::nothrow) tagQN_RECORD_HANDLER_S();
    if (pSession == nullptr)
    {
        return nullptr;
    }
    pSession->pstPrivate = new (std::nothrow) tagQN_RECORD_PRIVATE_S();
    if (pSession->pstPrivate == nullptr)
    {
        delete pSession;
        return nullptr;
    }
    return pSession;
}

// The session's own parameters. False: no memory for the parameter sets.
static bool CopyParam(tagQN_RECORD_HANDLER_S *pSession, const tagQN_RECORD_PARAM_S *pParam)
{
    tagQN_STREAM_PARAM_S &stVideo = pSession->stParam.stVideo;
    pSession->stParam = *pParam;
    if (stVideo.bEnable == 0)
    {
        return true;
    }
    pSession->pstPrivate->bOwnsParameterSets = true;
    stVideo.stSps = QN_BYTES_dup(pParam->stVideo.stSps);
    stVideo.stPps = QN_BYTES_dup(pParam->stVideo.stPps);
    const auto lost = [](const tagQN_BYTES &stSrc, const tagQN_BYTES &stCopy)
    {
        return stSrc.pu8Data != nullptr && stSrc.u32Len != 0 && stCopy.pu8Data == nullptr;
    };
    return !lost(pParam->stVideo.stSps, stVideo.stSps) && !lost(pParam->stVideo.stPps, stVideo.stPps);
}

// False: no memory.
static bool Link(tagQN_HANDLER_S *pHandle, tagQN_RECORD_HANDLER_S *pSession)
try
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexRecordList);
    pSession->pstHandle = pHandle;
    pHandle->lstRecord.push_back(pSession);
    return true;
}
catch (const std::exception &)
{
    return false;
}

static bool IsAccepted(const tagQN_HANDLER_S *pHandle, QN_FILE_FMT_E enFormat)
{
    constexpr const char *FUNC = "QN_RecordInit";
    if (enFormat > QN_FILE_FMT_E_MOV) // Kept: a negative value passes, and records Matroska
    {
        QN_LOG_ERROR_AS(FUNC, "Unsupport file format=%d for init record", static_cast<int>(enFormat));
        return false;
    }
    if (pHandle->astVolume[QN_VOLUME_ID_E_0].bEnable == 0)
    {
        QN_LOG_ERROR_AS(FUNC, "Storage Volume for format=%d not init.", static_cast<int>(enFormat));
        return false;
    }
    return true;
}

uint32_t QN_RecordInit(tagQN_HANDLER_S *pHandle, tagQN_RECORD_PARAM_S *pParam, tagQN_RECORD_HANDLER_S *&pSession)
{
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    if (pParam == nullptr)
    {
        return QN_RET_NULL_PARAM;
    }
    if (pSession != nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    if (pHandle->enState.load() != QN_STATE_E_MOUNTED)
    {
        return QN_RET_STATE;
    }
    tagQN_RECORD_HANDLER_S *pNew = Allocate();
    if (pNew == nullptr)
    {
        return QN_RET_NO_MEMORY;
    }
    if (!IsAccepted(pHandle, pParam->enFormat))
    {
        QN_RECORD_FreeSession(pNew);
        return QN_RET_OK; // Kept: hosts look at the session, which stays null
    }
    pNew->enVolumeId = QN_VOLUME_ID_E_0;
    pNew->pstMediaApi = &qn_media_api_ffmpeg;
    if (!CopyParam(pNew, pParam) || !Link(pHandle, pNew))
    {
        QN_RECORD_FreeSession(pNew);
        return QN_RET_NO_MEMORY;
    }
    pSession = pNew;
    return QN_RET_OK;
}

UTIL_CALL QN_RECORD_BeginCall(const tagQN_RECORD_HANDLER_S *pSession)
{
    if (pSession->pstPrivate == nullptr)
    {
        return UTIL_CALL(nullptr, UTIL_CALL_End);
    }
    return UTIL_CALL_Begin(pSession->pstPrivate->stCalls);
}

std::string QN_RECORD_PathLocked(const tagQN_RECORD_HANDLER_S *pSession, time_t tStart)
{
    const tagQN_HANDLER_S *pHandle = pSession->pstHandle;
    return QN_STORAGE_GenerateRecordingFile(
        pHandle->pszMountPoint.c_str(), pHandle->astVolume[pSession->enVolumeId].pszFolder.c_str(), tStart,
        pSession->strNameTag.c_str(), QN_STORAGE_FmtType2FileExt(pSession->stParam.enFormat));
}

void QN_RECORD_ForgetVideoLocked(tagQN_RECORD_HANDLER_S *pSession)
{
    pSession->pstPrivate->bHasVideo = false;
    pSession->pstPrivate->bAwaitKey = false;
    pSession->pstPrivate->bDamageSaid = false;
}

void *QN_RECORD_OpenWriterLocked(tagQN_RECORD_HANDLER_S *pSession)
{
    // What is merely missing is the writer's to find.
    if (QN_VOLUME_LookAtFolder(pSession->pstHandle, pSession->enVolumeId) == QN_VOLUME_FOLDER_E_REFUSED)
    {
        return nullptr;
    }
    const char *pszPath = pSession->strFilePath.c_str();
    return QN_NEWFILE_MakeWay(pszPath) ? pSession->pstMediaApi->pfnWriteOpen(&pSession->stParam, pszPath) : nullptr;
}

void *QN_RECORD_TakeWriterLocked(tagQN_RECORD_HANDLER_S *pSession)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->pstPrivate->mutexWriter);
    void *pWriter = pSession->pWriter;
    pSession->pWriter = nullptr;
    return pWriter;
}

void QN_RECORD_ReleasePathLocked(tagQN_RECORD_HANDLER_S *pSession)
{
    if (pSession->pstPrivate->bPathClaimed)
    {
        pSession->pstPrivate->bPathClaimed = false;
        QN_CARD_Release(pSession->pstHandle, pSession->strFilePath);
    }
}

void QN_RECORD_StopAll(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK list = UTIL_LOCK_Scoped(pHandle->mutexRecordList);
    for (tagQN_RECORD_HANDLER_S *pSession : pHandle->lstRecord)
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->stMutex);
        pSession->enRecordState = QN_RECORD_STATE_STOPPING;
    }
}

uint32_t QN_RecordPause(tagQN_RECORD_HANDLER_S *pSession)
{
    if (pSession == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_CALL call = QN_RECORD_BeginCall(pSession);
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->stMutex);
    const QN_RECORD_STATE_E enState = pSession->enRecordState.load();
    if (enState != QN_RECORD_STATE_WAIT_KEY && enState != QN_RECORD_STATE_RUNNING)
    {
        return QN_RET_STATE;
    }
    pSession->enRecordState = QN_RECORD_STATE_PAUSED;
    // Kept: before the first key frame tRunStart is 0, so the whole time since 1970 counts, and the next file begins
    // with the first key frame after the resume.
    pSession->u32RunSeconds += static_cast<uint32_t>(time(nullptr) - pSession->tRunStart);
    return QN_RET_OK;
}

uint32_t QN_RecordResume(tagQN_RECORD_HANDLER_S *pSession)
{
    if (pSession == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_CALL call = QN_RECORD_BeginCall(pSession);
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->stMutex);
    if (pSession->enRecordState.load() != QN_RECORD_STATE_PAUSED)
    {
        return QN_RET_STATE;
    }
    pSession->enRecordState = QN_RECORD_STATE_RESUMED;
    return QN_RET_OK;
}

uint32_t QN_RecordStopNoLock(tagQN_RECORD_HANDLER_S *pSession, tagBU_BOOL bLock)
{
    if (pSession == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_CALL call = QN_RECORD_BeginCall(pSession);
    UTIL_LOCK lock(nullptr, pthread_mutex_unlock);
    if (bLock != 0)
    {
        lock = UTIL_LOCK_Scoped(pSession->stMutex);
    }
    pSession->pstPrivate->u32Stops += 1; // ends a start that is under way
    pSession->enRecordState = QN_RECORD_STATE_STOPPING;
    void *pWriter = QN_RECORD_TakeWriterLocked(pSession);
    if (pWriter != nullptr)
    {
        (void)QN_RecordClosePostProcess(pSession, pWriter, pSession->strFilePath, pSession->tFileStart,
                                        time(nullptr)); // 0 for every writer that exists
    }
    QN_RECORD_ReleasePathLocked(pSession);
    pSession->enRecordState = QN_RECORD_STATE_IDLE;
    return QN_RET_OK;
}

uint32_t QN_RecordStop(tagQN_RECORD_HANDLER_S *pSession)
{
    return QN_RecordStopNoLock(pSession, 1);
}

int64_t QN_REcordGetWriteBytes(tagQN_RECORD_HANDLER_S *pSession)
{
    if (pSession == nullptr)
    {
        return -1;
    }
    const UTIL_CALL call = QN_RECORD_BeginCall(pSession);
    if (pSession->pstMediaApi->pfnGetWriteBytes == nullptr)
    {
        return -1;
    }
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->pstPrivate->mutexWriter);
    return pSession->pWriter == nullptr ? -1 : pSession->pstMediaApi->pfnGetWriteBytes(pSession->pWriter);
}

} // namespace libquarrin
