// Result of a recording: the library renames what it keeps and removes what is shorter than 5 s. Neither is told when
// it fails, nor a trailer for which there was no room: the names are looked at, and each file is opened.

#include "record_result.h"

#include <cerrno>
#include <cstring>

#include <sys/stat.h>

#include "boxes.h"
#include "ff.h"
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

static bool HasBoxes(const std::string &strPath)
{
    const std::string strExt = strPath.substr(strPath.rfind('.') + 1);
    return strExt == "mp4" || strExt == "mov";
}

/// Why the file cannot be read again; empty when it can. MP4 and MOV cannot without the whole of their trailer.
static std::string WhyUnreadable(const std::string &strPath)
{
    if (HasBoxes(strPath) && !TOOL_BOXES_AreWhole(strPath))
    {
        return "its trailer is missing";
    }
    AVFormatContext *pFile = nullptr;
    const std::string strUrl = "file:" + strPath; // a colon in the path names no protocol
    int s32Result = avformat_open_input(&pFile, strUrl.c_str(), nullptr, nullptr);
    s32Result = s32Result < 0 ? s32Result : avformat_find_stream_info(pFile, nullptr);
    const bool bStreams = s32Result >= 0 && pFile->nb_streams > 0;
    avformat_close_input(&pFile);
    return bStreams ? "" : (s32Result < 0 ? TOOL_FF_Text(s32Result) : "there is nothing in it");
}

/// What became of one file. True when it is there, finished, and can be read again.
static bool ReportFinished(const std::string &strPath)
{
    const std::string strWhy = WhyUnreadable(strPath);
    if (!strWhy.empty())
    {
        TOOL_OUTPUT_Say("%s cannot be read again: %s", strPath.c_str(), strWhy.c_str());
        return false;
    }
    (void)TOOL_OUTPUT_Write(TOOL_OUTPUT_Printable(strPath) + "\n"); // nobody may be listening
    return true;
}

/// True when there is nothing to complain of.
static bool ReportMissing(const std::string &strPath, const tagTOOL_NAME_S &stName, time_t tFileEnd)
{
    const bool bShort = difftime(tFileEnd, stName.tStart) < RESULT_SHORTEST_S;
    struct stat stLeft = {};
    if (lstat(strPath.c_str(), &stLeft) == 0)
    {
        TOOL_OUTPUT_Say(bShort ? "%s is shorter than 5 s and could not be removed" : "%s could not be finished",
                        strPath.c_str());
        return false;
    }
    if (errno != ENOENT)
    {
        TOOL_OUTPUT_Say("%s cannot be looked at: %s", strPath.c_str(), strerror(errno));
        return false;
    }
    if (!bShort)
    {
        TOOL_OUTPUT_Say("%s is gone; a quota may have removed it", strPath.c_str());
        return true;
    }
    TOOL_OUTPUT_Say("the recording begun at %s was shorter than 5 s and was thrown away",
                    libquarrin::QN_STORAGE_PrettierTime(stName.tStart).c_str());
    return true;
}

bool TOOL_RECORD_Report(const std::vector<std::string> &vecPaths, time_t tEnd)
{
    std::vector<libquarrin::tagQN_FILE_INFO_S> vecFiles;
    if (!vecPaths.empty())
    {
        libquarrin::QN_STORAGE_ScanFolder(Split(vecPaths.front()).strFolder.c_str(), vecFiles);
    }
    bool bGood = true;
    for (size_t u = 0; u < vecPaths.size(); u++)
    {
        const tagTOOL_NAME_S stName = Split(vecPaths[u]);
        const time_t tFileEnd = u + 1 < vecPaths.size() ? Split(vecPaths[u + 1]).tStart : tEnd;
        const libquarrin::tagQN_FILE_INFO_S *pFile = Find(stName, vecFiles);
        const bool bFile = pFile != nullptr ? ReportFinished(stName.strFolder + "/" + pFile->strName)
                                            : ReportMissing(vecPaths[u], stName, tFileEnd);
        bGood = bGood && bFile;
    }
    return bGood;
}
