// The path of a file that is about to be made. See the header.

#include "storage/new_file.h"

#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace libquarrin
{

static bool IsNodeOfTheSystem(const char *pszPath, mode_t u32Mode)
{
    return (S_ISCHR(u32Mode) || S_ISBLK(u32Mode)) && strncmp(pszPath, "/dev/", strlen("/dev/")) == 0;
}

bool QN_NEWFILE_MakeWay(const char *pszPath)
{
    struct stat stStat = {};
    if (lstat(pszPath, &stStat) != 0 || S_ISREG(stStat.st_mode) || S_ISDIR(stStat.st_mode) ||
        IsNodeOfTheSystem(pszPath, stStat.st_mode))
    {
        return true;
    }
    return unlink(pszPath) == 0; // never remove(): it takes folders too
}

bool QN_NEWFILE_IsFreeOrFile(const char *pszPath)
{
    struct stat stStat = {};
    return lstat(pszPath, &stStat) != 0 || S_ISREG(stStat.st_mode);
}

} // namespace libquarrin
