// Record sessions as the rest of the library uses them. See libquarrin/record.h for the exported calls.
#ifndef QUARRIN_RECORD_SESSION_H
#define QUARRIN_RECORD_SESSION_H

#include <ctime>
#include <string>

#include "libquarrin/record.h"
#include "util/lock.h"

namespace libquarrin
{

/// Stops, finishes and frees a session.
///
/// \param pSession   the session; freed.
/// \param bUnlink    take it out of the handle's list.
/// \param pListLock  the held mutexRecordList of a caller that empties the list, or null. It is let go of while the
///                   call waits, and held again when it returns.
///
/// Threads: any. Locks: stMutex, mutexRecordList, one after the other.
void QN_RECORD_DestroySession(tagQN_RECORD_HANDLER_S *pSession, bool bUnlink, UTIL_LOCK *pListLock);

/// The session's in-progress path for a file that begins at a second. The caller holds stMutex.
std::string QN_RECORD_PathLocked(const tagQN_RECORD_HANDLER_S *pSession, time_t tStart);

/// Takes the writer out of the session, so that nobody else closes or asks it. The caller holds stMutex.
void *QN_RECORD_TakeWriterLocked(tagQN_RECORD_HANDLER_S *pSession);

} // namespace libquarrin

#endif
