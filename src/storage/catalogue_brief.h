// A folder's media files as a quota check sees them: the check runs in the background and must not need the memory of a
// whole listing.
#ifndef QUARRIN_STORAGE_CATALOGUE_BRIEF_H
#define QUARRIN_STORAGE_CATALOGUE_BRIEF_H

#include <ctime>
#include <string>
#include <vector>

namespace libquarrin
{

/// What a check reads of one file.
struct tagQN_BRIEF_S
{
    time_t tStart;       ///< as tagQN_FILE_INFO_S has it
    std::string strName; ///< below the folder
    uint32_t u32Size;    ///< bytes, modulo 2^32
};

/// The files that QN_STORAGE_ScanFolder lists, in the same order and with its warnings.
///
/// \param pszFolder  path of the folder; one that cannot be opened is empty.
std::vector<tagQN_BRIEF_S> QN_CATALOGUE_Brief(const char *pszFolder);

} // namespace libquarrin

#endif
