// The card below the mount point. See the header.

#include "storage/card.h"

#include <algorithm>
#include <ctime>
#include <new>

#include "libquarrin/storage.h"
#include "ring/handle_private.h"
#include "storage/presence.h"
#include "util/pause.h"

namespace libquarrin
{

// Making a folder or moving a file takes milliseconds on a card that works, and may take long on one that is slow. On a
// card that is gone it may never end.
constexpr int64_t GONE_US = 2000000;
constexpr int64_t LOOK_US = 100000; // between two looks whether the device is still there
constexpr int64_t US_PER_SECOND = 1000000;

tagQN_CARD_S *QN_CARD_New()
{
    tagQN_CARD_S *pCard = new (std::nothrow) tagQN_CARD_S();
    if (pCard == nullptr)
    {
        return nullptr;
    }
    pthread_rwlockattr_t stAttr;
    pthread_rwlockattr_init(&stAttr);
#ifdef __GLIBC__
    // An unmount must come to its turn also when several threads list folders without a break.
    pthread_rwlockattr_setkind_np(&stAttr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
#endif
    pthread_rwlock_init(&pCard->rwCard, &stAttr);
    pthread_rwlockattr_destroy(&stAttr);
    pthread_condattr_t stClock; // a clock that a host sets must not move a deadline
    pthread_condattr_init(&stClock);
    pthread_condattr_setclock(&stClock, CLOCK_MONOTONIC);
    pthread_cond_init(&pCard->condCard, &stClock);
    pthread_condattr_destroy(&stClock);
    return pCard;
}

void QN_CARD_Delete(tagQN_CARD_S *pCard)
{
    if (pCard != nullptr)
    {
        pthread_cond_destroy(&pCard->condCard);
        pthread_rwlock_destroy(&pCard->rwCard);
        delete pCard;
    }
}

UTIL_RWLOCK QN_CARD_Enter(const tagQN_HANDLER_S *pHandle)
{
    return UTIL_LOCK_Shared(pHandle->pstPrivate->pCard->rwCard);
}

UTIL_RWLOCK QN_CARD_Close(const tagQN_HANDLER_S *pHandle)
{
    return UTIL_LOCK_Exclusive(pHandle->pstPrivate->pCard->rwCard);
}

static std::list<std::string>::iterator FindLocked(tagQN_CARD_S *pCard, const std::string &strPath)
{
    return std::find(pCard->lstWriting.begin(), pCard->lstWriting.end(), strPath);
}

bool QN_CARD_Claim(tagQN_HANDLER_S *pHandle, const std::string &strPath)
{
    tagQN_CARD_S *pCard = pHandle->pstPrivate->pCard;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pCard->mutexCard);
    if (FindLocked(pCard, strPath) != pCard->lstWriting.end())
    {
        return false;
    }
    pCard->lstWriting.push_back(strPath);
    return true;
}

void QN_CARD_Release(tagQN_HANDLER_S *pHandle, const std::string &strPath)
{
    tagQN_CARD_S *pCard = pHandle->pstPrivate->pCard;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pCard->mutexCard);
    const auto itPath = FindLocked(pCard, strPath);
    if (itPath != pCard->lstWriting.end())
    {
        pCard->lstWriting.erase(itPath);
    }
}

void QN_CARD_CommandBegin(tagQN_HANDLER_S *pHandle)
{
    tagQN_CARD_S *pCard = pHandle->pstPrivate->pCard;
    const UTIL_RWLOCK card = QN_CARD_Enter(pHandle);
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pCard->mutexCard);
    pCard->u32Commands += 1;
}

void QN_CARD_CommandEnd(tagQN_HANDLER_S *pHandle)
{
    tagQN_CARD_S *pCard = pHandle->pstPrivate->pCard;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pCard->mutexCard);
    pCard->u32Commands -= 1;
    pthread_cond_broadcast(&pCard->condCard);
}

// What the monitor told counts before its event is handled: the event thread may be the one that runs the command.
static bool IsDeviceGone(const tagQN_HANDLER_S *pHandle)
{
    return !QN_PRESENCE_Seen(pHandle) || QN_STORAGE_CheckBlockDevExist(pHandle->strDevice.c_str()) != 0;
}

// Waits on condCard until a time of CLOCK_MONOTONIC, which is the condition's clock.
static void WaitUntilLocked(tagQN_CARD_S *pCard, int64_t s64Us)
{
    struct timespec stUntil = {};
    stUntil.tv_sec = static_cast<time_t>(s64Us / US_PER_SECOND);
    stUntil.tv_nsec = static_cast<long>(s64Us % US_PER_SECOND) * 1000;
    (void)pthread_cond_timedwait(&pCard->condCard, &pCard->mutexCard,
                                 &stUntil); // the caller looks at all again
}

static void WaitForCommands(tagQN_HANDLER_S *pHandle, bool bGone)
{
    tagQN_CARD_S *pCard = pHandle->pstPrivate->pCard;
    int64_t s64NowUs = UTIL_NowUs();
    int64_t s64EndUs = bGone ? s64NowUs + GONE_US : 0; // 0: no end yet
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pCard->mutexCard);
    while (pCard->u32Commands > 0 && (s64EndUs == 0 || s64NowUs < s64EndUs))
    {
        if (s64EndUs == 0 && IsDeviceGone(pHandle))
        {
            s64EndUs = s64NowUs + GONE_US;
        }
        WaitUntilLocked(pCard, s64EndUs == 0 ? s64NowUs + LOOK_US : std::min(s64NowUs + LOOK_US, s64EndUs));
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
    pHandle->pstPrivate->pCard->bLeftMounted = false;
    pHandle->pstPrivate->pCard->bUnmounted = false;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->pstPrivate->pCard->mutexCard);
    for (bool &bTold : pHandle->pstPrivate->pCard->abRefusalTold)
    {
        bTold = false;
    }
    return true;
}

void QN_CARD_Unmount(tagQN_HANDLER_S *pHandle, bool bGone)
{
    WaitForCommands(pHandle, bGone);
    // Before the line: a command that was given up may come to its next one meanwhile.
    pHandle->pstPrivate->pCard->bLeftMounted = false;
    pHandle->pstPrivate->pCard->bUnmounted = true;
    (void)QN_STORAGE_PartitionUnmount(pHandle->pszMountPoint.c_str()); // the caller's state changes either way
}

bool QN_CARD_IsUnmounted(const tagQN_HANDLER_S *pHandle)
{
    return pHandle->pstPrivate->pCard->bUnmounted.load();
}

void QN_CARD_LeaveMounted(tagQN_HANDLER_S *pHandle)
{
    pHandle->pstPrivate->pCard->bLeftMounted = true;
}

bool QN_CARD_IsLeftMounted(const tagQN_HANDLER_S *pHandle)
{
    return pHandle->pstPrivate->pCard->bLeftMounted.load();
}

bool QN_CARD_MayTellRefusal(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume)
{
    tagQN_CARD_S *pCard = pHandle->pstPrivate->pCard;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pCard->mutexCard);
    const bool bTold = pCard->abRefusalTold[enVolume];
    pCard->abRefusalTold[enVolume] = true;
    return !bTold;
}

} // namespace libquarrin
