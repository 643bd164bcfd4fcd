// Finishing of files: the writer is closed, the file is removed or gets its final name.
// Threads: the host's for a stop, the event thread's for a split. Locks: none taken; a stop comes with stMutex held.

#include "record/finish.h"

#include <cstdio>
#include <ctime>

#include <sys/stat.h>

#include "libquarrin/naming.h"
#include "record/session.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

constexpr double SHORTEST_SECONDS = 5.0;

/// Everything that finishing reads of a session and its handle.
struct tagQN_FINISH_S
{
    const char *pszFunc; ///< name in the printed lines
    const tagQN_MEDIA_API_S *pstMediaApi;
    std::string strMountPoint;
    std::string strFolder;
    std::string strNameTag;
    const char *pszExt;
    bool bPathTaken; ///< the path belongs to another file already: QN_FINISH_MakeWay has moved this one
};

static tagQN_FINISH_S CopyOf(const tagQN_RECORD_HANDLER_S *pSession, const char *pszFunc,
                             const tagQN_MEDIA_API_S *pstMediaApi, const std::string &strNameTag)
{
    const tagQN_HANDLER_S *pHandle = pSession->pstHandle;
    return {pszFunc,
            pstMediaApi,
            pHandle->pszMountPoint,
            pHandle->astVolume[pSession->enVolumeId].pszFolder,
            strNameTag,
            QN_STORAGE_FmtType2FileExt(pSession->stParam.enFormat),
            false};
}

static bool IsEmpty(const std::string &strPath)
{
    struct stat stStat = {};
    return stat(strPath.c_str(), &stStat) == 0 && stStat.st_size == 0;
}

static bool IsTooShort(time_t tStart, time_t tEnd)
{
    return difftime(tEnd, tStart) < SHORTEST_SECONDS;
}

static std::string FinalPath(const tagQN_FINISH_S &stFinish, time_t tStart, time_t tEnd)
{
    return QN_STORAGE_GenerateRecordFile(stFinish.strMountPoint.c_str(), stFinish.strFolder.c_str(), tStart, tEnd,
                                         stFinish.strNameTag.c_str(), stFinish.pszExt);
}

static uint32_t Finish(const tagQN_FINISH_S &stFinish, void *pWriter, const std::string &strPath, time_t tStart,
                       time_t tEnd)
{
    if (stFinish.pstMediaApi->pfnWriteClose != nullptr)
    {
        (void)stFinish.pstMediaApi->pfnWriteClose(pWriter); // what is on the card by now is all there is
    }
    if (IsTooShort(tStart, tEnd))
    {
        if (!stFinish.bPathTaken)
        {
            (void)remove(strPath.c_str()); // a file that is gone already is gone
        }
        QN_TRACE("[%s:%d] remove %s ,time is less 5s\n", stFinish.pszFunc, __LINE__, strPath.c_str());
        return QN_RET_OK;
    }
    const std::string strFinal = FinalPath(stFinish, tStart, tEnd);
    const std::string &strPresent = stFinish.bPathTaken ? strFinal : strPath;
    if (IsEmpty(strPresent))
    {
        (void)remove(strPresent.c_str());
        QN_TRACE("[%s:%d] remove %s ,size is zero\n", stFinish.pszFunc, __LINE__, strPath.c_str());
        return QN_RET_OK;
    }
    if (!stFinish.bPathTaken)
    {
        (void)rename(strPath.c_str(), strFinal.c_str()); // a file that stays keeps its in-progress name, and is listed
    }
    QN_TRACE("[%s:%d] rename %s -> %s\n", stFinish.pszFunc, __LINE__, strPath.c_str(), strFinal.c_str());
    return QN_RET_OK;
}

uint32_t QN_RecordClosePostProcess(tagQN_RECORD_HANDLER_S *pSession, void *pWriter, const std::string &strFilePath,
                                   time_t tStart, time_t tEnd)
{
    if (pWriter == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_CALL call = QN_RECORD_BeginCall(pSession);
    return Finish(CopyOf(pSession, __func__, pSession->pstMediaApi, pSession->strNameTag), pWriter, strFilePath, tStart,
                  tEnd);
}

uint32_t QN_RecordClosePostProcessAync(tagQN_RECORD_HANDLER_S *pSession, void *pWriter, const std::string &strFilePath,
                                       time_t tStart, time_t tEnd)
{
    if (pWriter == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_CALL call = QN_RECORD_BeginCall(pSession);
    const std::string strPath = strFilePath; // a private copy, as of all the rest
    return Finish(CopyOf(pSession, __func__, pSession->pstMediaApi, pSession->strNameTag), pWriter, strPath, tStart,
                  tEnd);
}

// What finishing reads for a split event. An event of the library's brings its own tag: a session that was stopped
// meanwhile may just be getting another one for its next start.
static tagQN_FINISH_S CopyOfEvent(const tagQN_AUTO_SPLIT_EVENT_S &stEvent)
{
    const tagQN_RECORD_HANDLER_S *pSession = stEvent.pstRecord;
    const bool bOwn = stEvent.pstMediaApi != nullptr;
    tagQN_FINISH_S stFinish =
        CopyOf(pSession, "QN_RecordClosePostProcess", bOwn ? stEvent.pstMediaApi : pSession->pstMediaApi,
               bOwn ? stEvent.strNameTag : pSession->strNameTag);
    stFinish.bPathTaken = stEvent.bPathTaken;
    return stFinish;
}

void QN_FINISH_MakeWay(const tagQN_AUTO_SPLIT_EVENT_S &stEvent)
{
    if (IsTooShort(stEvent.tStart, stEvent.tEnd))
    {
        (void)remove(stEvent.strFilePath.c_str());
        return;
    }
    const std::string strFinal = FinalPath(CopyOfEvent(stEvent), stEvent.tStart, stEvent.tEnd);
    (void)rename(stEvent.strFilePath.c_str(), strFinal.c_str());
}

uint32_t QN_FINISH_SplitFile(const tagQN_AUTO_SPLIT_EVENT_S &stEvent)
{
    if (stEvent.pWriter == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    return Finish(CopyOfEvent(stEvent), stEvent.pWriter, stEvent.strFilePath, stEvent.tStart, stEvent.tEnd);
}

} // namespace libquarrin
