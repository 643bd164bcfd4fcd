// The paths of the files that sessions of a handle are writing: no two sessions share one, and quota spares them.
// Threads: any. Locks: mutexFiles, a leaf.
#ifndef QUARRIN_STORAGE_WRITING_FILES_H
#define QUARRIN_STORAGE_WRITING_FILES_H

#include <string>

#include "libquarrin/handle.h"

namespace libquarrin
{

/// Takes a path. False when somebody has it.
bool QN_WRITING_Claim(tagQN_HANDLER_S *pHandle, const std::string &strPath);

/// Gives a claimed path back.
void QN_WRITING_Release(tagQN_HANDLER_S *pHandle, const std::string &strPath);

/// Somebody has the path.
bool QN_WRITING_IsClaimed(tagQN_HANDLER_S *pHandle, const std::string &strPath);

} // namespace libquarrin

#endif
