// The list command: a table, or JSON for programs. Times are UTC: main sets the time zone before the library reads
// names.

#include "commands.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>

#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "output.h"
#include "printable.h"

static const std::string LIST_UNKNOWN = ".To.unknown";

struct tagTOOL_LISTED_S
{
    libquarrin::tagQN_FILE_INFO_S stInfo;
    uint64_t u64Bytes = 0;    ///< the whole size; the catalogue's is cut to 32 bits
    bool bInProgress = false; ///< being recorded, or left behind by a crash: no end yet
};

static tagTOOL_LISTED_S Describe(const libquarrin::tagQN_FILE_INFO_S &stInfo)
{
    tagTOOL_LISTED_S stListed;
    struct stat stStat = {};
    stListed.stInfo = stInfo;
    stListed.u64Bytes =
        stat(stInfo.strPath.c_str(), &stStat) == 0 ? static_cast<uint64_t>(stStat.st_size) : stInfo.u64Size;
    // Behind the start time; a comment may hold the same words.
    const size_t uTime = stInfo.strName.find_first_not_of("0123456789-");
    stListed.bInProgress =
        uTime != std::string::npos && stInfo.strName.compare(uTime, LIST_UNKNOWN.size(), LIST_UNKNOWN) == 0;
    return stListed;
}

static std::string TimeText(time_t tTime, const char *pszFormat)
{
    struct tm stTime = {};
    char acText[64];
    if (gmtime_r(&tTime, &stTime) == nullptr || strftime(acText, sizeof(acText), pszFormat, &stTime) == 0)
    {
        return "-";
    }
    return acText;
}

static std::string LengthText(int64_t s64Seconds)
{
    char acText[64];
    snprintf(acText, sizeof(acText), "%s%02lld:%02lld:%02lld", s64Seconds < 0 ? "-" : "",
             static_cast<long long>(std::llabs(s64Seconds) / 3600),
             static_cast<long long>(std::llabs(s64Seconds) / 60 % 60),
             static_cast<long long>(std::llabs(s64Seconds) % 60));
    return acText;
}

static std::string ContainerText(const libquarrin::tagQN_FILE_INFO_S &stInfo)
{
    const libquarrin::QN_FILE_FMT_E enFormat = libquarrin::QN_STORAGE_FileExt2FmtType(stInfo.strExt.c_str());
    return enFormat == libquarrin::QN_FILE_FMT_E_UNKNOWN ? "unknown" : libquarrin::QN_STORAGE_FmtType2FileExt(enFormat);
}

/// The bytes of a text by RFC 3986; slashes stay.
static std::string PercentEncoded(const std::string &strText)
{
    std::string strEncoded;
    for (const char cOne : strText)
    {
        const bool bPlain = isalnum(static_cast<unsigned char>(cOne)) != 0 || strchr("-._~/", cOne) != nullptr;
        char acByte[8];
        snprintf(acByte, sizeof(acByte), bPlain ? "%c" : "%%%02X", static_cast<unsigned char>(cOne));
        strEncoded += acByte;
    }
    return strEncoded;
}

/// A text, and its bytes besides where JSON cannot hold them.
static void AddText(nlohmann::ordered_json &stOne, const char *pszKey, const std::string &strText)
{
    stOne[pszKey] = strText;
    if (!PLATFORM_IsUtf8(strText))
    {
        stOne[std::string(pszKey) + "_bytes"] = PercentEncoded(strText);
    }
}

static std::string JsonText(const std::vector<tagTOOL_LISTED_S> &vecFiles)
{
    nlohmann::ordered_json stAll = nlohmann::ordered_json::array();
    for (const tagTOOL_LISTED_S &stFile : vecFiles)
    {
        const libquarrin::tagQN_FILE_INFO_S &stInfo = stFile.stInfo;
        nlohmann::ordered_json stOne;
        AddText(stOne, "name", stInfo.strName);
        AddText(stOne, "path", stInfo.strPath);
        stOne["start"] = TimeText(stInfo.tStart, "%Y-%m-%dT%H:%M:%SZ");
        stOne["end"] = nullptr;
        stOne["seconds"] = nullptr;
        if (!stFile.bInProgress)
        {
            stOne["end"] = TimeText(stInfo.tEnd, "%Y-%m-%dT%H:%M:%SZ");
            stOne["seconds"] = static_cast<int64_t>(stInfo.tEnd - stInfo.tStart);
        }
        stOne["bytes"] = stFile.u64Bytes;
        stOne["container"] = ContainerText(stInfo);
        AddText(stOne, "comment", stInfo.strComment);
        stOne["in_progress"] = stFile.bInProgress;
        stAll.push_back(stOne);
    }
    // A file name may hold bytes that are no UTF-8; JSON may not. Beyond ASCII all is escaped, what moves a terminal's
    // cursor with it.
    return stAll.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

static std::vector<std::string> RowOf(const tagTOOL_LISTED_S &stFile)
{
    const libquarrin::tagQN_FILE_INFO_S &stInfo = stFile.stInfo;
    const int64_t s64Seconds = static_cast<int64_t>(stInfo.tEnd - stInfo.tStart);
    return {TimeText(stInfo.tStart, "%Y-%m-%d %H:%M:%S"),
            stFile.bInProgress ? "in progress" : TimeText(stInfo.tEnd, "%Y-%m-%d %H:%M:%S"),
            stFile.bInProgress ? "-" : LengthText(s64Seconds),
            libquarrin::QN_STORAGE_PrettierSize(stFile.u64Bytes),
            ContainerText(stInfo),
            TOOL_OUTPUT_Printable(stInfo.strComment),
            TOOL_OUTPUT_Printable(stInfo.strName)};
}

static std::string TableText(const std::vector<tagTOOL_LISTED_S> &vecFiles)
{
    std::vector<std::vector<std::string>> vecRows = {
        {"START (UTC)", "END (UTC)", "LENGTH", "SIZE", "CONTAINER", "COMMENT", "FILE"}};
    for (const tagTOOL_LISTED_S &stFile : vecFiles)
    {
        vecRows.push_back(RowOf(stFile));
    }
    std::vector<size_t> vecWidths(vecRows[0].size(), 0);
    for (const std::vector<std::string> &vecRow : vecRows)
    {
        for (size_t u = 0; u < vecRow.size(); u++)
        {
            vecWidths[u] = std::max(vecWidths[u], vecRow[u].size());
        }
    }
    std::string strTable;
    for (const std::vector<std::string> &vecRow : vecRows)
    {
        for (size_t u = 0; u + 1 < vecRow.size(); u++)
        {
            strTable += vecRow[u] + std::string(vecWidths[u] - vecRow[u].size() + 2, ' ');
        }
        strTable += vecRow.back() + "\n";
    }
    return strTable;
}

int32_t TOOL_ListCommand(const tagTOOL_LIST_OPTIONS_S &stOptions)
{
    std::string strError;
    TOOL_STORAGE pStorage = TOOL_STORAGE_Open(stOptions.strStorage, tagTOOL_QUOTA_S(), strError);
    if (!pStorage)
    {
        TOOL_OUTPUT_Say("%s", strError.c_str());
        return TOOL_EXIT_BAD_INPUT;
    }
    std::vector<libquarrin::tagQN_FILE_INFO_S> vecInfos;
    if (libquarrin::QN_ReplayListFile(pStorage.get(), libquarrin::QN_VOLUME_ID_E_0, &vecInfos) != 0)
    {
        TOOL_OUTPUT_Say("the recordings in %s cannot be listed", stOptions.strStorage.c_str());
        return TOOL_EXIT_FAILED;
    }
    std::vector<tagTOOL_LISTED_S> vecFiles;
    vecFiles.reserve(vecInfos.size());
    for (const libquarrin::tagQN_FILE_INFO_S &stInfo : vecInfos)
    {
        vecFiles.push_back(Describe(stInfo));
    }
    return TOOL_OUTPUT_Write(stOptions.bJson ? JsonText(vecFiles) : TableText(vecFiles)) ? TOOL_EXIT_GOOD
                                                                                         : TOOL_EXIT_FAILED;
}
