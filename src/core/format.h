// Formats: the worker that a handle starts, and the events that tell its outcome.
// Threads: any. Locks: mutexLink, then mutexEvent.
#ifndef QUARRIN_CORE_FORMAT_H
#define QUARRIN_CORE_FORMAT_H

#include "libquarrin/handle.h"

namespace libquarrin
{

struct tagQN_FORMATS_S;
struct tagQN_FORMAT_JOB_S;

/// What a handle keeps of its formats; null: no memory.
tagQN_FORMATS_S *QN_FORMAT_New(tagQN_HANDLER_S *pHandle);

/// Frees it. A worker that still runs keeps what it needs. Null is none.
void QN_FORMAT_Delete(tagQN_FORMATS_S *pFormats);

/// What a format worker needs, to be handed to QN_FORMAT_Start; null: no memory. Threads: any. Locks: none.
tagQN_FORMAT_JOB_S *QN_FORMAT_Make(const tagQN_HANDLER_S *pHandle, QN_FS_TYPE_E enFsType);

/// Starts the format worker; the caller holds mutexState and has set QN_STATE_E_FORMATING. A worker that still runs for
/// a card that was pulled does nothing more. Outcomes that are queued, or whose handlers have not begun, are an earlier
/// format's from now on.
void QN_FORMAT_Start(tagQN_HANDLER_S *pHandle, tagQN_FORMAT_JOB_S *pJob);

/// Cuts off a format worker that still runs: it ends on its own and posts nothing more.
void QN_FORMAT_Detach(tagQN_HANDLER_S *pHandle);

/// No outcome is ahead: the ring has been emptied.
void QN_FORMAT_ResetOutcomes(tagQN_HANDLER_S *pHandle);

/// The post of an event that is not the worker's begins: a host may tell an outcome itself.
void QN_FORMAT_PostBegins(tagQN_HANDLER_S *pHandle, QN_EVENT_E enEvent);

/// The handler of a format's outcome begins. False: it is an earlier format's. The caller holds mutexState.
bool QN_FORMAT_TakeOutcome(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
