// Record sessions as the rest of the library uses them. See libquarrin/record.h for the exported calls.
#ifndef QUARRIN_RECORD_SESSION_H
#define QUARRIN_RECORD_SESSION_H

#include <atomic>
#include <ctime>
#include <pthread.h>
#include <string>

#include "libquarrin/record.h"
#include "util/calls.h"

namespace libquarrin
{

struct tagQN_RECORD_PRIVATE_S
{
    /// Guards pWriter and the calls on it against QN_REcordGetWriteBytes, which holds nothing else.
    pthread_mutex_t mutexWriter = PTHREAD_MUTEX_INITIALIZER;

    UTIL_CALLS_S stCalls; ///< every call on the session; QN_RecordDestroy waits for them

    // Atomic; readers take no lock
    std::atomic<bool> bStarting{false}; ///< a start is under way: it may be waiting for a second of its own
    std::atomic<uint32_t> u32Stops{0};  ///< stops and destroys so far; changed under stMutex. They end a start

    // Guarded by the session's stMutex
    bool bPathClaimed = false; ///< strFilePath is claimed for this session
    bool bHasVideo = false;    ///< a frame of video went into the current file
    bool bAwaitKey = false;    ///< a key frame could not begin the video of the file: frames wait for the next one
    bool bDamageSaid = false;  ///< and the log has it, for the file that waits

    bool bOwnsParameterSets = false; ///< constant after QN_RecordInit
};

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

/// The card was pulled: all sessions of a handle drop their frames from now on, until the host stops them.
///
/// Threads: any. Locks: mutexRecordList, then each session's stMutex.
void QN_RECORD_StopAll(tagQN_HANDLER_S *pHandle);

/// The session's in-progress path for a file that begins at a second. The caller holds stMutex.
std::string QN_RECORD_PathLocked(const tagQN_RECORD_HANDLER_S *pSession, time_t tStart);

/// The current file has no video yet. The caller holds stMutex.
void QN_RECORD_ForgetVideoLocked(tagQN_RECORD_HANDLER_S *pSession);

/// Gives the claimed path of the current file back, if there is one. The caller holds stMutex.
void QN_RECORD_ReleasePathLocked(tagQN_RECORD_HANDLER_S *pSession);

/// Opens a writer on the session's path, at which nothing but a regular file is left standing; null on failure, also
/// when the volume's folder is refused. The caller holds stMutex, and the card gate or a running session: an unmount
/// waits for either.
void *QN_RECORD_OpenWriterLocked(tagQN_RECORD_HANDLER_S *pSession);

/// Takes the writer out of the session, so that nobody else closes or asks it. The caller holds stMutex.
void *QN_RECORD_TakeWriterLocked(tagQN_RECORD_HANDLER_S *pSession);

} // namespace libquarrin

#endif
