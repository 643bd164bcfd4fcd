// File catalogue: a folder's media files, read from their names.
// Threads: any. Locks: none. Not here: whether the card is mounted (replay.cpp, quota.cpp hold the card gate).

#include "libquarrin/catalogue.h"

#include <algorithm>
#include <cstring>

#include <dirent.h>
#include <sys/stat.h>

#include "libquarrin/naming.h"
#include "storage/catalogue_brief.h"
#include "util/log.h"

namespace libquarrin
{

// The name's text is UTC, read as local standard time: an offset that is the same all the year keeps the order.
static time_t ToTime(tm stTime)
{
    stTime.tm_isdst = 0;
    return mktime(&stTime);
}

// What a name says of its file. False, with a warning under the caller's name, when it does not begin with a time.
static bool ReadName(const char *pszFunc, const char *pszName, const std::string &strPath, tm &stStart, tm &stEnd,
                     std::string &strExt)
{
    if (QN_STORAGE_GetFilenameInfo(pszName, stStart, stEnd, strExt) == 0)
    {
        return true;
    }
    QN_LOG_WARN_AS(pszFunc, "Oops, %s not indexable", strPath.c_str());
    return false;
}

static bool Describe(const char *pszFunc, const char *pszName, const std::string &strPath, off_t s64Size,
                     tagQN_FILE_INFO_S &stInfo)
{
    tm stStart = {};
    tm stEnd = {};
    std::string strExt;
    if (!ReadName(pszFunc, pszName, strPath, stStart, stEnd, strExt))
    {
        return false;
    }
    stInfo.strName = pszName;
    stInfo.strPath = strPath;
    stInfo.strComment = QN_STORAGE_GetFilenameComment(pszName);
    stInfo.strExt = strExt;
    stInfo.u64Size = static_cast<uint32_t>(s64Size); // Kept: sizes count modulo 2^32
    stInfo.tStart = ToTime(stStart);
    stInfo.tEnd = ToTime(stEnd);
    return true;
}

int32_t QN_STORAGE_GetFileInfo(const char *pszPath, tagQN_FILE_INFO_S *pstInfo)
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

// The next name in a folder, without "." and ".."; null at its end.
static const char *NextName(DIR *pDir)
{
    while (const dirent *pEntry = readdir(pDir))
    {
        if (strcmp(pEntry->d_name, ".") != 0 && strcmp(pEntry->d_name, "..") != 0)
        {
            return pEntry->d_name;
        }
    }
    return nullptr;
}

// How many there are: records of thousands of files are not to be moved from one block to one of twice its size.
static size_t CountNames(DIR *pDir)
{
    size_t count = 0;
    while (NextName(pDir) != nullptr)
    {
        ++count;
    }
    rewinddir(pDir);
    return count;
}

// Fills the list with what fnRead makes of each regular file, earliest start first. Untouched when the folder cannot be
// opened.
template <typename RECORD>
static void Walk(const char *pszFolder, std::vector<RECORD> &vecFiles,
                 bool (*fnRead)(const char *pszName, const std::string &strPath, off_t s64Size, RECORD &stRecord))
{
    DIR *pDir = opendir(pszFolder); // close-on-exec by itself
    if (pDir == nullptr)
    {
        return;
    }
    vecFiles.clear();
    vecFiles.reserve(CountNames(pDir));
    while (const char *pszName = NextName(pDir))
    {
        const std::string strPath = std::string(pszFolder) + "/" + pszName;
        struct stat stStat = {};
        if (lstat(strPath.c_str(), &stStat) != 0 || !S_ISREG(stStat.st_mode))
        {
            continue;
        }
        RECORD stRecord = {};
        if (fnRead(pszName, strPath, stStat.st_size, stRecord))
        {
            vecFiles.push_back(std::move(stRecord));
        }
    }
    closedir(pDir);
    std::sort(vecFiles.begin(), vecFiles.end(),
              [](const RECORD &stLeft, const RECORD &stRight) { return stLeft.tStart < stRight.tStart; });
}

constexpr const char *SCAN = "QN_STORAGE_ScanFolder";

static bool ReadInfo(const char *pszName, const std::string &strPath, off_t s64Size, tagQN_FILE_INFO_S &stInfo)
{
    return Describe(SCAN, pszName, strPath, s64Size, stInfo);
}

int32_t QN_STORAGE_ScanFolder(const char *pszFolder, std::vector<tagQN_FILE_INFO_S> &vecFiles)
{
    Walk(pszFolder, vecFiles, ReadInfo);
    return 0;
}

static bool ReadBrief(const char *pszName, const std::string &strPath, off_t s64Size, tagQN_BRIEF_S &stBrief)
{
    tm stStart = {};
    tm stEnd = {};
    std::string strExt;
    if (!ReadName(SCAN, pszName, strPath, stStart, stEnd, strExt))
    {
        return false;
    }
    stBrief.tStart = ToTime(stStart);
    stBrief.strName = pszName;
    stBrief.u32Size = static_cast<uint32_t>(s64Size); // Kept: as above
    return true;
}

std::vector<tagQN_BRIEF_S> QN_CATALOGUE_Brief(const char *pszFolder)
{
    std::vector<tagQN_BRIEF_S> vecFiles;
    Walk(pszFolder, vecFiles, ReadBrief);
    return vecFiles;
}

} // namespace libquarrin
