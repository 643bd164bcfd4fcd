// File catalogue: a folder's media files, read from their names.
// Threads: any. Locks: none. Not here: whether the card is mounted (replay.cpp, quota.cpp hold the card gate).

#include "libquarrin/catalogue.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "storage/names.h"
#include "storage/scan_folder.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

// The name's text is UTC, read as local standard time: an offset that is the same all the year keeps the order.
static time_t ToTime(tm stTime)
{
    stTime.tm_isdst = 0;
    return mktime(&stTime);
}

// False, with a warning under the caller's name, when the name does not begin with a time.
static bool Describe(const char *pszFunc, const char *pszName, const std::string &strPath, off_t s64Size,
                     tagQN_FILE_INFO_S &stInfo)
{
    tm stStart = {};
    tm stEnd = {};
    if (!QN_NAME_Times(pszName, stStart, stEnd))
    {
        QN_LOG_WARN_AS(pszFunc, "Oops, %s not indexable", strPath.c_str());
        return false;
    }
    stInfo.strName = pszName;
    stInfo.strPath = strPath;
    const char *pszComment = "";
    const size_t length = QN_NAME_Comment(pszName, pszComment);
    stInfo.strComment.assign(pszComment, length);
    const char *pszExt = QN_NAME_Extension(pszName);
    stInfo.strExt = pszExt == nullptr ? "" : pszExt;
    stInfo.u64Size = static_cast<uint32_t>(s64Size); // Kept: sizes count modulo 2^32
    stInfo.tStart = ToTime(stStart);
    stInfo.tEnd = ToTime(stEnd);
    return true;
}

int32_t QN_STORAGE_GetFileInfo(const char *pszPath, tagQN_FILE_INFO_S *pstInfo)
try
{
    const char *pszSlash = strrchr(pszPath, '/');
    const char *pszName = pszSlash == nullptr ? pszPath : pszSlash + 1;
    struct stat stStat = {};
    if (lstat(pszPath, &stStat) != 0)
    {
        return -1;
    }
    if (!S_ISREG(stStat.st_mode))
    {
        return 0; // Kept: success without data
    }
    tagQN_FILE_INFO_S stInfo;
    if (!Describe(__func__, pszName, pszPath, stStat.st_size, stInfo))
    {
        return -1;
    }
    *pstInfo = std::move(stInfo);
    return 0;
}
catch (const std::exception &)
{
    return static_cast<int32_t>(QN_RET_NO_MEMORY);
}

static bool StartsEarlier(const tagQN_FILE_INFO_S &stLeft, const tagQN_FILE_INFO_S &stRight)
{
    return stLeft.tStart < stRight.tStart;
}

// How many names a folder has, so that its records are not moved into a block of twice the size again and again.
static size_t CountNames(DIR *pDir)
{
    size_t count = 0;
    while (readdir(pDir) != nullptr)
    {
        ++count;
    }
    rewinddir(pDir);
    return count;
}

using DIR_OWNED = std::unique_ptr<DIR, int (*)(DIR *)>;

static int32_t Scan(const DIR_OWNED &spDir, const char *pszFolder, std::vector<tagQN_FILE_INFO_S> &vecFiles)
try
{
    if (spDir == nullptr)
    {
        return errno == ENOMEM ? static_cast<int32_t>(QN_RET_NO_MEMORY) : 0;
    }
    vecFiles.clear();
    vecFiles.reserve(CountNames(spDir.get()));
    while (const dirent *pEntry = readdir(spDir.get()))
    {
        const char *pszName = pEntry->d_name;
        if (strcmp(pszName, ".") == 0 || strcmp(pszName, "..") == 0)
        {
            continue;
        }
        struct stat stStat = {};
        if (fstatat(dirfd(spDir.get()), pszName, &stStat, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(stStat.st_mode))
        {
            continue;
        }
        const std::string strPath = std::string(pszFolder) + "/" + pszName;
        tagQN_FILE_INFO_S stInfo;
        if (Describe("QN_STORAGE_ScanFolder", pszName, strPath, stStat.st_size, stInfo))
        {
            vecFiles.push_back(std::move(stInfo));
        }
    }
    std::sort(vecFiles.begin(), vecFiles.end(), StartsEarlier);
    return 0;
}
catch (const std::exception &)
{
    vecFiles.clear(); // rather none than some
    return static_cast<int32_t>(QN_RET_NO_MEMORY);
}

int32_t QN_STORAGE_ScanFolder(const char *pszFolder, std::vector<tagQN_FILE_INFO_S> &vecFiles)
{
    return Scan(DIR_OWNED(opendir(pszFolder), closedir), pszFolder, vecFiles); // close-on-exec by itself
}

int32_t QN_CATALOGUE_ScanOpen(UTIL_FD folder, const char *pszFolder, std::vector<tagQN_FILE_INFO_S> &vecFiles)
{
    folder = UTIL_FD(openat(folder.s32Fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)); // O_PATH cannot be read
    DIR_OWNED spDir(folder.s32Fd < 0 ? nullptr : fdopendir(folder.s32Fd), closedir);
    if (spDir != nullptr)
    {
        folder.s32Fd = -1; // the stream owns it
    }
    return Scan(spDir, pszFolder, vecFiles);
}

} // namespace libquarrin
