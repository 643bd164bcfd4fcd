// Finishing of files, for split-off ones. See libquarrin/record.h for the exported calls.
#ifndef QUARRIN_RECORD_FINISH_H
#define QUARRIN_RECORD_FINISH_H

#include "libquarrin/record.h"

namespace libquarrin
{

/// Finishes the file of a split event, as QN_RecordClosePostProcess does, on what the event holds.
///
/// Threads: the event thread, or a host's that destroys the session. Locks: none. Blocks: for the trailer.
uint32_t QN_FINISH_SplitFile(const tagQN_AUTO_SPLIT_EVENT_S &stEvent);

} // namespace libquarrin

#endif
