#include "support/scratch.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

constexpr uint64_t ROOM_FOR_CARDS = uint64_t{4} << 30;

// On many systems /run is small, and neither runs programs nor knows device nodes.
static bool CanHoldCards(const char *pszFolder)
{
    struct statvfs stFs = {};
    return statvfs(pszFolder, &stFs) == 0 && (stFs.f_flag & (ST_NODEV | ST_NOEXEC | ST_RDONLY)) == 0 &&
           static_cast<uint64_t>(stFs.f_bavail) * stFs.f_frsize >= ROOM_FOR_CARDS;
}

static std::string BasePath()
{
    if (geteuid() == 0 && CanHoldCards("/run"))
    {
        return "/run/quarrin-tests";
    }
    const char *pszTmp = getenv("TMPDIR");
    const std::string strTmp = pszTmp != nullptr && pszTmp[0] == '/' ? pszTmp : "/tmp";
    return strTmp + "/quarrin-tests-" + std::to_string(geteuid());
}

static bool IsOursAlone(const struct stat &stFolder)
{
    return S_ISDIR(stFolder.st_mode) && stFolder.st_uid == geteuid() && (stFolder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::string TEST_ScratchBase()
{
    const std::string strBase = BasePath();
    struct stat stFolder = {};
    const bool bMade = mkdir(strBase.c_str(), 0711) == 0 || errno == EEXIST; // tests look on as plain users
    return bMade && lstat(strBase.c_str(), &stFolder) == 0 && IsOursAlone(stFolder) ? strBase : "";
}

std::string TEST_MakeScratch(const std::string &strName)
{
    const std::string strBase = TEST_ScratchBase();
    std::string strPath = strBase + "/" + strName + "-XXXXXX";
    return !strBase.empty() && mkdtemp(&strPath[0]) != nullptr ? strPath : "";
}

static bool IsDots(const char *pszName)
{
    return strcmp(pszName, ".") == 0 || strcmp(pszName, "..") == 0;
}

static int OpenFolder(int s32Above, const char *pszName)
{
    return openat(s32Above, pszName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Empties an open folder of one file system, and closes it.
static bool Empty(int s32Folder, dev_t device)
{
    struct stat stFolder = {};
    DIR *pFolder = fstat(s32Folder, &stFolder) == 0 && stFolder.st_dev == device ? fdopendir(s32Folder) : nullptr;
    if (pFolder == nullptr)
    {
        (void)close(s32Folder); // -1 as well
        return false;
    }
    bool bEmpty = true;
    while (const dirent *pEntry = readdir(pFolder))
    {
        if (IsDots(pEntry->d_name) || unlinkat(s32Folder, pEntry->d_name, 0) == 0)
        {
            continue;
        }
        const bool bGone = Empty(OpenFolder(s32Folder, pEntry->d_name), device) &&
                           unlinkat(s32Folder, pEntry->d_name, AT_REMOVEDIR) == 0;
        bEmpty = bEmpty && bGone;
    }
    closedir(pFolder);
    return bEmpty;
}

bool TEST_RemoveScratch(const std::string &strPath)
{
    const size_t uSlash = strPath.rfind('/');
    const int s32Above = OpenFolder(AT_FDCWD, strPath.substr(0, uSlash).c_str());
    if (uSlash == std::string::npos || s32Above < 0)
    {
        return false;
    }
    const char *pszName = strPath.c_str() + uSlash + 1;
    const int s32Folder = OpenFolder(s32Above, pszName);
    struct stat stFolder = {};
    bool bGone = s32Folder >= 0 && fstat(s32Folder, &stFolder) == 0 && stFolder.st_uid == geteuid();
    if (bGone)
    {
        bGone = Empty(s32Folder, stFolder.st_dev) && unlinkat(s32Above, pszName, AT_REMOVEDIR) == 0;
    }
    else
    {
        (void)close(s32Folder); // -1 as well
    }
    close(s32Above);
    return bGone;
}
