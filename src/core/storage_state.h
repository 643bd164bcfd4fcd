// Storage state machine: what the handle needs of it.
#ifndef QUARRIN_CORE_STORAGE_STATE_H
#define QUARRIN_CORE_STORAGE_STATE_H

#include "libquarrin/handle.h"

namespace libquarrin
{

/// Unmounts a mounted card at the end of the handle's life; the state is not changed. Locks: mutexState, the card gate.
void QN_STORAGE_UnmountAtEnd(tagQN_HANDLER_S *pHandle);

/// The same behind the event thread's end, for a card that a handler has mounted since.
void QN_STORAGE_UnmountLate(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
