// Storage state machine: what the handle needs of it.
#ifndef QUARRIN_CORE_STORAGE_STATE_H
#define QUARRIN_CORE_STORAGE_STATE_H

#include "libquarrin/handle.h"

namespace libquarrin
{

/// Starts the format worker; the caller has set QN_STATE_E_FORMATING. Threads: any. Locks: none.
void QN_FORMAT_Start(tagQN_HANDLER_S *pHandle, QN_FS_TYPE_E enFsType);

/// Cuts off a format worker that still runs: it ends on its own and posts nothing more.
///
/// Call it holding no lock: a worker that is just posting waits for room in the ring.
void QN_FORMAT_Detach(tagQN_HANDLER_S *pHandle);

/// The partition to mount. The format worker sets it without a lock.
int32_t QN_STORAGE_PartitionNo(const tagQN_HANDLER_S *pHandle);

/// Unmounts a mounted card at the end of the handle's life; the state is not changed. Locks: mutexState, the card gate.
void QN_STORAGE_UnmountAtEnd(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
