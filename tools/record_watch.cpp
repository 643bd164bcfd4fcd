// Record watch. Frames that cannot be written are dropped without a word by the library; this is where it shows.
// Threads: the main thread.

#include "record_watch.h"

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "storage_handle.h"

static constexpr std::chrono::milliseconds WATCH_INTERVAL{250};
// Matroska writes a cluster at a time, after five seconds at the latest, so a file may stand still for that long.
static constexpr std::chrono::seconds WATCH_PATIENCE{8};
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
    stWatch.stLastGrowth = stWatch.stLastLook;
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
        stWatch.stLastGrowth = stWatch.stLastLook;
        stWatch.u64FramesAtGrowth = stWatch.u64Frames;
    }
    stWatch.s64OnDisk = s64OnDisk;
    stWatch.s64Bytes = s64Bytes;
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
    // A frame that waits for the input is not the storage's fault, so frames must have come as well.
    const bool bFed = stWatch.u64Frames > stWatch.u64FramesAtGrowth;
    return bFed && stNow - stWatch.stLastGrowth > WATCH_PATIENCE ? "not growing: the file does not take the frames"
                                                                 : "";
}
