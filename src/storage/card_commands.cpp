// Shell commands of ours that run below the mount point. See the header.

#include "storage/card_commands.h"

#include <time.h>

#include "core/handle_private.h"
#include "util/lock.h"

namespace libquarrin
{

// Making a folder or moving a file takes milliseconds on a card that works.
constexpr time_t COMMAND_SECONDS = 2;

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

void QN_CARD_WaitForCommands(tagQN_HANDLER_S *pHandle)
{
    tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    struct timespec stDeadline = {};
    clock_gettime(CLOCK_REALTIME, &stDeadline); // the condition's clock
    stDeadline.tv_sec += COMMAND_SECONDS;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPrivate->mutexFiles);
    while (pPrivate->u32Commands > 0 &&
           pthread_cond_timedwait(&pPrivate->condFiles, &pPrivate->mutexFiles, &stDeadline) == 0)
    {
    }
}

} // namespace libquarrin
