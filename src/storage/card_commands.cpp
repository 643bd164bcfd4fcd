// Mount, unmount, and shell commands of ours that run below the mount point. See the header.

#include "storage/card_commands.h"

#include <algorithm>
#include <ctime>

#include "libquarrin/storage.h"
#include "ring/handle_private.h"
#include "storage/volume_folder.h"
#include "util/lock.h"
#include "util/pause.h"

namespace libquarrin
{

// Making a folder or moving a file takes milliseconds on a card that works, and may take long on one that is slow. On a
// card that is gone it may never end.
constexpr int64_t GONE_US = 2000000;
constexpr int64_t LOOK_US = 100000; // between two looks whether the device is still there
constexpr int64_t US_PER_SECOND = 1000000;

void QN_CARD_CommandBegin(tagQN_HANDLER_S *pHandle)
{
    tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    const UTIL_RWLOCK card = UTIL_LOCK_Shared(pPrivate->rwCard);
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPrivate->mutexFiles);
    pPrivate->u32Commands += 1;
}

void QN_CARD_CommandEnd(tagQN_HANDLER_S *pHandle)
{
    tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPrivate->mutexFiles);
    pPrivate->u32Commands -= 1;
    pthread_cond_broadcast(&pPrivate->condFiles);
}

// What the monitor told counts before its event is handled: the event thread may be the one that runs the command.
static bool IsDeviceGone(const tagQN_HANDLER_S *pHandle)
{
    return !pHandle->pstPrivate->bSeenPresent.load() || QN_STORAGE_CheckBlockDevExist(pHandle->strDevice.c_str()) != 0;
}

// Waits on condFiles until a time of CLOCK_MONOTONIC, which is the condition's clock.
static void WaitUntilLocked(tagQN_HANDLER_PRIVATE_S *pPrivate, int64_t s64Us)
{
    struct timespec stUntil = {};
    stUntil.tv_sec = static_cast<time_t>(s64Us / US_PER_SECOND);
    stUntil.tv_nsec = static_cast<long>(s64Us % US_PER_SECOND) * 1000;
    (void)pthread_cond_timedwait(&pPrivate->condFiles, &pPrivate->mutexFiles,
                                 &stUntil); // the caller looks at all again
}

static void WaitForCommands(tagQN_HANDLER_S *pHandle, bool bGone)
{
    tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    int64_t s64NowUs = UTIL_NowUs();
    int64_t s64EndUs = bGone ? s64NowUs + GONE_US : 0; // 0: no end yet
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPrivate->mutexFiles);
    while (pPrivate->u32Commands > 0 && (s64EndUs == 0 || s64NowUs < s64EndUs))
    {
        if (s64EndUs == 0 && IsDeviceGone(pHandle))
        {
            s64EndUs = s64NowUs + GONE_US;
        }
        WaitUntilLocked(pPrivate, s64EndUs == 0 ? s64NowUs + LOOK_US : std::min(s64NowUs + LOOK_US, s64EndUs));
        s64NowUs = UTIL_NowUs();
    }
}

int32_t QN_CARD_PartitionNo(const tagQN_HANDLER_S *pHandle)
{
    return __atomic_load_n(&pHandle->s32PartitionNo, __ATOMIC_SEQ_CST);
}

bool QN_CARD_Mount(tagQN_HANDLER_S *pHandle)
{
    if (QN_STORAGE_PartitionMount(pHandle->strDevice.c_str(), QN_CARD_PartitionNo(pHandle),
                                  pHandle->pszMountPoint.c_str()) != 0)
    {
        return false;
    }
    pHandle->pstPrivate->bLeftMounted = false;
    pHandle->pstPrivate->bUnmounted = false;
    QN_VOLUME_NewMount(pHandle);
    return true;
}

void QN_CARD_Unmount(tagQN_HANDLER_S *pHandle, bool bGone)
{
    WaitForCommands(pHandle, bGone);
    // Before the line: a command that was given up may come to its next one meanwhile.
    pHandle->pstPrivate->bLeftMounted = false;
    pHandle->pstPrivate->bUnmounted = true;
    (void)QN_STORAGE_PartitionUnmount(pHandle->pszMountPoint.c_str()); // the caller's state changes either way
}

bool QN_CARD_IsUnmounted(const tagQN_HANDLER_S *pHandle)
{
    return pHandle->pstPrivate->bUnmounted.load();
}

void QN_CARD_LeaveMounted(tagQN_HANDLER_S *pHandle)
{
    pHandle->pstPrivate->bLeftMounted = true;
}

bool QN_CARD_IsLeftMounted(const tagQN_HANDLER_S *pHandle)
{
    return pHandle->pstPrivate->bLeftMounted.load();
}

} // namespace libquarrin
