// Record sessions as the rest of the library uses them. See libquarrin/record.h for the exported calls.
#ifndef QUARRIN_RECORD_SESSION_H
#define QUARRIN_RECORD_SESSION_H

#include <ctime>
#include <string>

#include "libquarrin/record.h"
#include "util/calls.h"

namespace libquarrin
{

/// Begins a call on a session: its first step, and QN_RecordDestroy waits for the call from then on. Empty for a record
/// that is no session of the library's.
[[nodiscard]] UTIL_CALL QN_RECORD_BeginCall(const tagQN_RECORD_HANDLER_S *pSession);

/// Stops, finishes and frees a session; waits for the calls on it.
///
/// \param pSession  the session; freed.
/// \param bUnlink   take it out of the handle's list.
///
/// Threads: any. Locks: stMutex, mutexRecordList, one after the other; none while it waits.
void QN_RECORD_DestroySession(tagQN_RECORD_HANDLER_S *pSession, bool bUnlink);

/// Frees the record of a session, with what it owns of memory; the session is in no list.
void QN_RECORD_FreeSession(tagQN_RECORD_HANDLER_S *pSession);

/// The session's in-progress path for a file that begins at a second. The caller holds stMutex.
std::string QN_RECORD_PathLocked(const tagQN_RECORD_HANDLER_S *pSession, time_t tStart);

/// The current file has no video yet. The caller holds stMutex.
void QN_RECORD_ForgetVideoLocked(tagQN_RECORD_HANDLER_S *pSession);

/// Opens a writer on the session's path, at which nothing but a regular file is left standing; null on failure, also
/// when the volume's folder is refused. The caller holds stMutex, and the card gate or a running session: an unmount
/// waits for either.
void *QN_RECORD_OpenWriterLocked(tagQN_RECORD_HANDLER_S *pSession);

/// Takes the writer out of the session, so that nobody else closes or asks it. The caller holds stMutex.
void *QN_RECORD_TakeWriterLocked(tagQN_RECORD_HANDLER_S *pSession);

} // namespace libquarrin

#endif
