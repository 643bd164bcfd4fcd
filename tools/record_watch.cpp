// Record watch. Frames that cannot be written are dropped without a word by the library; this is where it shows.
// Threads: the main thread.

#include "record_watch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "storage_handle.h"

static constexpr std::chrono::milliseconds WATCH_INTERVAL{250};
// Matroska writes a cluster at a time, after five seconds at the latest, so a file may stand still for that long.
static constexpr std::chrono::seconds WATCH_PATIENCE{8};
static constexpr std::chrono::seconds WATCH_INTERLEAVE{10}; // so long FFmpeg lets one stream wait for the other
// The library asks again every second how large the file system is, and drops the frames until it knows.
static constexpr std::chrono::seconds WATCH_QUERY{4};

void TOOL_WATCH_Begin(tagTOOL_WATCH_S &stWatch, libquarrin::tagQN_HANDLER_S *pHandle,
                      libquarrin::tagQN_RECORD_HANDLER_S *pSession)
{
    stWatch.pHandle = pHandle;
    stWatch.pSession = pSession;
    struct stat stStat = {};
    if (stat(TOOL_STORAGE_Folder(pHandle).c_str(), &stStat) == 0)
    {
        stWatch.stDevice = stStat.st_dev;
        stWatch.stInode = stStat.st_ino;
    }
    stWatch.stLastLook = std::chrono::steady_clock::now();
    stWatch.stLastRoom = stWatch.stLastLook;
    TOOL_WATCH_NoteFile(stWatch);
}

void TOOL_WATCH_NoteFile(tagTOOL_WATCH_S &stWatch)
{
    pthread_mutex_lock(&stWatch.pSession->stMutex);
    if (stWatch.vecPaths.empty() || stWatch.vecPaths.back() != stWatch.pSession->strFilePath)
    {
        stWatch.vecPaths.push_back(stWatch.pSession->strFilePath);
        stWatch.s64Bytes = 0; // the next look counts those of this file
    }
    pthread_mutex_unlock(&stWatch.pSession->stMutex);
}

/// A card that was pulled leaves the folder below its mount point: another one, or none.
static bool IsGone(const tagTOOL_WATCH_S &stWatch)
{
    libquarrin::QN_STATE_E enState = libquarrin::QN_STATE_E_UNPLUGIN;
    (void)libquarrin::QN_GetState(stWatch.pHandle, &enState); // refuses a null handle only
    struct stat stStat = {};
    return enState != libquarrin::QN_STATE_E_MOUNTED ||
           stWatch.pSession->enRecordState == libquarrin::QN_RECORD_STATE_STOPPING ||
           stat(TOOL_STORAGE_Folder(stWatch.pHandle).c_str(), &stStat) != 0 || stStat.st_dev != stWatch.stDevice ||
           stStat.st_ino != stWatch.stInode;
}

static bool IsPartOfFileSystem(const tagTOOL_WATCH_S &stWatch)
{
    return stWatch.pHandle->astVolume[libquarrin::QN_VOLUME_ID_E_0].u32QuotaType == 1;
}

/// Nothing is free, or the quota is reached. A quota in per cent of a size that the file system does not tell counts as
/// reached; the library asks again.
static bool HasNoRoom(tagTOOL_WATCH_S &stWatch)
{
    struct statvfs stFs = {};
    errno = 0;
    const bool bKnown = statvfs(TOOL_STORAGE_Folder(stWatch.pHandle).c_str(), &stFs) == 0 && stFs.f_blocks != 0;
    if (bKnown && (geteuid() == 0 ? stFs.f_bfree : stFs.f_bavail) == 0) // the rest is kept for the super-user
    {
        return true;
    }
    if (!stWatch.bFull || (!bKnown && IsPartOfFileSystem(stWatch)))
    {
        stWatch.stLastRoom = stWatch.stLastLook;
    }
    if (!bKnown && IsPartOfFileSystem(stWatch) && !stWatch.bSizeUnknown)
    {
        stWatch.bSizeUnknown = true;
        stWatch.strWarning = std::string("warning: the file system does not tell its size: ") +
                             (errno != 0 ? strerror(errno) : "it has no blocks") +
                             "; until it does nothing is deleted, and frames may be dropped";
    }
    return stWatch.bFull && (!IsPartOfFileSystem(stWatch) || stWatch.stLastLook - stWatch.stLastRoom >= WATCH_QUERY);
}

/// FFmpeg's count of written bytes goes on when the file system refuses them, so the file's own size counts as well.
static void LookForGrowth(tagTOOL_WATCH_S &stWatch)
{
    struct stat stStat = {};
    const bool bThere = stat(stWatch.vecPaths.back().c_str(), &stStat) == 0;
    const int64_t s64OnDisk = bThere ? static_cast<int64_t>(stStat.st_size) : -1;
    const int64_t s64Bytes = libquarrin::QN_REcordGetWriteBytes(stWatch.pSession);
    if (s64OnDisk != stWatch.s64OnDisk && s64OnDisk >= 0 && s64Bytes >= 0)
    {
        std::copy(std::begin(stWatch.au64Fed), std::end(stWatch.au64Fed), std::begin(stWatch.au64FedAtGrowth));
        stWatch.stAnyFed = {};
        stWatch.stAllFed = {};
    }
    stWatch.s64OnDisk = s64OnDisk;
    stWatch.s64Bytes = s64Bytes;
}

/// When a condition was first seen to hold; kept as long as the file does not grow.
static bool HoldsFor(bool bHolds, std::chrono::steady_clock::time_point stNow, std::chrono::seconds stPatience,
                     std::chrono::steady_clock::time_point &stSince)
{
    if (bHolds && stSince == std::chrono::steady_clock::time_point())
    {
        stSince = stNow;
    }
    return bHolds && stNow - stSince > stPatience;
}

/// Frames came, and the file does not grow. Frames of one stream alone wait in FFmpeg for the other's, which may be those
/// of a slow encoder: that is not the storage's fault.
static bool IsStuck(tagTOOL_WATCH_S &stWatch)
{
    const libquarrin::tagQN_RECORD_PARAM_S &stParam = stWatch.pSession->stParam;
    const bool abEnabled[2] = {stParam.stAudio.bEnable != 0, stParam.stVideo.bEnable != 0};
    bool bAny = false;
    bool bAll = true;
    for (size_t u = 0; u < 2; u++)
    {
        const bool bFed = stWatch.au64Fed[u] > stWatch.au64FedAtGrowth[u];
        bAny = bAny || bFed;
        bAll = bAll && (bFed || !abEnabled[u]);
    }
    const bool bAllWait = HoldsFor(bAny && bAll, stWatch.stLastLook, WATCH_PATIENCE, stWatch.stAllFed);
    return HoldsFor(bAny, stWatch.stLastLook, WATCH_PATIENCE + WATCH_INTERLEAVE, stWatch.stAnyFed) || bAllWait;
}

std::string TOOL_WATCH_Look(tagTOOL_WATCH_S &stWatch)
{
    const std::chrono::steady_clock::time_point stNow = std::chrono::steady_clock::now();
    if (stNow - stWatch.stLastLook < WATCH_INTERVAL)
    {
        return "";
    }
    stWatch.stLastLook = stNow;
    libquarrin::QN_STORAGE_STATE_E enStorage = libquarrin::QN_STORAGE_STATE_E_NORMAL;
    (void)libquarrin::QN_GetStorageState(stWatch.pHandle, &enStorage); // refuses a null handle only
    stWatch.bFull = enStorage == libquarrin::QN_STORAGE_STATE_E_FULL;
    if (IsGone(stWatch))
    {
        return "card gone";
    }
    if (HasNoRoom(stWatch))
    {
        stWatch.bFull = true;
        return "storage full";
    }
    LookForGrowth(stWatch);
    if (stWatch.s64Bytes < 0)
    {
        return "not growing: the next file could not be opened";
    }
    return IsStuck(stWatch) ? "not growing: the file does not take the frames" : "";
}
