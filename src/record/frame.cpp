// The road of one frame: state and key-frame filter, split, write, quota event.
// Threads: the host's, any number per session. Locks: stMutex, then mutexWriter around the writer; both are let go of
// while the call waits for ring room, since the hot-unplug handler that would make room wants stMutex.

#include <ctime>
#include <exception>
#include <memory>
#include <string>

#include "media/h265_sps.h"
#include "record/finish.h"
#include "record/session.h"
#include "record/split_files.h"
#include "ring/ring.h"
#include "storage/card.h"
#include "storage/quota.h"
#include "util/lock.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

/// One call of the host.
struct tagQN_FRAME_S
{
    const unsigned char *pu8Data;
    uint32_t u32Len;
    uint64_t u64Pts;
    bool bKey;
    tagBU_BOOL bVideo; ///< as given: it is printed
    bool bAnnounced;   ///< the split line of this call was printed
};

enum QN_SPLIT_E : int32_t
{
    QN_SPLIT_E_DONE,      ///< the frame belongs to a new file
    QN_SPLIT_E_NOT_NOW,   ///< the new name is taken, or there is no memory: the next key frame tries again
    QN_SPLIT_E_RING_FULL, ///< nothing was done
};

// A file begins with a video key frame, or with an audio frame marked key in a session without video.
static bool MayBeginFile(const tagQN_RECORD_HANDLER_S *pSession, const tagQN_FRAME_S &stFrame)
{
    return stFrame.bKey && (pSession->stParam.stVideo.bEnable == 0 || stFrame.bVideo != 0);
}

// The parameter sets of a file may come from its first frame of video, and they may be damaged: the file begins with
// the next sound key frame then. The writer would leave the frame out as well; here a split waits too.
static bool MayBeginVideoLocked(tagQN_RECORD_HANDLER_S *pSession, const tagQN_FRAME_S &stFrame)
{
    if (stFrame.bVideo == 0 || FFWRITE_MayBeginVideo(&pSession->stParam, stFrame.pu8Data, stFrame.u32Len))
    {
        return true;
    }
    if (!pSession->pstPrivate->bDamageSaid) // once for each file
    {
        pSession->pstPrivate->bDamageSaid = true;
        QN_LOG_WARN_AS("QN_RecordWriteFrame", "H.265 parameter sets are damaged, waiting for the next key frame");
    }
    return false;
}

// Before the current file has video. False: the frame is dropped.
static bool IsSoundLocked(tagQN_RECORD_HANDLER_S *pSession, const tagQN_FRAME_S &stFrame)
{
    tagQN_RECORD_PRIVATE_S *pPrivate = pSession->pstPrivate;
    if (pPrivate->bHasVideo)
    {
        return true;
    }
    if (!MayBeginVideoLocked(pSession, stFrame))
    {
        pPrivate->bAwaitKey = true;
        return false;
    }
    pPrivate->bAwaitKey = pPrivate->bAwaitKey && !MayBeginFile(pSession, stFrame);
    return !pPrivate->bAwaitKey;
}

// False: the frame is dropped. An awaited key frame sets the session running.
static bool AcceptLocked(tagQN_RECORD_HANDLER_S *pSession, const tagQN_FRAME_S &stFrame, time_t tNow)
{
    switch (pSession->enRecordState.load())
    {
    case QN_RECORD_STATE_RUNNING:
        return IsSoundLocked(pSession, stFrame);
    case QN_RECORD_STATE_WAIT_KEY:
    case QN_RECORD_STATE_RESUMED:
        if (!MayBeginFile(pSession, stFrame) || !IsSoundLocked(pSession, stFrame))
        {
            return false;
        }
        pSession->tRunStart = tNow;
        pSession->enRecordState = QN_RECORD_STATE_RUNNING;
        return true;
    default:
        return false;
    }
}

static bool IsSplitDueLocked(tagQN_RECORD_HANDLER_S *pSession, const tagQN_FRAME_S &stFrame, time_t tNow)
{
    const uint32_t u32Seconds = static_cast<uint32_t>(tNow - pSession->tRunStart) + pSession->u32RunSeconds;
    return pSession->stParam.bAutoSplit != 0 && u32Seconds >= pSession->stParam.u32SplitSeconds &&
           MayBeginFile(pSession, stFrame) && MayBeginVideoLocked(pSession, stFrame);
}

/// What a split needs of memory: all of it is taken before anything is done.
struct tagQN_SPLIT_S
{
    std::string strNewPath;
    bool bSamePath = false;
    QN_SPLIT_NODE lstEvent;
    std::string strFinal; ///< of the old file, when the new one takes its name
};

static void FillEventLocked(const tagQN_RECORD_HANDLER_S *pSession, time_t tNow, bool bSamePath,
                            tagQN_AUTO_SPLIT_EVENT_S &stEvent)
{
    stEvent.strFilePath = pSession->strFilePath;
    stEvent.tStart = pSession->tFileStart;
    stEvent.tEnd = tNow;
    stEvent.bPathTaken = bSamePath;
    stEvent.bPathClaimed = pSession->pstPrivate->bPathClaimed && !bSamePath;
    stEvent.pstMediaApi = pSession->pstMediaApi;
    stEvent.strNameTag = pSession->strNameTag;
}

// Claims the new name, if it is another one. False: somebody has it, or there is no memory.
static bool PlanSplitLocked(tagQN_RECORD_HANDLER_S *pSession, time_t tNow, tagQN_SPLIT_S &stSplit)
try
{
    stSplit.strNewPath = QN_RECORD_PathLocked(pSession, tNow);
    stSplit.bSamePath = stSplit.strNewPath == pSession->strFilePath;
    const auto spEvent = std::make_shared<tagQN_AUTO_SPLIT_EVENT_S>();
    spEvent->pstRecord = pSession;
    FillEventLocked(pSession, tNow, stSplit.bSamePath, *spEvent);
    stSplit.lstEvent.push_back(spEvent);
    if (stSplit.bSamePath)
    {
        stSplit.strFinal = QN_FINISH_FinalPath(*spEvent);
        return !stSplit.strFinal.empty();
    }
    return !stSplit.strNewPath.empty() && QN_CARD_Claim(pSession->pstHandle, stSplit.strNewPath);
}
catch (const std::exception &)
{
    return false;
}

static void AnnounceSplit(tagQN_FRAME_S &stFrame)
{
    if (!stFrame.bAnnounced)
    {
        stFrame.bAnnounced = true;
        QN_TRACE("[%s:%d] split before pts=%lld len=%d bVideo=%d\n", "QN_RecordWriteFrame", __LINE__,
                 static_cast<long long>(stFrame.u64Pts), static_cast<int>(stFrame.u32Len),
                 static_cast<int>(stFrame.bVideo));
    }
}

// Hands the old writer to the event and opens the next file. Locks held: stMutex.
static bool SwapFilesLocked(tagQN_RECORD_HANDLER_S *pSession, time_t tNow, tagQN_SPLIT_S &stSplit)
{
    // From the post on the old writer is not ours: nobody may ask it for its bytes.
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->pstPrivate->mutexWriter);
    const std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> spEvent = stSplit.lstEvent.front();
    spEvent->pWriter = pSession->pWriter;
    QN_SPLIT_Add(pSession->pstHandle, stSplit.lstEvent);
    if (!QN_RING_TryPush(pSession->pstHandle, QN_EVENT_E_RECORD_AUTO_SPLIT, spEvent))
    {
        QN_SPLIT_Remove(pSession->pstHandle, spEvent);
        return false;
    }
    if (stSplit.bSamePath)
    {
        // The old file ends in the second of its begin, as a rule, and is too short to be kept; but the times are
        // public.
        QN_FINISH_MakeWay(*spEvent, stSplit.strFinal);
    }
    pSession->tFileStart = tNow;
    pSession->tRunStart = tNow;
    pSession->u32RunSeconds = 0;
    pSession->strFilePath.swap(stSplit.strNewPath);
    pSession->pstPrivate->bPathClaimed = true;
    QN_RECORD_ForgetVideoLocked(pSession);
    // Kept: a file that cannot be opened is not reported; its frames are lost until the next split.
    pSession->pWriter = QN_RECORD_OpenWriterLocked(pSession);
    return true;
}

static QN_SPLIT_E SplitLocked(tagQN_RECORD_HANDLER_S *pSession, tagQN_FRAME_S &stFrame, time_t tNow)
{
    tagQN_HANDLER_S *pHandle = pSession->pstHandle;
    if (!QN_RING_HasRoom(pHandle))
    {
        return QN_SPLIT_E_RING_FULL;
    }
    tagQN_SPLIT_S stSplit;
    if (!PlanSplitLocked(pSession, tNow, stSplit))
    {
        return QN_SPLIT_E_NOT_NOW;
    }
    AnnounceSplit(stFrame);
    if (!SwapFilesLocked(pSession, tNow, stSplit))
    {
        if (!stSplit.bSamePath)
        {
            QN_CARD_Release(pHandle, stSplit.strNewPath);
        }
        return QN_SPLIT_E_RING_FULL;
    }
    return QN_SPLIT_E_DONE;
}

// Lets go of the session until the ring has room. A destroy meanwhile waits for this call, as for all.
static void WaitForRoom(tagQN_RECORD_HANDLER_S *pSession, UTIL_LOCK &lock)
{
    lock.reset();
    QN_RING_WaitForRoom(pSession->pstHandle);
    lock = UTIL_LOCK_Scoped(pSession->stMutex);
}

static void WriteLocked(tagQN_RECORD_HANDLER_S *pSession, const tagQN_FRAME_S &stFrame)
{
    if (stFrame.bVideo != 0 && !pSession->pstPrivate->bHasVideo)
    {
        pSession->pstPrivate->bHasVideo = true;
        pSession->pstPrivate->bDamageSaid = false; // a next line is about the next file
    }
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->pstPrivate->mutexWriter);
    (void)pSession->pstMediaApi->pfnWriteFrame(pSession->pWriter, stFrame.pu8Data, stFrame.u32Len, stFrame.u64Pts,
                                               stFrame.bKey, stFrame.bVideo != 0); // shows in the bytes and the state
}

uint32_t QN_RecordWriteFrame(tagQN_RECORD_HANDLER_S *pSession, unsigned char *pu8Data, uint32_t u32Len, uint64_t u64Pts,
                             tagBU_BOOL bKey, tagBU_BOOL bVideo)
{
    if (pSession == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    if (pu8Data == nullptr)
    {
        return QN_RET_NULL_PARAM;
    }
    const UTIL_CALL call = QN_RECORD_BeginCall(pSession);
    tagQN_HANDLER_S *pHandle = pSession->pstHandle;
    const std::shared_ptr<void> spVolume = QN_QUOTA_MakePayload(pSession->enVolumeId);
    if (spVolume == nullptr)
    {
        return QN_RET_OK; // a frame that there is no memory for is dropped before it begins or splits anything
    }
    tagQN_FRAME_S stFrame = {pu8Data, u32Len, u64Pts, bKey != 0, bVideo, false};
    time_t tNow = time(nullptr);
    UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->stMutex);
    for (;;)
    {
        if (!AcceptLocked(pSession, stFrame, tNow) || pHandle->enStorageState.load() == QN_STORAGE_STATE_E_FULL)
        {
            return QN_RET_OK;
        }
        if (!IsSplitDueLocked(pSession, stFrame, tNow) || SplitLocked(pSession, stFrame, tNow) != QN_SPLIT_E_RING_FULL)
        {
            break;
        }
        WaitForRoom(pSession, lock);
        tNow = time(nullptr); // state, writer and split are looked at anew
    }
    WriteLocked(pSession, stFrame);
    QN_RING_PushUnlocking(pHandle, QN_EVENT_E_QUOTA_THROTTLE, spVolume, lock);
    if (!QN_RING_HasTaker(pHandle))
    {
        lock.reset();
        QN_SPLIT_FinishAll(pHandle, pSession); // nobody else will, before the session is destroyed
    }
    return QN_RET_OK;
}

} // namespace libquarrin
