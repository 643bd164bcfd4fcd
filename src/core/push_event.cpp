// The post that hosts and handlers make: into the ring, with a note of what the event tells.
// Threads: any. Locks: leaves, one after the other. Not here: the ring itself (src/ring).

#include "libquarrin/events.h"

#include <exception>

#include "core/format.h"
#include "record/split_files.h"
#include "ring/ring.h"
#include "storage/presence.h"
#include "util/results.h"

namespace libquarrin
{

int32_t QN_EVENT_PushEvent(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent, std::shared_ptr<void> spPayload)
try
{
    if (enEvent == QN_EVENT_E_RECORD_AUTO_SPLIT && spPayload != nullptr)
    {
        // A host's own; the session may go before the event is taken out.
        QN_SPLIT_NODE lstNode(1, std::static_pointer_cast<tagQN_AUTO_SPLIT_EVENT_S>(spPayload));
        QN_SPLIT_Add(pHandle, lstNode);
    }
    QN_PRESENCE_PostBegins(pHandle, enEvent);
    QN_FORMAT_PostBegins(pHandle, enEvent);
    QN_RING_Push(pHandle, enEvent, spPayload);
    return 0;
}
catch (const std::exception &)
{
    return static_cast<int32_t>(QN_RET_NO_MEMORY); // nothing was posted
}

} // namespace libquarrin
