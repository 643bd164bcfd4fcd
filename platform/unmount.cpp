// The unmount line: umount first, the directory only when it really is one again.
//
// By the letter "umount X; rm -rf X" deletes every file of a card that is still mounted, because it was busy or because
// X never was a mount point. On the device that is intended; here X may be anybody's folder. Where X is a symbolic
// link, the card is mounted on the directory behind it, and that one is unmounted.
// Threads: any. Locks: none; a mount that comes between the look and the removal makes rmdir fail.

#include "unmount.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <unistd.h>

#include "log.h"
#include "mount_path.h"
#include "mount_table.h"
#include "process.h"

static const std::string UMOUNT_PART = "umount ";
static const std::string REMOVE_PART = "; rm -rf ";

// rm stands in the line as a word of its own; "/mnt/storm" does not count.
static bool HasRemove(const std::string &strLine)
{
    for (size_t uAt = strLine.find("rm"); uAt != std::string::npos; uAt = strLine.find("rm", uAt + 1))
    {
        const bool bBegins = uAt > 0 && strchr(" \t\n;&|(/`\\\"'", strLine[uAt - 1]) != nullptr;
        const bool bEnds = uAt + 2 < strLine.size() && strchr(" \t\n\"'", strLine[uAt + 2]) != nullptr;
        if (bBegins && bEnds)
        {
            return true;
        }
    }
    return false;
}

PLATFORM_LINE_E PLATFORM_ClassifyLine(const std::string &strLine, std::string &strPath)
{
    const size_t uBegin = strLine.find_first_not_of(" \t\n");
    if (uBegin == std::string::npos || strLine.compare(uBegin, 6, "umount") != 0)
    {
        return PLATFORM_LINE_ORDINARY;
    }
    // Both halves have one length, so X is known without looking for its end: it may hold blanks and semicolons.
    const size_t uFixed = UMOUNT_PART.size() + REMOVE_PART.size();
    const size_t uHalf = strLine.size() > uFixed ? (strLine.size() - uFixed) / 2 : 0;
    const std::string strFirst = strLine.substr(std::min(UMOUNT_PART.size(), strLine.size()), uHalf);
    if (uHalf > 0 && strLine == UMOUNT_PART + strFirst + REMOVE_PART + strFirst)
    {
        strPath = strFirst;
        return PLATFORM_LINE_UNMOUNT;
    }
    return HasRemove(strLine) ? PLATFORM_LINE_DANGEROUS : PLATFORM_LINE_ORDINARY;
}

// bUnknown is the answer when the table cannot be read.
static bool IsMountPoint(const std::string &strPath, bool bUnknown)
{
    const std::string strTable = PLATFORM_ReadMountTable();
    if (strTable.empty())
    {
        return bUnknown;
    }
    return PLATFORM_TableHasMount(strTable, strPath);
}

// The card was pulled: the node that is mounted here is gone, though somebody still has files of it open. They are lost
// anyway, and the next card needs the directory.
static bool IsDeviceGone(const std::string &strResolved)
{
    const std::string strSource = PLATFORM_TableSource(PLATFORM_ReadMountTable(), strResolved);
    return strSource.rfind("/dev/", 0) == 0 && access(strSource.c_str(), F_OK) != 0 && errno == ENOENT;
}

// What the line's second half removes, as far as it is empty. A link goes in any case: "rm" takes a link, not what is
// behind it.
static int32_t RemoveDirectory(const std::string &strPath, const PLATFORM_MOUNT_PATH_S &stWhere)
{
    const bool bLink = !stWhere.strLink.empty();
    int32_t s32Result = 0;
    if (rmdir(stWhere.strResolved.c_str()) != 0)
    {
        PLATFORM_LogError("\"%s\" is unmounted, but its directory stays: %s", strPath.c_str(), strerror(errno));
        s32Result = bLink ? 0 : 1;
    }
    if (bLink && unlink(stWhere.strLink.c_str()) != 0)
    {
        PLATFORM_LogError("\"%s\" is unmounted, but the link stays: %s", strPath.c_str(), strerror(errno));
        s32Result = 1;
    }
    return s32Result;
}

int32_t PLATFORM_Unmount(const std::string &strPath)
{
    PLATFORM_MOUNT_PATH_S stWhere;
    if (!PLATFORM_ResolveMountPath(strPath, stWhere) || !IsMountPoint(stWhere.strResolved, false))
    {
        PLATFORM_LogError("\"%s\" is not a mount point: left alone", strPath.c_str());
        return 1;
    }
    const std::vector<std::string> vecShell = PLATFORM_FindShell(PLATFORM_ShellFolders());
    if (vecShell.empty())
    {
        PLATFORM_LogError("neither bash nor busybox is there to run umount");
        return 1;
    }
    int32_t s32Result = PLATFORM_RunArgs(vecShell, {"umount", stWhere.strResolved});
    if (s32Result != 0 && IsDeviceGone(stWhere.strResolved))
    {
        PLATFORM_LogError("the card on \"%s\" is gone: detached with files open", strPath.c_str());
        s32Result = PLATFORM_RunArgs(vecShell, {"umount", "-l", stWhere.strResolved});
    }
    if (IsMountPoint(stWhere.strResolved, true))
    {
        PLATFORM_LogError("\"%s\" is still a mount point (umount ended with %d): everything stays", strPath.c_str(),
                          s32Result);
        return 1;
    }
    return RemoveDirectory(strPath, stWhere);
}
