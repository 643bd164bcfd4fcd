// The mount line. A card that is mounted already counts as done: the kernel may announce a device twice, and a program
// that was restarted finds its card mounted. To mount the card once more fails, and the library would take a card that
// works for one that does not.
//
// What is on a card comes from strangers: programs with set-user-ID bits and device nodes of their making get no power
// here, and nothing on it is run.
// Threads: any. Locks: none.

#include "mount.h"

#include <climits>
#include <cstdlib>

#include <sys/stat.h>

#include "log.h"
#include "mount_table.h"
#include "process.h"

static const std::string MKDIR_PART = "mkdir -p ";
static const std::string MOUNT_PART = "; mount ";
static const std::string MOUNT_OPTIONS = "nosuid,nodev,noexec";

bool PLATFORM_IsMountLine(const std::string &strLine, std::string &strDevice, std::string &strPath)
{
    if (strLine.compare(0, MKDIR_PART.size(), MKDIR_PART) != 0)
    {
        return false;
    }
    // X may hold the words of the line itself: every place where it might end is looked at.
    for (size_t uAt = strLine.find(MOUNT_PART); uAt != std::string::npos; uAt = strLine.find(MOUNT_PART, uAt + 1))
    {
        const std::string strFirst = strLine.substr(MKDIR_PART.size(), uAt - MKDIR_PART.size());
        const std::string strRest = strLine.substr(uAt + MOUNT_PART.size());
        const size_t uWord = strRest.find(' ');
        if (!strFirst.empty() && uWord != std::string::npos && uWord > 0 && strRest.substr(uWord + 1) == strFirst)
        {
            strDevice = strRest.substr(0, uWord);
            strPath = strFirst;
            return true;
        }
    }
    return false;
}

bool PLATFORM_IsMountedOn(const std::string &strDevice, const std::string &strPath)
{
    struct stat stDevice = {};
    char szPath[PATH_MAX];
    if (stat(strDevice.c_str(), &stDevice) != 0 || !S_ISBLK(stDevice.st_mode) ||
        realpath(strPath.c_str(), szPath) == nullptr)
    {
        return false;
    }
    return PLATFORM_TableShowsDevice(PLATFORM_ReadMountTable(), szPath, stDevice.st_rdev);
}

int32_t PLATFORM_Mount(const std::string &strDevice, const std::string &strPath)
{
    const std::vector<std::string> vecShell = PLATFORM_FindShell(PLATFORM_ShellFolders());
    if (vecShell.empty())
    {
        PLATFORM_LogError("neither bash nor busybox is there to run mount");
        return PLATFORM_NOT_STARTED;
    }
    (void)PLATFORM_RunArgs(vecShell, {"mkdir", "-p", strPath}); // as in the line: mount tells when there is none
    return PLATFORM_RunArgs(vecShell, {"mount", "-o", MOUNT_OPTIONS, strDevice, strPath});
}
