// Whether the device is there. See the header.

#include "storage/presence.h"

#include "ring/handle_private.h"
#include "util/lock.h"

namespace libquarrin
{

static bool IsPlug(QN_EVENT_E enEvent)
{
    return enEvent == QN_EVENT_E_HOTPLUG_IN || enEvent == QN_EVENT_E_HOTPLUG_OUT;
}

void QN_PRESENCE_Reset(tagQN_HANDLER_S *pHandle)
{
    tagQN_PRESENCE_S *pPresence = pHandle->pstPrivate->pPresence;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPresence->mutexPresence);
    pPresence->u32PlugsAhead = 0;
}

void QN_PRESENCE_Note(tagQN_HANDLER_S *pHandle, bool bPresent)
{
    tagQN_PRESENCE_S *pPresence = pHandle->pstPrivate->pPresence;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPresence->mutexPresence);
    if (pPresence->u32PlugsAhead == 0)
    {
        pPresence->bSeen = bPresent;
    }
}

bool QN_PRESENCE_Seen(const tagQN_HANDLER_S *pHandle)
{
    return pHandle->pstPrivate->pPresence->bSeen.load();
}

void QN_PRESENCE_PostBegins(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent)
{
    if (!IsPlug(enEvent))
    {
        return;
    }
    tagQN_PRESENCE_S *pPresence = pHandle->pstPrivate->pPresence;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPresence->mutexPresence);
    pPresence->u32PlugsAhead += 1;
    pPresence->bSeen = enEvent == QN_EVENT_E_HOTPLUG_IN;
}

void QN_PRESENCE_Taken(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent)
{
    if (!IsPlug(enEvent))
    {
        return;
    }
    tagQN_PRESENCE_S *pPresence = pHandle->pstPrivate->pPresence;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPresence->mutexPresence);
    pPresence->u32PlugsAhead -= pPresence->u32PlugsAhead > 0 ? 1 : 0; // a host may write into the ring itself
}

} // namespace libquarrin
