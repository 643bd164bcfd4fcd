// Finishing of files: the writer is closed, the file is removed or gets its final name.
// Threads: the host's for a stop, the event thread's for a split. Locks: none taken; a stop comes with stMutex held.

#include "record/finish.h"

#include <cstdio>
#include <ctime>
#include <exception>

#include <sys/stat.h>

#include "libquarrin/naming.h"
#include "record/session.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

constexpr double SHORTEST_SECONDS = 5.0;

/// What finishing knows of a file before its writer is closed, so that memory which is missing then can cost the file
/// its final name at most.
struct tagQN_FINISH_S
{
    const char *pszFunc; ///< name in the printed lines
    const tagQN_MEDIA_API_S *pstMediaApi;
    std::string strFinal; ///< empty: no memory, and the file keeps its in-progress name
    time_t tStart;
    time_t tEnd;
    bool bPathTaken; ///< the path belongs to another file already: QN_FINISH_MakeWay has moved this one
};

static std::string FinalPath(const tagQN_RECORD_HANDLER_S *pSession, const std::string &strNameTag, time_t tStart,
                             time_t tEnd)
{
    const tagQN_HANDLER_S *pHandle = pSession->pstHandle;
    return QN_STORAGE_GenerateRecordFile(pHandle->pszMountPoint.c_str(),
                                         pHandle->astVolume[pSession->enVolumeId].pszFolder.c_str(), tStart, tEnd,
                                         strNameTag.c_str(), QN_STORAGE_FmtType2FileExt(pSession->stParam.enFormat));
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

static uint32_t Finish(const tagQN_FINISH_S &stFinish, void *pWriter, const std::string &strPath)
{
    if (stFinish.pstMediaApi->pfnWriteClose != nullptr)
    {
        (void)stFinish.pstMediaApi->pfnWriteClose(pWriter); // what is on the card by now is all there is
    }
    if (IsTooShort(stFinish.tStart, stFinish.tEnd))
    {
        if (!stFinish.bPathTaken)
        {
            (void)remove(strPath.c_str()); // a file that is gone already is gone
        }
        QN_TRACE("[%s:%d] remove %s ,time is less 5s\n", stFinish.pszFunc, __LINE__, strPath.c_str());
        return QN_RET_OK;
    }
    const std::string &strPresent = stFinish.bPathTaken ? stFinish.strFinal : strPath;
    if (IsEmpty(strPresent))
    {
        (void)remove(strPresent.c_str());
        QN_TRACE("[%s:%d] remove %s ,size is zero\n", stFinish.pszFunc, __LINE__, strPath.c_str());
        return QN_RET_OK;
    }
    if (stFinish.strFinal.empty())
    {
        QN_LOG_ERROR_AS(stFinish.pszFunc, "no memory for the final name of %s", strPath.c_str());
        return QN_RET_OK;
    }
    if (!stFinish.bPathTaken)
    {
        (void)rename(strPath.c_str(),
                     stFinish.strFinal.c_str()); // a file that stays keeps its in-progress name, and is listed
    }
    QN_TRACE("[%s:%d] rename %s -> %s\n", stFinish.pszFunc, __LINE__, strPath.c_str(), stFinish.strFinal.c_str());
    return QN_RET_OK;
}

static uint32_t FinishOfHost(tagQN_RECORD_HANDLER_S *pSession, const char *pszFunc, void *pWriter,
                             const std::string &strPath, time_t tStart, time_t tEnd)
{
    if (pWriter == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_CALL call = QN_RECORD_BeginCall(pSession);
    return Finish(
        {pszFunc, pSession->pstMediaApi, FinalPath(pSession, pSession->strNameTag, tStart, tEnd), tStart, tEnd, false},
        pWriter, strPath);
}

uint32_t QN_RecordClosePostProcess(tagQN_RECORD_HANDLER_S *pSession, void *pWriter, const std::string &strFilePath,
                                   time_t tStart, time_t tEnd)
{
    return FinishOfHost(pSession, __func__, pWriter, strFilePath, tStart, tEnd);
}

uint32_t QN_RecordClosePostProcessAync(tagQN_RECORD_HANDLER_S *pSession, void *pWriter, const std::string &strFilePath,
                                       time_t tStart, time_t tEnd)
{
    std::string strPath; // a private copy, as of all the rest
    try
    {
        strPath = strFilePath;
    }
    catch (const std::exception &)
    {
        return FinishOfHost(pSession, __func__, pWriter, strFilePath, tStart, tEnd);
    }
    return FinishOfHost(pSession, __func__, pWriter, strPath, tStart, tEnd);
}

// An event of the library's brings its own tag: a session that was stopped meanwhile may just be getting another one
// for its next start.
std::string QN_FINISH_FinalPath(const tagQN_AUTO_SPLIT_EVENT_S &stEvent)
{
    const std::string &strNameTag = stEvent.pstMediaApi != nullptr ? stEvent.strNameTag : stEvent.pstRecord->strNameTag;
    return FinalPath(stEvent.pstRecord, strNameTag, stEvent.tStart, stEvent.tEnd);
}

void QN_FINISH_MakeWay(const tagQN_AUTO_SPLIT_EVENT_S &stEvent, const std::string &strFinal)
{
    if (IsTooShort(stEvent.tStart, stEvent.tEnd))
    {
        (void)remove(stEvent.strFilePath.c_str());
        return;
    }
    (void)rename(stEvent.strFilePath.c_str(), strFinal.c_str());
}

uint32_t QN_FINISH_SplitFile(const tagQN_AUTO_SPLIT_EVENT_S &stEvent)
{
    if (stEvent.pWriter == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const tagQN_MEDIA_API_S *pstMediaApi =
        stEvent.pstMediaApi != nullptr ? stEvent.pstMediaApi : stEvent.pstRecord->pstMediaApi;
    return Finish({"QN_RecordClosePostProcess", pstMediaApi, QN_FINISH_FinalPath(stEvent), stEvent.tStart, stEvent.tEnd,
                   stEvent.bPathTaken},
                  stEvent.pWriter, stEvent.strFilePath);
}

} // namespace libquarrin
