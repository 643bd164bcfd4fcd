// The post that hosts and handlers make: into the ring, with a note of a split-off file.
// Threads: any. Locks: mutexFiles and mutexEvent, both leaves, one after the other. Not here: the ring itself
// (src/ring).

#include "libquarrin/events.h"

#include <exception>

#include "record/split_files.h"
#include "ring/event_queue.h"
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
    QN_EVENT_Push(pHandle, enEvent, spPayload);
    return 0;
}
catch (const std::exception &)
{
    return static_cast<int32_t>(QN_RET_NO_MEMORY); // nothing was posted
}

} // namespace libquarrin
