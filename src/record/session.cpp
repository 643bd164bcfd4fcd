// Record sessions: made, started, paused, resumed, stopped, measured.
// Threads: the host's. Locks: a session's stMutex; the card gate, shared, around a start; mutexWriter as a leaf around
// the writer. Not here: destroying (session_destroy.cpp), frames (frame.cpp), finishing files (finish.cpp).

#include "record/session.h"

#include <exception>
#include <new>

#include <time.h>

#include "libquarrin/naming.h"
#include "ring/handle_private.h"
#include "storage/new_file.h"
#include "storage/volume_folder.h"
#include "storage/writing_files.h"
#include "util/lock.h"
#include "util/log.h"
#include "util/pause.h"
#include "util/results.h"

namespace libquarrin
{

// A start whose name is taken waits for the next second; a clock that stands still must not hold it for good.
constexpr useconds_t NAME_PAUSE_US = 10000;
constexpr int64_t STANDING_US = 3000000;

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

static void ReleasePathLocked(tagQN_RECORD_HANDLER_S *pSession)
{
    if (pSession->pstPrivate->bPathClaimed)
    {
        pSession->pstPrivate->bPathClaimed = false;
        QN_WRITING_Release(pSession->pstHandle, pSession->strFilePath);
    }
}

// Opens the first file under the name that the caller has claimed. Locks held: card gate, stMutex.
static uint32_t OpenFirstFileLocked(tagQN_RECORD_HANDLER_S *pSession)
{
    QN_RECORD_ForgetVideoLocked(pSession);
    void *pWriter = QN_RECORD_OpenWriterLocked(pSession);
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->pstPrivate->mutexWriter);
        pSession->pWriter = pWriter;
    }
    if (pWriter == nullptr)
    {
        ReleasePathLocked(pSession);
        return QN_RET_OPEN;
    }
    pSession->enRecordState = QN_RECORD_STATE_WAIT_KEY;
    QN_LOG_INFO_AS("QN_RecordStart", "record start");
    return QN_RET_OK;
}

/// One call of QN_RecordStart.
struct tagQN_START_S
{
    const char *pszNameTag;
    uint32_t u32Stops;  ///< of the session, before the call began
    bool bFirstTry;     ///< the name was not tried yet
    time_t tTried;      ///< second of the latest try
    int64_t s64SinceUs; ///< when this second was first seen, CLOCK_MONOTONIC
};

static bool IsMounted(const tagQN_RECORD_HANDLER_S *pSession)
{
    if (pSession->pstHandle->enState.load() != QN_STATE_E_MOUNTED)
    {
        QN_LOG_ERROR_AS("QN_RecordStart", "Cannot start record, storage is not mounted");
        return false;
    }
    return true;
}

// One try at a start. False: another file in progress has the name of this second.
static bool TryStart(tagQN_RECORD_HANDLER_S *pSession, tagQN_START_S &stStart, uint32_t &u32Result)
{
    tagQN_HANDLER_S *pHandle = pSession->pstHandle;
    // The gate: nobody opens a file on a card whose unmount has begun.
    const UTIL_RWLOCK card = UTIL_LOCK_Shared(pHandle->pstPrivate->rwCard);
    u32Result = QN_RET_STATE;
    if (!IsMounted(pSession))
    {
        return true;
    }
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->stMutex);
    // Stopped meanwhile, or pulled: a start never begins to record after a stop has returned.
    if (pSession->enRecordState.load() != QN_RECORD_STATE_IDLE || pSession->pstPrivate->u32Stops != stStart.u32Stops)
    {
        return true;
    }
    if (stStart.bFirstTry)
    {
        QN_LOG_INFO_AS("QN_RecordStart", "record opening...");
        stStart.bFirstTry = false;
    }
    ReleasePathLocked(pSession);
    stStart.tTried = time(nullptr);
    pSession->tFileStart = stStart.tTried;
    pSession->tRunStart = 0;
    pSession->u32RunSeconds = 0;
    pSession->strNameTag = stStart.pszNameTag == nullptr ? "" : stStart.pszNameTag;
    pSession->strFilePath = QN_RECORD_PathLocked(pSession, pSession->tFileStart);
    if (pSession->strFilePath.empty())
    {
        u32Result = QN_RET_NO_MEMORY;
        return true;
    }
    if (!QN_WRITING_Claim(pHandle, pSession->strFilePath))
    {
        return false;
    }
    pSession->pstPrivate->bPathClaimed = true;
    u32Result = OpenFirstFileLocked(pSession);
    return true;
}

// Tries until a second is the session's own. One that many want may take a while; only a clock that stands still does
// not bring another.
static uint32_t StartInItsSecond(tagQN_RECORD_HANDLER_S *pSession, tagQN_START_S &stStart)
{
    uint32_t u32Result = QN_RET_OK;
    time_t tBefore = 0;
    while (!TryStart(pSession, stStart, u32Result))
    {
        const int64_t s64NowUs = UTIL_NowUs();
        if (stStart.s64SinceUs == 0 || stStart.tTried != tBefore)
        {
            stStart.s64SinceUs = s64NowUs;
        }
        tBefore = stStart.tTried;
        if (s64NowUs - stStart.s64SinceUs >= STANDING_US)
        {
            QN_LOG_ERROR_AS("QN_RecordStart",
                            "another recording has the name of this second, and the clock stands still");
            return QN_RET_OPEN;
        }
        UTIL_Pause(NAME_PAUSE_US); // holding no lock
    }
    return u32Result;
}

uint32_t QN_RecordStart(tagQN_RECORD_HANDLER_S *pSession, const char *pszNameTag)
try
{
    if (pSession == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    tagQN_RECORD_PRIVATE_S *pPrivate = pSession->pstPrivate;
    // Before the call counts, so that it sees every stop and destroy that does not see it.
    tagQN_START_S stStart = {pszNameTag, pPrivate->u32Stops.load(), true, 0, 0};
    const UTIL_CALL call = QN_RECORD_BeginCall(pSession);
    if (!IsMounted(pSession))
    {
        return QN_RET_STATE;
    }
    // A busy session is told so without a wait for the card.
    if (pSession->enRecordState.load() != QN_RECORD_STATE_IDLE || pPrivate->bStarting.exchange(true))
    {
        return QN_RET_STATE;
    }
    const std::unique_ptr<std::atomic<bool>, void (*)(std::atomic<bool> *)> starting(
        &pPrivate->bStarting, [](std::atomic<bool> *pStarting) { *pStarting = false; });
    return StartInItsSecond(pSession, stStart);
}
catch (const std::exception &)
{
    return QN_RET_NO_MEMORY; // before a name was claimed
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
    ReleasePathLocked(pSession);
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
