// The paths of the files in progress. See the header.

#include "storage/writing_files.h"

#include <algorithm>

#include "ring/handle_private.h"
#include "util/lock.h"

namespace libquarrin
{

static std::list<std::string>::iterator FindLocked(tagQN_HANDLER_PRIVATE_S *pPrivate, const std::string &strPath)
{
    return std::find(pPrivate->lstWriting.begin(), pPrivate->lstWriting.end(), strPath);
}

bool QN_WRITING_Claim(tagQN_HANDLER_S *pHandle, const std::string &strPath)
{
    tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPrivate->mutexFiles);
    if (FindLocked(pPrivate, strPath) != pPrivate->lstWriting.end())
    {
        return false;
    }
    pPrivate->lstWriting.push_back(strPath);
    return true;
}

void QN_WRITING_Release(tagQN_HANDLER_S *pHandle, const std::string &strPath)
{
    tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pPrivate->mutexFiles);
    const auto itPath = FindLocked(pPrivate, strPath);
    if (itPath != pPrivate->lstWriting.end())
    {
        pPrivate->lstWriting.erase(itPath);
    }
}

} // namespace libquarrin
