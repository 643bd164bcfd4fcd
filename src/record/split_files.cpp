// Split-off files that wait to be finished. See the header.

#include "record/split_files.h"

#include "record/finish.h"
#include "ring/handle_private.h"
#include "storage/card.h"
#include "util/lock.h"
#include "util/results.h"

namespace libquarrin
{

// s32Finish of a split event.
constexpr int32_t FINISH_TO_DO = 0;
constexpr int32_t FINISH_RUNNING = 1;
constexpr int32_t FINISH_DONE = 2;

void QN_SPLIT_Add(tagQN_HANDLER_S *pHandle, QN_SPLIT_NODE &lstNode)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->pstPrivate->pSplits->mutexSplits);
    if (lstNode.front()->s32Finish == FINISH_TO_DO) // Invariant: what stands in the list is not finished
    {
        QN_SPLIT_NODE &lstSplits = pHandle->pstPrivate->pSplits->lstSplits;
        lstSplits.splice(lstSplits.end(), lstNode);
    }
}

void QN_SPLIT_Remove(tagQN_HANDLER_S *pHandle, const std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> &spEvent)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->pstPrivate->pSplits->mutexSplits);
    pHandle->pstPrivate->pSplits->lstSplits.remove(spEvent);
}

uint32_t QN_SPLIT_Finish(tagQN_HANDLER_S *pHandle, std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> spEvent)
{
    tagQN_SPLITS_S *pSplits = pHandle->pstPrivate->pSplits;
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSplits->mutexSplits);
        if (spEvent->s32Finish != FINISH_TO_DO)
        {
            return QN_RET_OK;
        }
        spEvent->s32Finish = FINISH_RUNNING;
    }
    const uint32_t u32Result = QN_FINISH_SplitFile(*spEvent);
    if (spEvent->bPathClaimed)
    {
        QN_CARD_Release(pHandle, spEvent->strFilePath);
    }
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSplits->mutexSplits);
    spEvent->s32Finish = FINISH_DONE;
    pSplits->lstSplits.remove(spEvent);
    pthread_cond_broadcast(&pSplits->condSplits);
    return u32Result;
}

// The first file of the session that is not finished; null when there is none.
static std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> FirstLocked(tagQN_SPLITS_S *pSplits,
                                                             const tagQN_RECORD_HANDLER_S *pSession)
{
    for (const std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> &spEvent : pSplits->lstSplits)
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
    tagQN_SPLITS_S *pSplits = pHandle->pstPrivate->pSplits;
    UTIL_LOCK lock = UTIL_LOCK_Scoped(pSplits->mutexSplits);
    while (std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> spEvent = FirstLocked(pSplits, pSession))
    {
        if (spEvent->s32Finish == FINISH_RUNNING)
        {
            pthread_cond_wait(&pSplits->condSplits, &pSplits->mutexSplits);
            continue;
        }
        lock.reset();
        (void)QN_SPLIT_Finish(pHandle, spEvent); // a file that another thread took meanwhile is waited for above
        lock = UTIL_LOCK_Scoped(pSplits->mutexSplits);
    }
}

} // namespace libquarrin
