// Storage state machine: what the handle needs of it.
#ifndef QUARRIN_CORE_STORAGE_STATE_H
#define QUARRIN_CORE_STORAGE_STATE_H

#include "libquarrin/handle.h"

namespace libquarrin
{

struct tagQN_FORMAT_JOB_S;

/// What a format worker needs, to be handed to QN_FORMAT_Start; null: no memory. Threads: any. Locks: none.
tagQN_FORMAT_JOB_S *QN_FORMAT_Make(const tagQN_HANDLER_S *pHandle, QN_FS_TYPE_E enFsType);

/// Starts the format worker; the caller holds mutexState and has set QN_STATE_E_FORMATING. A worker that still runs for
/// a card that was pulled does nothing more. Threads: any. Locks: the link's mutex, then mutexEvent.
void QN_FORMAT_Start(tagQN_HANDLER_S *pHandle, tagQN_FORMAT_JOB_S *pJob);

/// Cuts off a format worker that still runs: it ends on its own and posts nothing more.
void QN_FORMAT_Detach(tagQN_HANDLER_S *pHandle);

/// Unmounts a mounted card at the end of the handle's life; the state is not changed. Locks: mutexState, the card gate.
void QN_STORAGE_UnmountAtEnd(tagQN_HANDLER_S *pHandle);

/// The same behind the event thread's end, for a card that a handler has mounted since.
void QN_STORAGE_UnmountLate(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
