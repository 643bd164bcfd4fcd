// Where a mount point really lies. See the header.

#include "mount_path.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

constexpr int32_t LINKS_MOST = 40; // as many as the kernel follows

// The folder above with all links resolved, and the last name as it stands. False when there is none.
static bool ResolveAbove(const std::string &strPath, std::string &strAbove, std::string &strResolved)
{
    const size_t uLast = strPath.find_last_not_of('/');
    const std::string strTrimmed = uLast == std::string::npos ? "" : strPath.substr(0, uLast + 1);
    const size_t uSlash = strTrimmed.rfind('/');
    const std::string strName = uSlash == std::string::npos ? strTrimmed : strTrimmed.substr(uSlash + 1);
    if (strName.empty() || strName == "." || strName == "..")
    {
        return false;
    }
    const std::string strFolder = uSlash == std::string::npos ? "." : strTrimmed.substr(0, uSlash + 1);
    char szAbove[PATH_MAX];
    if (realpath(strFolder.c_str(), szAbove) == nullptr)
    {
        return false;
    }
    strAbove = strcmp(szAbove, "/") == 0 ? "" : szAbove;
    strResolved = strAbove + "/" + strName;
    return true;
}

// In a folder where everybody may write, a link of somebody else's leads to a card that is not ours.
static bool IsOurs(const std::string &strLink)
{
    struct stat stLink = {};
    return lstat(strLink.c_str(), &stLink) == 0 && (stLink.st_uid == 0 || stLink.st_uid == geteuid());
}

bool PLATFORM_ResolveMountPath(const std::string &strPath, PLATFORM_MOUNT_PATH_S &stPath)
{
    stPath = PLATFORM_MOUNT_PATH_S();
    std::string strNext = strPath;
    for (int32_t i = 0; i <= LINKS_MOST; ++i)
    {
        std::string strAbove;
        if (!ResolveAbove(strNext, strAbove, stPath.strResolved))
        {
            return false;
        }
        char szTarget[PATH_MAX];
        const ssize_t sLen = readlink(stPath.strResolved.c_str(), szTarget, sizeof(szTarget));
        if (sLen < 0)
        {
            return true; // a directory, or nothing at all
        }
        if (!IsOurs(stPath.strResolved))
        {
            return false;
        }
        stPath.strLink = i == 0 ? stPath.strResolved : stPath.strLink;
        strNext.assign(szTarget, static_cast<size_t>(sLen));
        strNext.insert(0, strNext.compare(0, 1, "/") == 0 ? "" : strAbove.append("/"));
    }
    return false;
}
