// The test of a volume's folder: a real directory on the file system of the mount point. The card is data from a
// stranger, and a link in place of the folder would lead out of it.
// Threads: any. Locks: mutexCard as a leaf. Call it under the card gate, or where an unmount has to wait in another
// way: what is open below the mount point makes an unmount fail.
#ifndef QUARRIN_STORAGE_VOLUME_FOLDER_H
#define QUARRIN_STORAGE_VOLUME_FOLDER_H

#include <string>

#include <sys/stat.h>

#include "libquarrin/handle.h"
#include "util/fd.h"

namespace libquarrin
{

/// What stands where a volume's folder belongs.
enum QN_VOLUME_FOLDER_E : int32_t
{
    QN_VOLUME_FOLDER_E_GOOD,    ///< a real directory on the file system of the mount point
    QN_VOLUME_FOLDER_E_MISSING, ///< nothing, or nobody can tell
    QN_VOLUME_FOLDER_E_REFUSED  ///< a link, something else than a directory, or another file system
};

/// Path of a volume's folder: the mount point, a slash and the folder's name.
std::string QN_VOLUME_Path(const tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume);

/// Opens a volume's folder without following a link in any component of its name; the mount point itself may be one.
///
/// A refusal is logged as an error, once a volume and mount. On a missing folder nothing is said.
///
/// \param folder  [out] an O_PATH descriptor of the folder; none unless the result is good. It stays on this very
///                folder, whatever is put in its place.
QN_VOLUME_FOLDER_E QN_VOLUME_OpenFolder(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, UTIL_FD &folder);

/// QN_VOLUME_OpenFolder for callers that go on by path.
QN_VOLUME_FOLDER_E QN_VOLUME_LookAtFolder(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume);

/// What the path of a volume leads to is still the folder that was opened, and is good.
///
/// \param stThen  what fstat told of it.
bool QN_VOLUME_IsStill(const tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, const struct stat &stThen);

/// `mkdir -p` for the volume would follow no link: all components but the last are good or missing.
bool QN_VOLUME_MayBeMade(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume);

} // namespace libquarrin

#endif
