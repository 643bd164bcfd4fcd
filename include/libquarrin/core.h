// Handle life cycle and state queries.
#ifndef LIBQUARRIN_CORE_H
#define LIBQUARRIN_CORE_H

#include "libquarrin/handle.h"

namespace libquarrin
{

/// Version of the library: the static text "1.0.0", the same pointer at every call.
///
/// Threads: any.
QN_API const char *QN_LibVersion();

/// Makes the handle of one removable device and starts its two threads.
///
/// The storage is looked at at once: an existing mount directory counts as a mounted card, a present device without one
/// is mounted in the background. Failures of that show in the log and in QN_GetState, not in the result.
///
/// \param pParam   the configuration; borrowed, copied. Not checked for null.
/// \param pHandle  [out] the handle; must be null on entry.
///
/// \return 0 done; 1 pHandle is already set (nothing is touched); 6 out of memory (pHandle stays null).
///
/// Threads: any.
/// Blocks:  no longer than two thread starts.
/// Owns:    the handle is the caller's until QN_Destroy.
QN_API uint32_t QN_Init(tagQN_STORAGE_PARAM_S *pParam, tagQN_HANDLER_S *&pHandle);

/// Closes everything of a handle: finishes and frees its record sessions, closes its replays, unmounts a mounted card,
/// stops its threads and frees it. A card that an event mounts meanwhile is unmounted too.
///
/// The host begins no other call on the handle, its sessions or its replays while this runs. Calls on sessions and
/// replays that began before are waited for, their destroys and closes too. A running format is let end first; one that
/// still runs is left alone and reports to nobody.
///
/// \param pHandle  [in, out] set to null.
///
/// \return 0 done; 1 pHandle is null.
///
/// Threads: any but the library's own; one call only.
/// Locks:   mutexRecordList, mutexReplayList, mutexState, and the sessions' mutexes; call it holding none of them.
/// Blocks:  for the trailers of the open files, the calls on sessions and replays, the unmount command, and the event
///          that is being handled; for commands below the mount point as QN_StorageUnMount does.
QN_API uint32_t QN_Destroy(tagQN_HANDLER_S *&pHandle);

/// Reads the life-cycle state of the storage.
///
/// \param pHandle   the handle.
/// \param penState  [out] the state; untouched on failure.
///
/// \return 0 done; 1 pHandle is null.
///
/// Threads: any.
/// Locks:   mutexState.
/// Blocks:  while a mount or unmount command runs.
QN_API uint32_t QN_GetState(tagQN_HANDLER_S *pHandle, QN_STATE_E *penState);

/// Reads the fullness of the storage. As QN_GetState otherwise.
QN_API uint32_t QN_GetStorageState(tagQN_HANDLER_S *pHandle, QN_STORAGE_STATE_E *penState);

/// Releases quota data and stops the hotplug thread; QN_Destroy calls it.
///
/// \return 0.
///
/// Blocks:  until the hotplug thread has ended: about 200 ms, or what is left of an event's second.
QN_API int32_t QN_STORAGE_Destroy(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
