// The path of a file that is about to be made: a card is data from a stranger, and the names of the seconds to come can
// be guessed.
// Threads: any. Locks: none.
#ifndef QUARRIN_STORAGE_NEW_FILE_H
#define QUARRIN_STORAGE_NEW_FILE_H

namespace libquarrin
{

/// Takes away what stands at the path and is no regular file: a link, a FIFO, a device node. Opened for writing it
/// would lead elsewhere, or hang.
///
/// A folder stays, and the open fails on it. A device node below /dev stays too: no file is recorded there, so a host
/// that names one means it.
///
/// \return false when it cannot be taken away: the path is not to be opened.
bool QN_NEWFILE_MakeWay(const char *pszPath);

/// Nothing stands at the path, or a regular file.
bool QN_NEWFILE_IsFreeOrFile(const char *pszPath);

} // namespace libquarrin

#endif
