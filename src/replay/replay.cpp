// Replay: lists a volume, opens a file and keeps it in the handle's list; reads, seeks and closes.
// Threads: the host's. Locks: mutexReplay around the reader, mutexReplayList around the list, one after the other (a
// hot-unplug nests them the other way round); the card gate, shared, while a folder is walked or a file is opened.

#include "replay/replay.h"

#include <cstdio>
#include <exception>
#include <list>
#include <memory>
#include <new>
#include <utility>

#include <unistd.h>

#include "libquarrin/naming.h"
#include "media/frame_out.h"
#include "replay/frames_out.h"
#include "ring/handle_private.h"
#include "storage/card.h"
#include "storage/scan_folder.h"
#include "storage/volume_folder.h"
#include "util/calls.h"
#include "util/lock.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

/// A replay with what hosts do not see.
struct tagQN_REPLAY_PRIVATE_S : tagQN_REPLAY_HANDLER_S
{
    UTIL_CALLS_S stCalls; ///< every call on the replay; QN_ReplayClose waits for them
};

// Every replay was made by OpenGated.
static tagQN_REPLAY_PRIVATE_S *PrivateOf(tagQN_REPLAY_HANDLER_S *pReplayHandler)
{
    return static_cast<tagQN_REPLAY_PRIVATE_S *>(pReplayHandler);
}

// Null handle and mount state, logged under the caller's name. Call it with the card gate held.
static uint32_t CheckMounted(const tagQN_HANDLER_S *pHandle, const char *pszFunc)
{
    const QN_STATE_E enState = pHandle->enState.load();
    if (enState != QN_STATE_E_MOUNTED)
    {
        QN_LOG_ERROR_AS(pszFunc, "storage not mounted, state=%d", static_cast<int>(enState));
        return QN_RET_STATE;
    }
    return QN_RET_OK;
}

uint32_t QN_ReplayListFile(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, std::vector<tagQN_FILE_INFO_S> *pvecFiles)
try
{
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_RWLOCK card = QN_CARD_Enter(pHandle);
    if (CheckMounted(pHandle, __func__) != QN_RET_OK)
    {
        return QN_RET_STATE;
    }
    if (enVolume < QN_VOLUME_ID_E_0 || enVolume > QN_VOLUME_ID_E_2 || pHandle->astVolume[enVolume].bEnable == 0)
    {
        QN_LOG_ERROR("volume %d not enabled", static_cast<int>(enVolume));
        return QN_RET_STATE;
    }
    UTIL_FD folder;
    switch (QN_VOLUME_OpenFolder(pHandle, enVolume, folder))
    {
    case QN_VOLUME_FOLDER_E_GOOD:
        break;
    case QN_VOLUME_FOLDER_E_MISSING:
        return QN_RET_OK; // Kept: no folder, no files
    case QN_VOLUME_FOLDER_E_REFUSED:
        return QN_RET_OPEN; // as a file that is not there: an empty list would look like an empty card
    }
    return static_cast<uint32_t>(
        QN_CATALOGUE_ScanOpen(std::move(folder), QN_VOLUME_Path(pHandle, enVolume).c_str(), *pvecFiles));
}
catch (const std::exception &)
{
    return QN_RET_NO_MEMORY;
}

// The back end that reads a container; null when there is none.
static const tagQN_MEDIA_API_S *ChooseApi(QN_FILE_FMT_E enFormat)
{
    switch (static_cast<int32_t>(enFormat))
    {
    case QN_FILE_FMT_E_MKV:
    case QN_FILE_FMT_E_TS:
    case QN_FILE_FMT_E_MP4:
    case QN_FILE_FMT_E_MOV:
    case QN_FILE_FMT_E_AAC:
        return &qn_media_api_ffmpeg;
    case 4: // kept free, of the WAV family
    case QN_FILE_FMT_E_WAV:
    case QN_FILE_FMT_E_WAV_PREALLOC:
        return &qn_media_api_wav;
    default:
        return nullptr;
    }
}

// Opens the reader of a new replay; false when there is none to be had.
static bool OpenReader(tagQN_REPLAY_HANDLER_S *pReplay, QN_FILE_FMT_E enFormat)
{
    if (pReplay->pstMediaApi->pfnReadOpen == nullptr)
    {
        return false; // a back end that only writes
    }
    pReplay->pReader =
        pReplay->pstMediaApi->pfnReadOpen(&pReplay->stParam, pReplay->stFileInfo.strPath.c_str(), enFormat);
    return pReplay->pReader != nullptr;
}

// The open calls, with the card gate held.
static uint32_t OpenGated(tagQN_HANDLER_S *pHandle, const tagQN_FILE_INFO_S &stInfo,
                          const tagQN_REPLAY_PARAM_S &stParam, tagQN_REPLAY_HANDLER_S *&pReplayHandler)
{
    constexpr const char *FUNC = "QN_ReplayOpen";
    if (CheckMounted(pHandle, FUNC) != QN_RET_OK)
    {
        return QN_RET_STATE;
    }
    if (access(stInfo.strPath.c_str(), F_OK) != 0)
    {
        QN_LOG_ERROR_AS(FUNC, "file %s not exist", stInfo.strPath.c_str());
        return QN_RET_OPEN;
    }
    const QN_FILE_FMT_E enFormat = QN_STORAGE_FileExt2FmtType(stInfo.strExt.c_str());
    if (enFormat == QN_FILE_FMT_E_UNKNOWN)
    {
        QN_LOG_ERROR_AS(FUNC, "invalid format %s", stInfo.strExt.c_str());
        return QN_RET_OPEN;
    }
    const tagQN_MEDIA_API_S *pstApi = ChooseApi(enFormat);
    if (pstApi == nullptr)
    {
        QN_LOG_ERROR_AS(FUNC, "file %s format not supported", stInfo.strPath.c_str());
        return QN_RET_OPEN;
    }
    std::unique_ptr<tagQN_REPLAY_PRIVATE_S> spReplay(new (std::nothrow) tagQN_REPLAY_PRIVATE_S());
    if (spReplay == nullptr)
    {
        return QN_RET_NO_MEMORY;
    }
    // All memory is taken before the file is opened.
    tagQN_REPLAY_PRIVATE_S *pReplay = spReplay.get();
    std::list<tagQN_REPLAY_HANDLER_S *> lstNode(1, pReplay);
    std::list<QN_FRAME_OUT> lstFrame(1, QN_FRAME_OUT(pReplay, nullptr));
    pReplay->pHandle = pHandle;
    pReplay->stFileInfo = stInfo;
    pReplay->stParam = stParam;
    pReplay->pstMediaApi = pstApi;
    if (!OpenReader(pReplay, enFormat))
    {
        return QN_RET_OPEN;
    }
    QN_FRAMES_Add(pHandle, lstFrame);
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexReplayList);
    pHandle->lstReplay.splice(pHandle->lstReplay.end(), lstNode);
    pReplayHandler = spReplay.release();
    return QN_RET_OK;
}

uint32_t QN_ReplayOpen(tagQN_HANDLER_S *pHandle, tagQN_FILE_INFO_S stInfo, tagQN_REPLAY_PARAM_S stParam,
                       tagQN_REPLAY_HANDLER_S *&pReplayHandler)
try
{
    pReplayHandler = nullptr;
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_RWLOCK card = QN_CARD_Enter(pHandle);
    return OpenGated(pHandle, stInfo, stParam, pReplayHandler);
}
catch (const std::exception &)
{
    return QN_RET_NO_MEMORY;
}

// Opens a path that exists.
static uint32_t OpenPathGated(tagQN_HANDLER_S *pHandle, const char *pszFunc, const std::string &strPath,
                              const tagQN_REPLAY_PARAM_S &stParam, tagQN_REPLAY_HANDLER_S *&pReplayHandler)
{
    tagQN_FILE_INFO_S stInfo;
    const int32_t s32Result = QN_STORAGE_GetFileInfo(strPath.c_str(), &stInfo);
    if (s32Result == static_cast<int32_t>(QN_RET_NO_MEMORY))
    {
        return QN_RET_NO_MEMORY;
    }
    if (s32Result != 0)
    {
        QN_LOG_ERROR_AS(pszFunc, "cannot parse file name of %s", strPath.c_str());
        return QN_RET_OPEN;
    }
    return OpenGated(pHandle, stInfo, stParam, pReplayHandler);
}

// The path of a name in the first enabled volume that has it; empty when none has.
static std::string FindInVolumes(tagQN_HANDLER_S *pHandle, const std::string &strName)
{
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        const auto enVolume = static_cast<QN_VOLUME_ID_E>(i);
        if (pHandle->astVolume[i].bEnable == 0 ||
            QN_VOLUME_LookAtFolder(pHandle, enVolume) == QN_VOLUME_FOLDER_E_REFUSED)
        {
            continue; // a folder that is refused has no files
        }
        std::string strPath = QN_VOLUME_Path(pHandle, enVolume) + "/" + strName;
        if (access(strPath.c_str(), F_OK) == 0)
        {
            return strPath;
        }
    }
    return "";
}

uint32_t QN_ReplayOpenByFileName(tagQN_HANDLER_S *pHandle, std::string strName, tagQN_REPLAY_PARAM_S stParam,
                                 tagQN_REPLAY_HANDLER_S *&pReplayHandler)
try
{
    pReplayHandler = nullptr;
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_RWLOCK card = QN_CARD_Enter(pHandle);
    if (CheckMounted(pHandle, __func__) != QN_RET_OK)
    {
        return QN_RET_STATE;
    }
    const std::string strPath = FindInVolumes(pHandle, strName);
    if (strPath.empty())
    {
        QN_LOG_ERROR("file %s not exist", strName.c_str());
        return QN_RET_OPEN;
    }
    return OpenPathGated(pHandle, __func__, strPath, stParam, pReplayHandler);
}
catch (const std::exception &)
{
    return QN_RET_NO_MEMORY;
}

uint32_t QN_ReplayOpenByFilePath(tagQN_HANDLER_S *pHandle, std::string strPath, tagQN_REPLAY_PARAM_S stParam,
                                 tagQN_REPLAY_HANDLER_S *&pReplayHandler)
try
{
    pReplayHandler = nullptr;
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_RWLOCK card = QN_CARD_Enter(pHandle);
    if (CheckMounted(pHandle, __func__) != QN_RET_OK)
    {
        return QN_RET_STATE;
    }
    if (access(strPath.c_str(), F_OK) != 0)
    {
        QN_LOG_ERROR("file %s not exist", strPath.c_str());
        return QN_RET_OPEN;
    }
    return OpenPathGated(pHandle, __func__, strPath, stParam, pReplayHandler);
}
catch (const std::exception &)
{
    return QN_RET_NO_MEMORY;
}

// Calls one read slot under the replay's mutex. A reader or slot that is not there gives QN_RET_NO_READER.
template <typename SLOT, typename... ARGS>
static uint32_t CallReader(tagQN_REPLAY_HANDLER_S *pReplayHandler, SLOT tagQN_MEDIA_API_S::*pSlot, ARGS... args)
{
    if (pReplayHandler == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const UTIL_CALL call = UTIL_CALL_Begin(PrivateOf(pReplayHandler)->stCalls); // a close waits for it from here on
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pReplayHandler->mutexReplay);
    const SLOT pfnSlot = pReplayHandler->pstMediaApi->*pSlot;
    if (pReplayHandler->pReader == nullptr || pfnSlot == nullptr)
    {
        return QN_RET_NO_READER;
    }
    return static_cast<uint32_t>(pfnSlot(pReplayHandler->pReader, args...));
}

uint32_t QN_ReplayReadMetadata(tagQN_REPLAY_HANDLER_S *pReplayHandler, tagQN_METADATA_S *pstMetadata)
{
    return CallReader(pReplayHandler, &tagQN_MEDIA_API_S::pfnReadMetadata, pstMetadata);
}

uint32_t QN_ReplayReadFrame(tagQN_REPLAY_HANDLER_S *pReplayHandler, uint8_t **ppu8Data, uint32_t *pu32Size,
                            uint64_t *pu64Pts, bool *pbKey, bool *pbVideo)
{
    return CallReader(pReplayHandler, &tagQN_MEDIA_API_S::pfnReadGetFrame, ppu8Data, pu32Size, pu64Pts, pbKey, pbVideo);
}

uint32_t QN_ReplayFreeFrame(tagQN_REPLAY_HANDLER_S *pReplayHandler, uint8_t *pu8Data)
{
    return CallReader(pReplayHandler, &tagQN_MEDIA_API_S::pfnReadReleaseFrame, pu8Data);
}

uint32_t QN_ReplaySeekTime(tagQN_REPLAY_HANDLER_S *pReplayHandler, uint64_t u64Time)
{
    return CallReader(pReplayHandler, &tagQN_MEDIA_API_S::pfnReadSeek, static_cast<uint32_t>(u64Time));
}

static void CloseReader(tagQN_REPLAY_HANDLER_S *pReplayHandler)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pReplayHandler->mutexReplay);
    if (pReplayHandler->pReader == nullptr)
    {
        return;
    }
    (void)puts("fn_read_close");
    if (pReplayHandler->pstMediaApi->pfnReadClose != nullptr)
    {
        (void)pReplayHandler->pstMediaApi->pfnReadClose(pReplayHandler->pReader); // nothing is left to be done
    }
    pReplayHandler->pReader = nullptr;
}

// Closes a reader on a card that is gone.
static void CloseKeepingFrame(const tagQN_REPLAY_HANDLER_S *pReplay)
{
    void *pFrame = nullptr; // stays null when the reader is a host's own: its frames are its business
    FFREAD_KeepFrameOut(&pFrame);
    (void)pReplay->pstMediaApi->pfnReadClose(pReplay->pReader);
    FFREAD_KeepFrameOut(nullptr);
    if (pFrame != nullptr)
    {
        QN_FRAMES_Keep(pReplay, pFrame);
    }
}

void QN_REPLAY_CloseReaders(tagQN_HANDLER_S *pHandle)
{
    const UTIL_LOCK list = UTIL_LOCK_Scoped(pHandle->mutexReplayList);
    for (tagQN_REPLAY_HANDLER_S *pReplay : pHandle->lstReplay)
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pReplay->mutexReplay);
        if (pReplay->pReader != nullptr && pReplay->pstMediaApi->pfnReadClose != nullptr)
        {
            CloseKeepingFrame(pReplay);
        }
        pReplay->pReader = nullptr;
    }
}

int32_t QN_ReplayClose(tagQN_REPLAY_HANDLER_S *&pReplayHandler, tagBU_BOOL bRemove)
{
    if (pReplayHandler == nullptr)
    {
        return static_cast<int32_t>(QN_RET_NULL_HANDLE);
    }
    tagQN_HANDLER_S *pHandle = pReplayHandler->pHandle;
    const UTIL_CALL end = UTIL_CALL_Begin(*pHandle->pstPrivate->pEnds); // ends when the replay is gone
    CloseReader(pReplayHandler);
    UTIL_CALLS_Wait(PrivateOf(pReplayHandler)->stCalls); // they want mutexReplay alone; the list may be the caller's
    if (bRemove != 0)
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->mutexReplayList);
        (void)puts("pReplayHandler remove");
        pHandle->lstReplay.remove(pReplayHandler);
    }
    QN_FRAMES_Free(pReplayHandler);
    delete PrivateOf(pReplayHandler);
    QN_TRACE("delete pReplayHandler\n");
    pReplayHandler = nullptr;
    return 0;
}

int32_t QN_ReplayClose(tagQN_REPLAY_HANDLER_S *&pReplayHandler)
{
    return QN_ReplayClose(pReplayHandler, 1);
}

} // namespace libquarrin
