// Format worker: partition table, then file system, on a detached thread; the outcome goes back as an event.
// Threads: QN_FORMAT_Start and _Detach on host threads, the rest on the worker's. Locks: mutexLink, then mutexEvent; a
// worker that waits for room holds neither, and is counted as a producer, so that the handle cannot go meanwhile.

#include "core/format.h"

#include <exception>
#include <memory>
#include <string>

#include "libquarrin/storage.h"
#include "ring/handle_private.h"
#include "ring/ring.h"
#include "util/lock.h"
#include "util/log.h"

namespace libquarrin
{

/// The way of a worker back to its handle; it outlives both.
struct tagQN_FORMAT_LINK_S
{
    pthread_mutex_t mutexLink =
        PTHREAD_MUTEX_INITIALIZER;      ///< guards the rest; held while the worker posts, not while it waits
    tagQN_HANDLER_S *pHandle = nullptr; ///< null once the handle is being destroyed
    uint32_t u32Format = 0;             ///< number of the last format: the worker of an older one is done
    uint32_t u32OutcomesAhead = 0;      ///< outcomes that are queued, or whose handler has not begun
    uint32_t u32OutcomesOld = 0;        ///< so many of them, the first ones, are earlier formats'
};

struct tagQN_FORMATS_S
{
    std::shared_ptr<tagQN_FORMAT_LINK_S> spLink; ///< constant
};

/// What one worker needs; owned by its thread.
struct tagQN_FORMAT_JOB_S
{
    std::shared_ptr<tagQN_FORMAT_LINK_S> spLink;
    std::string strDevice;
    QN_FS_TYPE_E enFsType;
    uint32_t u32Format; ///< its number in the link
};

// The one partition of a fresh table.
constexpr int32_t FORMATTED_PARTITION = 1;

// The card of an older format was pulled; the device belongs to the next one. The caller holds mutexLink.
static bool IsLastLocked(const tagQN_FORMAT_JOB_S &stJob)
{
    return stJob.spLink->u32Format == stJob.u32Format;
}

// Looks at the link anew after every wait for room: the handle may be ending, or the next format have begun.
static void Post(const tagQN_FORMAT_JOB_S &stJob, QN_EVENT_E enEvent)
{
    UTIL_LOCK lock = UTIL_LOCK_Scoped(stJob.spLink->mutexLink);
    tagQN_HANDLER_S *pHandle = stJob.spLink->pHandle;
    if (pHandle == nullptr)
    {
        return;
    }
    QN_RING_CountProducer(pHandle, true); // the handle stays while this waits
    while (stJob.spLink->pHandle != nullptr && IsLastLocked(stJob))
    {
        if (QN_RING_TryPush(pHandle, enEvent, nullptr))
        {
            stJob.spLink->u32OutcomesAhead += 1;
            break;
        }
        lock.reset();
        QN_RING_WaitForRoom(pHandle);
        lock = UTIL_LOCK_Scoped(stJob.spLink->mutexLink);
    }
    lock.reset();
    QN_RING_CountProducer(pHandle, false);
}

// False: another format has begun meanwhile.
static bool SetPartition(const tagQN_FORMAT_JOB_S &stJob)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(stJob.spLink->mutexLink);
    if (!IsLastLocked(stJob))
    {
        return false;
    }
    if (stJob.spLink->pHandle != nullptr)
    {
        __atomic_store_n(&stJob.spLink->pHandle->s32PartitionNo, FORMATTED_PARTITION, __ATOMIC_SEQ_CST);
    }
    return true;
}

// Kept: all four lines are information, the failures too, and carry this tag.
static void Worker(void *pArg)
{
    constexpr const char *FUNC = "operator()";
    const std::unique_ptr<tagQN_FORMAT_JOB_S> spJob(static_cast<tagQN_FORMAT_JOB_S *>(pArg));
    int32_t s32Result = QN_STORAGE_MakePartitionTable(spJob->strDevice.c_str());
    if (s32Result != 0)
    {
        QN_LOG_INFO_AS(FUNC, "make partition table failed: %d", s32Result);
        Post(*spJob, QN_EVENT_E_FORMAT_FAILED);
        return;
    }
    QN_LOG_INFO_AS(FUNC, "make partition table success");
    if (!SetPartition(*spJob))
    {
        return; // a file system made now would meet the next format's
    }
    s32Result = QN_STORAGE_MakePartitionFs(spJob->strDevice.c_str(), FORMATTED_PARTITION, spJob->enFsType);
    if (s32Result != 0)
    {
        QN_LOG_INFO_AS(FUNC, "make partition fs failed: %d", s32Result);
        Post(*spJob, QN_EVENT_E_FORMAT_FAILED);
        return;
    }
    QN_LOG_INFO_AS(FUNC, "make partition fs success");
    Post(*spJob, QN_EVENT_E_FORMAT_SUCCESS);
}

tagQN_FORMATS_S *QN_FORMAT_New(tagQN_HANDLER_S *pHandle)
try
{
    auto spFormats = std::make_unique<tagQN_FORMATS_S>();
    spFormats->spLink = std::make_shared<tagQN_FORMAT_LINK_S>();
    spFormats->spLink->pHandle = pHandle;
    return spFormats.release();
}
catch (const std::exception &)
{
    return nullptr;
}

void QN_FORMAT_Delete(tagQN_FORMATS_S *pFormats)
{
    delete pFormats;
}

tagQN_FORMAT_JOB_S *QN_FORMAT_Make(const tagQN_HANDLER_S *pHandle, QN_FS_TYPE_E enFsType)
try
{
    return new tagQN_FORMAT_JOB_S{pHandle->pstPrivate->pFormats->spLink, pHandle->strDevice, enFsType, 0};
}
catch (const std::exception &)
{
    return nullptr;
}

void QN_FORMAT_Start(tagQN_HANDLER_S *pHandle, tagQN_FORMAT_JOB_S *pJob)
{
    tagQN_FORMAT_LINK_S &stLink = *pHandle->pstPrivate->pFormats->spLink;
    UTIL_LOCK lock = UTIL_LOCK_Scoped(stLink.mutexLink);
    pJob->u32Format = ++stLink.u32Format;
    stLink.u32OutcomesOld = stLink.u32OutcomesAhead;
    lock.reset();
    // A worker that cannot be started leaves the state at formatting until the card is pulled.
    if (UTIL_THREAD_RunFuncAsync(Worker, pJob) != 0)
    {
        delete pJob;
    }
}

void QN_FORMAT_Detach(tagQN_HANDLER_S *pHandle)
{
    tagQN_FORMAT_LINK_S &stLink = *pHandle->pstPrivate->pFormats->spLink;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(stLink.mutexLink);
    stLink.pHandle = nullptr;
}

void QN_FORMAT_ResetOutcomes(tagQN_HANDLER_S *pHandle)
{
    tagQN_FORMAT_LINK_S &stLink = *pHandle->pstPrivate->pFormats->spLink;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(stLink.mutexLink);
    stLink.u32OutcomesAhead = 0;
    stLink.u32OutcomesOld = 0;
}

void QN_FORMAT_PostBegins(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent)
{
    if (enEvent != QN_EVENT_E_FORMAT_SUCCESS && enEvent != QN_EVENT_E_FORMAT_FAILED)
    {
        return;
    }
    tagQN_FORMAT_LINK_S &stLink = *pHandle->pstPrivate->pFormats->spLink;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(stLink.mutexLink);
    stLink.u32OutcomesAhead += 1;
}

// Counts down, but never below nothing: a host may call a handler itself.
static bool TakeOne(uint32_t &u32Count)
{
    const bool bAny = u32Count > 0;
    u32Count -= bAny ? 1 : 0;
    return bAny;
}

bool QN_FORMAT_TakeOutcome(tagQN_HANDLER_S *pHandle)
{
    tagQN_FORMAT_LINK_S &stLink = *pHandle->pstPrivate->pFormats->spLink;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(stLink.mutexLink);
    (void)TakeOne(stLink.u32OutcomesAhead);
    return !TakeOne(stLink.u32OutcomesOld); // they are handled in order: the old ones come first
}

} // namespace libquarrin
