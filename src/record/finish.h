// Finishing of files, for split-off ones. See libquarrin/record.h for the exported calls.
#ifndef QUARRIN_RECORD_FINISH_H
#define QUARRIN_RECORD_FINISH_H

#include <string>

#include "libquarrin/record.h"

namespace libquarrin
{

/// Finishes the file of a split event, as QN_RecordClosePostProcess does, on what the event holds.
///
/// Threads: the event thread, or a host's that destroys the session. Locks: none. Blocks: for the trailer.
uint32_t QN_FINISH_SplitFile(const tagQN_AUTO_SPLIT_EVENT_S &stEvent);

/// The final path of a split event's file; empty when there is no memory for it. Threads: any. Locks: none.
std::string QN_FINISH_FinalPath(const tagQN_AUTO_SPLIT_EVENT_S &stEvent);

/// Takes the name away from a file that is being split off, for the next file that begins under the same one: removes
/// it when it is too short to be kept, otherwise gives it its final name strFinal at once. Its writer goes on under no
/// name.
///
/// Threads: the one that splits, in any order with QN_FINISH_SplitFile; bPathTaken is set. Locks: none taken.
void QN_FINISH_MakeWay(const tagQN_AUTO_SPLIT_EVENT_S &stEvent, const std::string &strFinal);

} // namespace libquarrin

#endif
