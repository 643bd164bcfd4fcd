// Durable recordings. See the header.
// Threads: one of its own; the frame road only ever takes stMutex, which nobody holds while the card is busy. No
// descriptor stays open between two passes, so the thread keeps no card from being unmounted.

#include "durable.h"

#include <algorithm>
#include <cerrno>
#include <set>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int32_t DURABLE_TRIES = 3; // a file may get its final name while it is looked for
static constexpr int64_t STAMP_SECONDS = 2; // granularity of vfat's time stamps; the others are finer

static bool IsSame(const tagTOOL_SYNCED_S &stLeft, const tagTOOL_SYNCED_S &stRight)
{
    return stLeft.s64Size == stRight.s64Size && stLeft.stWritten.tv_sec == stRight.stWritten.tv_sec &&
           stLeft.stWritten.tv_nsec == stRight.stWritten.tv_nsec &&
           stLeft.stChanged.tv_sec == stRight.stChanged.tv_sec && stLeft.stChanged.tv_nsec == stRight.stChanged.tv_nsec;
}

static tagTOOL_SYNCED_S StateOf(const struct stat &stStat)
{
    return {static_cast<int64_t>(stStat.st_size), stStat.st_mtim, stStat.st_ctim};
}

static bool IsPast(const timespec &stStamp, time_t tNow)
{
    const int64_t s64Age = static_cast<int64_t>(tNow) - static_cast<int64_t>(stStamp.tv_sec);
    return s64Age > STAMP_SECONDS || s64Age < -STAMP_SECONDS; // a clock that was set back gives new stamps as well
}

/// Another change would show in the time stamps. Otherwise a file that is changed during its sync, at the same size as
/// trailers do with headers, would look as if all of it had been written through.
static bool IsSettled(const struct stat &stStat, time_t tNow)
{
    return IsPast(stStat.st_mtim, tNow) && IsPast(stStat.st_ctim, tNow);
}

/// Writes one file through. 0, or errno.
static int32_t SyncFile(int s32Folder, const char *pszName)
{
    const int s32File = openat(s32Folder, pszName, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (s32File < 0)
    {
        return errno;
    }
    const int32_t s32Error = fsync(s32File) == 0 ? 0 : errno;
    close(s32File);
    return s32Error;
}

/// Goes through the folder once; without bSync it only takes down what is there. 0, or the first errno; ENOENT when a
/// file got another name meanwhile.
static int32_t GoThrough(tagTOOL_DURABLE_S &stDurable, DIR *pFolder, bool bSync)
{
    int32_t s32Error = 0;
    std::set<ino_t> setSeen;
    while (const dirent *pEntry = readdir(pFolder))
    {
        struct stat stStat = {};
        const time_t tNow = time(nullptr); // before the look
        if (fstatat(dirfd(pFolder), pEntry->d_name, &stStat, AT_SYMLINK_NOFOLLOW) != 0)
        {
            s32Error = s32Error == 0 ? errno : s32Error;
            continue;
        }
        if (!S_ISREG(stStat.st_mode))
        {
            continue;
        }
        setSeen.insert(stStat.st_ino);
        const auto itSynced = stDurable.mapSynced.find(stStat.st_ino);
        if (itSynced != stDurable.mapSynced.end() && IsSame(itSynced->second, StateOf(stStat)))
        {
            continue;
        }
        // What is written behind the look above shows in the next one, once the file has settled.
        const int32_t s32File = bSync ? SyncFile(dirfd(pFolder), pEntry->d_name) : 0;
        if (s32File == 0 && (!bSync || IsSettled(stStat, tNow)))
        {
            stDurable.mapSynced[stStat.st_ino] = StateOf(stStat);
        }
        s32Error = s32Error == 0 ? s32File : s32Error;
    }
    for (auto itFile = stDurable.mapSynced.begin(); itFile != stDurable.mapSynced.end();)
    {
        itFile = setSeen.count(itFile->first) != 0 ? std::next(itFile) : stDurable.mapSynced.erase(itFile);
    }
    return s32Error;
}

/// The files first, so that no name comes to the card before its data, then the folder. Without bSync it only takes
/// down what is there.
static int32_t SyncFolder(tagTOOL_DURABLE_S &stDurable, bool bSync)
{
    DIR *pFolder = opendir(stDurable.strFolder.c_str());
    if (pFolder == nullptr)
    {
        return errno;
    }
    int32_t s32Error = 0;
    for (int32_t i = 0; i < DURABLE_TRIES; i++)
    {
        rewinddir(pFolder);
        s32Error = GoThrough(stDurable, pFolder, bSync);
        if (s32Error != ENOENT)
        {
            break;
        }
    }
    s32Error = s32Error == ENOENT ? 0 : s32Error; // names change all the time; the next pass looks again
    if (bSync && fsync(dirfd(pFolder)) != 0 && s32Error == 0)
    {
        s32Error = errno;
    }
    closedir(pFolder);
    return s32Error;
}

static void NoteError(tagTOOL_DURABLE_S &stDurable, int32_t s32Error)
{
    pthread_mutex_lock(&stDurable.stMutex);
    stDurable.s32Error = stDurable.s32Error == 0 ? s32Error : stDurable.s32Error;
    pthread_mutex_unlock(&stDurable.stMutex);
}

/// Waits for the moment, or for the end. False: it is the end.
static bool WaitUntil(tagTOOL_DURABLE_S &stDurable, const timespec &stMoment)
{
    int32_t s32Result = 0;
    pthread_mutex_lock(&stDurable.stMutex);
    while (!stDurable.bEnd && s32Result != ETIMEDOUT)
    {
        s32Result = pthread_cond_timedwait(&stDurable.stWake, &stDurable.stMutex, &stMoment);
    }
    const bool bGoOn = !stDurable.bEnd;
    pthread_mutex_unlock(&stDurable.stMutex);
    return bGoOn;
}

static int64_t NowMs()
{
    timespec stNow = {};
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<int64_t>(stNow.tv_sec) * 1000 + stNow.tv_nsec / 1000000;
}

/// One pass, with a note of how long it took: that much more than the interval may be missing after a power cut.
static void Pass(tagTOOL_DURABLE_S &stDurable)
{
    const int64_t s64Begin = NowMs();
    stDurable.s64PassBegin = s64Begin;
    NoteError(stDurable, SyncFolder(stDurable, true));
    stDurable.s64LongestPass = std::max(stDurable.s64LongestPass.load(), NowMs() - s64Begin);
    stDurable.s64PassBegin = 0;
}

static void *Run(void *pArg)
{
    tagTOOL_DURABLE_S &stDurable = *static_cast<tagTOOL_DURABLE_S *>(pArg);
    timespec stMoment = {};
    do
    {
        // Counted from the begin of a pass: a slow card makes the passes longer, not the pauses.
        clock_gettime(CLOCK_MONOTONIC, &stMoment);
        stMoment.tv_sec += stDurable.u32Seconds;
        Pass(stDurable);
    } while (WaitUntil(stDurable, stMoment));
    Pass(stDurable); // the final names
    return nullptr;
}

/// The folder itself may be new: its name lies in the folder above.
static void SyncName(const std::string &strFolder)
{
    const int s32Parent = open((strFolder + "/..").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (s32Parent >= 0)
    {
        (void)fsync(s32Parent); // a folder of somebody else's may refuse
        close(s32Parent);
    }
}

bool TOOL_DURABLE_Begin(tagTOOL_DURABLE_S &stDurable, const std::string &strFolder, uint32_t u32Seconds)
{
    if (u32Seconds == 0)
    {
        return true;
    }
    stDurable.strFolder = strFolder;
    SyncName(strFolder);
    (void)SyncFolder(stDurable, false); // a folder that cannot be read is told of by the first pass
    pthread_condattr_t stClock;
    pthread_condattr_init(&stClock);
    pthread_condattr_setclock(&stClock, CLOCK_MONOTONIC); // steps of the wall clock change nothing
    pthread_cond_init(&stDurable.stWake, &stClock);
    pthread_condattr_destroy(&stClock);
    stDurable.bEnd = false;
    stDurable.u32Seconds = u32Seconds;
    if (pthread_create(&stDurable.stThread, nullptr, Run, &stDurable) != 0)
    {
        stDurable.u32Seconds = 0;
        pthread_cond_destroy(&stDurable.stWake);
        return false;
    }
    return true;
}

int32_t TOOL_DURABLE_TakeError(tagTOOL_DURABLE_S &stDurable)
{
    pthread_mutex_lock(&stDurable.stMutex);
    const int32_t s32Error = stDurable.s32Error;
    stDurable.s32Error = 0;
    pthread_mutex_unlock(&stDurable.stMutex);
    return s32Error;
}

void TOOL_DURABLE_End(tagTOOL_DURABLE_S &stDurable)
{
    if (stDurable.u32Seconds == 0)
    {
        return;
    }
    pthread_mutex_lock(&stDurable.stMutex);
    stDurable.bEnd = true;
    pthread_cond_signal(&stDurable.stWake);
    pthread_mutex_unlock(&stDurable.stMutex);
    pthread_join(stDurable.stThread, nullptr);
    pthread_cond_destroy(&stDurable.stWake);
    stDurable.u32Seconds = 0;
}
