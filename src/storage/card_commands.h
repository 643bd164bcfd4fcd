// Mounting and unmounting the handle's partition, and the shell commands of ours that run below the mount point: an
// unmount lets them end, since they would keep the card busy. They begin through the card gate but do not hold it: a
// command that hangs on a card that was pulled must not keep the unmount for good.
// Threads: any. Locks: the card gate, shared, at the begin of a command; mutexFiles, a leaf.
#ifndef QUARRIN_STORAGE_CARD_COMMANDS_H
#define QUARRIN_STORAGE_CARD_COMMANDS_H

#include "libquarrin/handle.h"

namespace libquarrin
{

/// A command begins. Waits while an unmount is under way.
void QN_CARD_CommandBegin(tagQN_HANDLER_S *pHandle);

/// It has ended.
void QN_CARD_CommandEnd(tagQN_HANDLER_S *pHandle);

/// The partition to mount. The format worker sets it without a lock.
int32_t QN_CARD_PartitionNo(const tagQN_HANDLER_S *pHandle);

/// Runs the mount line; true when it succeeded. The caller holds mutexState and sets enState.
bool QN_CARD_Mount(tagQN_HANDLER_S *pHandle);

/// Waits for our commands and runs the unmount line. The caller holds mutexState and the gate exclusively, so that no
/// command begins, and sets enState.
///
/// A command is waited for as long as it runs and the device is there; two seconds more once the device has gone.
///
/// \param bGone  a hot-unplug: the device has gone already.
void QN_CARD_Unmount(tagQN_HANDLER_S *pHandle, bool bGone);

/// The last line of ours that succeeded in mounting came before the last unmount line: the mount directory is not the
/// card's. False before the first unmount. To be asked between begin and end of a command, or with the gate held.
bool QN_CARD_IsUnmounted(const tagQN_HANDLER_S *pHandle);

/// A handler takes enState away from a mounted card without an unmount line: nobody would unmount it any more.
void QN_CARD_LeaveMounted(tagQN_HANDLER_S *pHandle);

/// That happened, and neither an unmount line nor a mount came since.
bool QN_CARD_IsLeftMounted(const tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
