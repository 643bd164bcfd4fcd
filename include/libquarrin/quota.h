// Quota: keeps the files of a volume below its quota. Checks run on the event thread.
#ifndef LIBQUARRIN_QUOTA_H
#define LIBQUARRIN_QUOTA_H

#include "libquarrin/handle.h"

namespace libquarrin
{

/// Makes the folders of the enabled volumes and lets the next throttled check through. Returns 0.
///
/// Does nothing on a card that the library has unmounted and not mounted again.
///
/// Threads: the event thread.
/// Blocks:  for one command per volume.
QN_API int32_t QN_STORAGE_QuotaInit(tagQN_HANDLER_S *pHandle);

/// Checks one volume now: deletes its oldest files, or declares the storage full, when quota - used <= reserve.
///
/// A file that a session of the handle is writing counts as used and is never deleted. When the file system does not
/// tell its size (a failing query, or a total of 0), a quota in per cent is 0, and nothing is deleted for it; without
/// automatic deletion the storage counts as full, and the volume is checked again every second or two while it is
/// mounted.
///
/// \return 0, also for a volume that is disabled or does not exist.
///
/// Threads: the event thread.
/// Blocks:  for a listing of the folder and the deletions; an unmount waits for it.
QN_API int32_t QN_STORAGE_QuotaCheck(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume);

/// As QN_STORAGE_QuotaCheck, at most once in 120 seconds, or at every 200th call. Returns 0.
QN_API int32_t QN_STORAGE_QuotaCheckWithThrottle(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume);

/// Releases quota data; there is none today. Returns 0.
QN_API int32_t QN_STORAGE_QuotaDestroy(tagQN_HANDLER_S *pHandle);

} // namespace libquarrin

#endif
