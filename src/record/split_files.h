// Split-off files that wait to be finished. The event thread finishes them; whoever takes the session or the card away
// does it before, and the event that comes later finds its work done.
// Threads: any. Locks: mutexSplits, a leaf, not held while a file is finished.
#ifndef QUARRIN_RECORD_SPLIT_FILES_H
#define QUARRIN_RECORD_SPLIT_FILES_H

#include <list>
#include <memory>
#include <pthread.h>

#include "libquarrin/record.h"

namespace libquarrin
{

/// One event, in a list of its own: what a note needs of memory is taken before anything is done.
using QN_SPLIT_NODE = std::list<std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S>>;

struct tagQN_SPLITS_S
{
    pthread_mutex_t mutexSplits = PTHREAD_MUTEX_INITIALIZER; ///< guards the list, and s32Finish of its events
    pthread_cond_t condSplits = PTHREAD_COND_INITIALIZER;    ///< a file was finished
    QN_SPLIT_NODE lstSplits;                                 ///< split off and not finished yet
};

/// Notes a file that is being split off, before its event is posted. The node is moved into the list, or stays when the
/// file is finished already.
void QN_SPLIT_Add(tagQN_HANDLER_S *pHandle, QN_SPLIT_NODE &lstNode);

/// Takes the note back: the event could not be posted.
void QN_SPLIT_Remove(tagQN_HANDLER_S *pHandle, const std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> &spEvent);

/// Finishes the file of an event, unless somebody has begun to. Returns what QN_RecordClosePostProcess does; 0 when it
/// is somebody else's.
///
/// \param spEvent  by value: the note that it came from is taken back here.
///
/// Blocks: for the trailer.
uint32_t QN_SPLIT_Finish(tagQN_HANDLER_S *pHandle, std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> spEvent);

/// Finishes the files of one session, or of all when pSession is null, and waits for those that are being finished.
///
/// Blocks: for their trailers.
void QN_SPLIT_FinishAll(tagQN_HANDLER_S *pHandle, const tagQN_RECORD_HANDLER_S *pSession);

} // namespace libquarrin

#endif
