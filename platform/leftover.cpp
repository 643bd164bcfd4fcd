// A mount directory that a power cut has left behind. An unmount removes the directory; where there was none, it stays,
// and the library takes a mount point that exists for a mounted card.
// Threads: any. Locks: none; a file or a mount that comes between the look and the removal makes rmdir fail.

#include "quarrin_platform.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "mount_path.h"
#include "mount_table.h"

constexpr int32_t FOLDERS_DEEP = 16; // volume folders may have names of several parts; a whole tree is no leftover

static bool StandsForACard(const char *pszDevice)
{
    struct stat stDevice = {};
    return stat(pszDevice, &stDevice) == 0 && !S_ISBLK(stDevice.st_mode);
}

static bool IsDots(const char *pszName)
{
    return strcmp(pszName, ".") == 0 || strcmp(pszName, "..") == 0;
}

// Goes through the folders below an open one, which it closes. Without bRemove: true when there is nothing but folders
// of the same file system. With it they are removed, the deepest first.
static bool GoThrough(int s32Folder, dev_t device, bool bRemove, int32_t s32Depth)
{
    struct stat stFolder = {};
    DIR *pFolder = fstat(s32Folder, &stFolder) == 0 && stFolder.st_dev == device ? fdopendir(s32Folder) : nullptr;
    if (pFolder == nullptr)
    {
        close(s32Folder);
        return false;
    }
    bool bHollow = s32Depth < FOLDERS_DEEP;
    errno = 0;
    while (const dirent *pEntry = bHollow ? readdir(pFolder) : nullptr)
    {
        if (!IsDots(pEntry->d_name))
        {
            const int s32Below =
                openat(dirfd(pFolder), pEntry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
            bHollow = s32Below >= 0 && GoThrough(s32Below, device, bRemove, s32Depth + 1) &&
                      (!bRemove || unlinkat(dirfd(pFolder), pEntry->d_name, AT_REMOVEDIR) == 0);
        }
        errno = bHollow ? 0 : errno;
    }
    bHollow = bHollow && errno == 0; // a listing that broke off shows nothing
    closedir(pFolder);
    return bHollow;
}

static bool GoThroughPath(const std::string &strPath, bool bRemove)
{
    struct stat stFolder = {};
    const int s32Folder = open(strPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (s32Folder < 0 || fstat(s32Folder, &stFolder) != 0)
    {
        (void)close(s32Folder); // -1 as well
        return false;
    }
    return GoThrough(s32Folder, stFolder.st_dev, bRemove, 0);
}

extern "C" int QN_PLATFORM_RemoveLeftover(const char *device, const char *mount_point)
try
{
    if (device == nullptr || mount_point == nullptr)
    {
        PLATFORM_LogError("no device or no mount point to look at");
        return 1;
    }
    struct stat stAny = {};
    if (StandsForACard(device) || lstat(mount_point, &stAny) != 0)
    {
        return 0;
    }
    PLATFORM_MOUNT_PATH_S stWhere;
    const std::string strTable = PLATFORM_ReadMountTable();
    if (strTable.empty() || !PLATFORM_ResolveMountPath(mount_point, stWhere))
    {
        PLATFORM_LogError("\"%s\" cannot be looked at: left alone", mount_point);
        return 1;
    }
    if (PLATFORM_TableHasMount(strTable, stWhere.strResolved))
    {
        return 0;
    }
    // A link that leads nowhere keeps the directory from being made.
    const bool bNowhere = lstat(stWhere.strResolved.c_str(), &stAny) != 0 && errno == ENOENT;
    if (!bNowhere && !GoThroughPath(stWhere.strResolved, false))
    {
        PLATFORM_LogError("\"%s\" is not mounted and has something in it: left alone", mount_point);
        return 1;
    }
    const bool bEmptied =
        bNowhere || (GoThroughPath(stWhere.strResolved, true) && rmdir(stWhere.strResolved.c_str()) == 0);
    const bool bGone = bEmptied && (stWhere.strLink.empty() || unlink(stWhere.strLink.c_str()) == 0);
    if (!bGone)
    {
        PLATFORM_LogError("\"%s\" is not mounted and cannot be removed: %s", mount_point, strerror(errno));
    }
    return bGone ? 0 : 1;
}
catch (const std::exception &) // no memory
{
    return 1;
}
