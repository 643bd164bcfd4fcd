// The mount line for a card that is mounted already: it counts as done.
//
// The kernel may announce a device twice, and a program that was restarted finds its card mounted. To mount the card
// once more fails, and the library would take a card that works for one that does not.
// Threads: any. Locks: none.

#include "mount.h"

#include <climits>
#include <cstdlib>

#include <sys/stat.h>

#include "mount_table.h"

static const std::string MKDIR_PART = "mkdir -p ";
static const std::string MOUNT_PART = "; mount ";

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
