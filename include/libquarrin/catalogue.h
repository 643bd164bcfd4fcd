// File catalogue: what a folder holds, read from its file names. There is no index file.
#ifndef LIBQUARRIN_CATALOGUE_H
#define LIBQUARRIN_CATALOGUE_H

#include <ctime>
#include <string>
#include <vector>

#include "libquarrin/types.h"

namespace libquarrin
{

/// One media file.
struct tagQN_FILE_INFO_S
{
    std::string strName;    ///< file name
    std::string strPath;    ///< path, as scanned or as given
    std::string strComment; ///< comment of the name, empty if none
    std::string strExt;     ///< text behind the last dot of the name, empty if there is none
    uint64_t u64Size = 0;   ///< size in bytes, modulo 2^32
    time_t tStart = 0;      ///< start from the name; a UTC text read as local time, so right where TZ is UTC
    time_t tEnd = 0;        ///< end from the name, the same way; equal to tStart for a file in progress and a picture
};

/// Describes one file.
///
/// \param pszPath  path of the file.
/// \param pstInfo  [out] the record; untouched unless the path is a regular file with a name that can be read.
///
/// \return 0 done, and also when the path is no regular file; -1 missing, or the name cannot be read (logged);
///         6 no memory.
///
/// Threads: any.
QN_API int32_t QN_STORAGE_GetFileInfo(const char *pszPath, tagQN_FILE_INFO_S *pstInfo);

/// Lists the media files of a folder, earliest start first; files of one second stand in no certain order.
///
/// \param pszFolder  path of the folder.
/// \param vecFiles   [out] the files; untouched when the folder cannot be opened, empty when there is no memory.
///
/// \return 0; 6 no memory.
///
/// Threads: any.
/// Blocks:  for one lstat per entry.
QN_API int32_t QN_STORAGE_ScanFolder(const char *pszFolder, std::vector<tagQN_FILE_INFO_S> &vecFiles);

} // namespace libquarrin

#endif
