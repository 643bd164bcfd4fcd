// Split-off files that wait to be finished. The event thread finishes them; whoever takes the session or the card away
// does it before, and the event that comes later finds its work done.
// Threads: any. Locks: mutexFiles, a leaf, not held while a file is finished.
#ifndef QUARRIN_RECORD_SPLIT_FILES_H
#define QUARRIN_RECORD_SPLIT_FILES_H

#include <list>
#include <memory>

#include "libquarrin/record.h"

namespace libquarrin
{

/// One event, in a list of its own: what a note needs of memory is taken before anything is done.
using QN_SPLIT_NODE = std::list<std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S>>;

/// Notes a file that is being split off, before its event is posted. The node is moved into the list, or stays when the
/// file is finished already.
void QN_SPLIT_Add(tagQN_HANDLER_S *pHandle, QN_SPLIT_NODE &lstNode);

/// Takes the note back: the event could not be posted.
void QN_SPLIT_Remove(tagQN_HANDLER_S *pHandle, const std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S> &spEvent);

/// Finishes the files of one session, or of all when pSession is null, and waits for those that are being finished.
///
/// Blocks: for their trailers.
void QN_SPLIT_FinishAll(tagQN_HANDLER_S *pHandle, const tagQN_RECORD_HANDLER_S *pSession);

} // namespace libquarrin

#endif
