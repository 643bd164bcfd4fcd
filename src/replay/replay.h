// Replays as the rest of the library uses them. See libquarrin/replay.h for the exported calls.
#ifndef QUARRIN_REPLAY_REPLAY_H
#define QUARRIN_REPLAY_REPLAY_H

#include "libquarrin/replay.h"

namespace libquarrin
{

/// The card was pulled: closes the readers of all replays of a handle. A frame that a host has out stays until the host
/// closes its replay.
///
/// Threads: the event thread. Locks: mutexReplayList, then each replay's mutexReplay.
void QN_REPLAY_CloseReaders(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
