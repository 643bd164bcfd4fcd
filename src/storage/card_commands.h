// Shell commands of ours that run below the mount point: an unmount lets them end, since they would keep the card busy.
// They begin through the card gate but do not hold it: a command that hangs must not keep the unmount for good.
// Threads: any. Locks: the card gate, shared, at the begin; mutexFiles, a leaf.
#ifndef QUARRIN_STORAGE_CARD_COMMANDS_H
#define QUARRIN_STORAGE_CARD_COMMANDS_H

#include "libquarrin/handle.h"

namespace libquarrin
{

/// A command begins. Waits while an unmount is under way.
void QN_CARD_CommandBegin(tagQN_HANDLER_S *pHandle);

/// It has ended.
void QN_CARD_CommandEnd(tagQN_HANDLER_S *pHandle);

/// Waits for the commands that run; for those that hang, two seconds. The caller holds the gate exclusively, so that none
/// begin.
void QN_CARD_WaitForCommands(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
