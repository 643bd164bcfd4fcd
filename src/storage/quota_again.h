// Quota checks that no session asks for: behind a mount, and behind one that the file system or the memory cut short.
// Threads: the event thread. Locks: the card gate, shared; mutexFiles as a leaf. Both look at a mounted card only.
#ifndef QUARRIN_STORAGE_QUOTA_AGAIN_H
#define QUARRIN_STORAGE_QUOTA_AGAIN_H

#include "libquarrin/handle.h"

namespace libquarrin
{

/// A check of each enabled volume, so that a full storage that was found on another card, or on none, does not outlive
/// the mount. Volume 0 comes last, so that the word is its.
///
/// Call it behind every mount that found the storage full, with the folders made.
void QN_QUOTA_CheckAfterMount(tagQN_HANDLER_S *pHandle);

/// Checks a volume whose quota is a part of a file system that did not tell its size a second ago, and that counts as
/// full for it; or whose files there was no memory to list. One volume a call, so that events come between them.
///
/// Call it at every step of the event thread; it comes back at once when nothing is due.
void QN_QUOTA_CheckAgain(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
