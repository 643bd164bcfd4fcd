// Result of a recording: the library renames what it keeps and removes what is shorter than 5 s.

#include "record_result.h"

#include <unistd.h>

#include "libquarrin.h"
#include "output.h"

static constexpr const char *RESULT_UNKNOWN = ".To.unknown";
static constexpr double RESULT_SHORTEST_S = 5.0;

struct tagTOOL_NAME_S
{
    std::string strFolder;
    std::string strStart; ///< start time and ".To."
    std::string strRest;  ///< comment and extension
    time_t tStart = 0;
};

static tagTOOL_NAME_S Split(const std::string &strPath)
{
    tagTOOL_NAME_S stName;
    const size_t uSlash = strPath.rfind('/');
    const std::string strName = strPath.substr(uSlash + 1);
    const size_t uUnknown = strName.find(RESULT_UNKNOWN);
    stName.strFolder = strPath.substr(0, uSlash);
    stName.strStart = strName.substr(0, uUnknown) + ".To.";
    stName.strRest = strName.substr(uUnknown + std::string(RESULT_UNKNOWN).size());
    tm stStart = {};
    tm stEnd = {};
    std::string strExt;
    if (libquarrin::QN_STORAGE_GetFilenameInfo(strName.c_str(), stStart, stEnd, strExt) == 0)
    {
        stName.tStart = timegm(&stStart);
    }
    return stName;
}

/// The finished file of an in-progress name; null when there is none.
static const libquarrin::tagQN_FILE_INFO_S *Find(const tagTOOL_NAME_S &stName,
                                                 const std::vector<libquarrin::tagQN_FILE_INFO_S> &vecFiles)
{
    constexpr size_t uTimeLen = sizeof("YYYY-MM-DD-hh-mm-ss") - 1;
    for (const libquarrin::tagQN_FILE_INFO_S &stFile : vecFiles)
    {
        const bool bSame = stFile.strName.compare(0, stName.strStart.size(), stName.strStart) == 0 &&
                           stFile.strName.size() == stName.strStart.size() + uTimeLen + stName.strRest.size() &&
                           stFile.strName.substr(stName.strStart.size() + uTimeLen) == stName.strRest;
        if (bSame)
        {
            return &stFile;
        }
    }
    return nullptr;
}

void TOOL_RECORD_Report(const std::vector<std::string> &vecPaths, time_t tEnd)
{
    std::vector<libquarrin::tagQN_FILE_INFO_S> vecFiles;
    if (!vecPaths.empty())
    {
        libquarrin::QN_STORAGE_ScanFolder(Split(vecPaths.front()).strFolder.c_str(), vecFiles);
    }
    for (size_t u = 0; u < vecPaths.size(); u++)
    {
        const tagTOOL_NAME_S stName = Split(vecPaths[u]);
        const time_t tFileEnd = u + 1 < vecPaths.size() ? Split(vecPaths[u + 1]).tStart : tEnd;
        const libquarrin::tagQN_FILE_INFO_S *pFile = Find(stName, vecFiles);
        if (pFile != nullptr)
        {
            (void)TOOL_OUTPUT_Write(stName.strFolder + "/" + pFile->strName + "\n"); // nobody may be listening
        }
        else if (access(vecPaths[u].c_str(), F_OK) == 0)
        {
            TOOL_OUTPUT_Say("%s could not be finished", vecPaths[u].c_str());
        }
        else if (difftime(tFileEnd, stName.tStart) < RESULT_SHORTEST_S)
        {
            TOOL_OUTPUT_Say("the recording begun at %s was shorter than 5 s and was thrown away",
                            libquarrin::QN_STORAGE_PrettierTime(stName.tStart).c_str());
        }
        else
        {
            TOOL_OUTPUT_Say("%s is gone; a quota may have removed it", vecPaths[u].c_str());
        }
    }
}
