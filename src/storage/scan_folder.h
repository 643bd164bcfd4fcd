// The catalogue of a folder that is open already: what is listed is that folder, whatever its path leads to by now.
// Threads: any. Locks: none.
#ifndef QUARRIN_STORAGE_SCAN_FOLDER_H
#define QUARRIN_STORAGE_SCAN_FOLDER_H

#include <cstdint>
#include <vector>

#include "libquarrin/catalogue.h"
#include "util/fd.h"

namespace libquarrin
{

/// As QN_STORAGE_ScanFolder.
///
/// \param folder     an open directory, O_PATH suffices; it is closed.
/// \param pszFolder  its path, for the paths of the files.
int32_t QN_CATALOGUE_ScanOpen(UTIL_FD folder, const char *pszFolder, std::vector<tagQN_FILE_INFO_S> &vecFiles);

} // namespace libquarrin

#endif
