// Parts of a file name, found without taking memory. See libquarrin/naming.h for what names look like.
// Threads: any. Locks: none; pure functions of their arguments.
#ifndef QUARRIN_STORAGE_NAMES_H
#define QUARRIN_STORAGE_NAMES_H

#include <cstddef>
#include <ctime>

namespace libquarrin
{

/// Behind the last dot; null when there is none.
const char *QN_NAME_Extension(const char *pszName);

/// As QN_STORAGE_GetFilenameInfo does; false when the name does not begin with a time.
bool QN_NAME_Times(const char *pszName, tm &stStart, tm &stEnd);

/// Begin and length of the comment; 0, with pszComment untouched, when there is none.
size_t QN_NAME_Comment(const char *pszName, const char *&pszComment);

} // namespace libquarrin

#endif
