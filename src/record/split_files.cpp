// Split-off files that wait to be finished. See the header.

#include "record/split_files.h"

#include "libquarrin/events.h"
#include "record/finish.h"
#include "ring/handle_private.h"
#include "storage/writing_files.h"
#include "util/lock.h"
#include "util/results.h"

namespace libquarrin
{

// s32Finish of a split event; guarded by mutexFiles.
constexpr int32_t FINISH_TO_DO = 0;
constexpr int32_t FINISH_RUNNING = 1;
constexpr int32_t FINISH_DONE = 2;

void QN_SPLIT_Add(tagQN_HANDLER_S *pHandle, QN_SPLIT_NODE &lstNode)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->pstPrivate->mutexFiles);
    if (lstNode.front()->s32Finish == FINISH_TO_DO) // Invariant: what stands in the list is not finished
    {
        QN_SPLIT_NODE &lstSplits = pHandle->pstPrivate->lstSplits;
        lstSplits.splice(lstSplits.end(), lstNode);
    }
}

void QN_SPLIT_Remove(tagQN_HANDLER_S *pHandle, const std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> &spEvent)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->pstPrivate->mutexFiles);
    pHandle->pstPrivate->lstSplits.remove(spEvent);
}

// Whoever comes first does it. spEvent is by value: the note that it came from is taken back here.
static uint32_t FinishOnce(tagQN_HANDLER_S *pHandle, std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> spEvent)
{
    tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPrivate->mutexFiles);
        if (spEvent->s32Finish != FINISH_TO_DO)
        {
            return QN_RET_OK;
        }
        spEvent->s32Finish = FINISH_RUNNING;
    }
    const uint32_t u32Result = QN_FINISH_SplitFile(*spEvent);
    if (spEvent->bPathClaimed)
    {
        QN_WRITING_Release(pHandle, spEvent->strFilePath);
    }
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPrivate->mutexFiles);
    spEvent->s32Finish = FINISH_DONE;
    pPrivate->lstSplits.remove(spEvent);
    pthread_cond_broadcast(&pPrivate->condFiles);
    return u32Result;
}

// The first file of the session that is not finished; null when there is none.
static std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> FirstLocked(tagQN_HANDLER_PRIVATE_S *pPrivate,
                                                             const tagQN_RECORD_HANDLER_S *pSession)
{
    for (const std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> &spEvent : pPrivate->lstSplits)
    {
        if (pSession == nullptr || spEvent->pstRecord == pSession)
        {
            return spEvent;
        }
    }
    return nullptr;
}

void QN_SPLIT_FinishAll(tagQN_HANDLER_S *pHandle, const tagQN_RECORD_HANDLER_S *pSession)
{
    tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    UTIL_LOCK lock = UTIL_LOCK_Scoped(pPrivate->mutexFiles);
    while (std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> spEvent = FirstLocked(pPrivate, pSession))
    {
        if (spEvent->s32Finish == FINISH_RUNNING)
        {
            pthread_cond_wait(&pPrivate->condFiles, &pPrivate->mutexFiles);
            continue;
        }
        lock.reset();
        (void)FinishOnce(pHandle, spEvent); // a file that another thread took meanwhile is waited for above
        lock = UTIL_LOCK_Scoped(pPrivate->mutexFiles);
    }
}

int32_t QN_EVENT_HandleRecordAutoSplit(tagQN_HANDLER_S *pHandle, std::shared_ptr<void> spPayload)
{
    const auto spEvent = std::static_pointer_cast<tagQN_AUTO_SPLIT_EVENT_S>(spPayload);
    if (spEvent == nullptr)
    {
        return static_cast<int32_t>(QN_RET_NULL_HANDLE);
    }
    return static_cast<int32_t>(FinishOnce(pHandle, spEvent));
}

} // namespace libquarrin
