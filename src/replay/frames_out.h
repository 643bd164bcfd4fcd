// Frames that hosts have out of replays whose readers an unplug has closed: they stay where they are until the replay
// is closed, since nothing has told the host yet. Threads: any. Locks: mutexFrames, a leaf.
#ifndef QUARRIN_REPLAY_FRAMES_OUT_H
#define QUARRIN_REPLAY_FRAMES_OUT_H

#include <list>
#include <pthread.h>
#include <utility>

#include "libquarrin/replay.h"

namespace libquarrin
{

/// A replay and the frame that was out when an unplug took its reader; null: none was.
using QN_FRAME_OUT = std::pair<const tagQN_REPLAY_HANDLER_S *, void *>;

struct tagQN_FRAMES_OUT_S
{
    pthread_mutex_t mutexFrames = PTHREAD_MUTEX_INITIALIZER;
    std::list<QN_FRAME_OUT> lstFrames; ///< guarded: one of each open replay
};

/// Moves a replay's node into the list: an unplug needs no memory then.
void QN_FRAMES_Add(tagQN_HANDLER_S *pHandle, std::list<QN_FRAME_OUT> &lstNode);

/// Keeps a frame for its replay, in the room that QN_FRAMES_Add made.
void QN_FRAMES_Keep(const tagQN_REPLAY_HANDLER_S *pReplay, void *pFrame);

/// The replay is closed: frees what an unplug has left to the host, and takes its node out.
void QN_FRAMES_Free(const tagQN_REPLAY_HANDLER_S *pReplay);

} // namespace libquarrin

#endif
