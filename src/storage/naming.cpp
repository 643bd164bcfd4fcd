// File names: built from times, and read back.
// Threads: any. Locks: none; pure functions of their arguments.

#include "storage/names.h"

#include <cstdio>
#include <cstring>
#include <exception>

#include "libquarrin/naming.h"
#include "storage/texts.h"

namespace libquarrin
{

constexpr int32_t TM_YEAR_BASE = 1900;

static void AppendComment(std::string &strPath, const char *pszComment)
{
    if (pszComment != nullptr && pszComment[0] != '\0')
    {
        strPath.append(".[").append(pszComment).append("]");
    }
}

// pszEnd stands behind the time; the path is empty when there is no memory for it.
static std::string BuildPath(const char *pszDir, const char *pszFolder, time_t tStart, const char *pszEnd,
                             const char *pszComment, const char *pszExt)
try
{
    std::string strPath = pszDir;
    strPath.append("/").append(pszFolder).append("/").append(QN_TEXT_Time(tStart).szText).append(pszEnd);
    AppendComment(strPath, pszComment);
    strPath.append(".").append(pszExt);
    return strPath;
}
catch (const std::exception &)
{
    return std::string();
}

std::string QN_STORAGE_GenerateRecordFile(const char *pszDir, const char *pszFolder, time_t tStart, time_t tEnd,
                                          const char *pszComment, const char *pszExt)
{
    char szEnd[sizeof(tagQN_TEXT_S) + 8];
    (void)snprintf(szEnd, sizeof(szEnd), ".To.%s", QN_TEXT_Time(tEnd).szText); // fits
    return BuildPath(pszDir, pszFolder, tStart, szEnd, pszComment, pszExt);
}

std::string QN_STORAGE_GenerateRecordingFile(const char *pszDir, const char *pszFolder, time_t tStart,
                                             const char *pszComment, const char *pszExt)
{
    return BuildPath(pszDir, pszFolder, tStart, ".To.unknown", pszComment, pszExt);
}

std::string QN_STORAGE_GenerateImageFile(const char *pszDir, const char *pszFolder, time_t tTime,
                                         const char *pszComment, const char *pszExt)
{
    return BuildPath(pszDir, pszFolder, tTime, "", pszComment, pszExt);
}

const char *QN_STORAGE_FmtType2FileExt(QN_FILE_FMT_E enFormat)
{
    switch (enFormat)
    {
    case QN_FILE_FMT_E_TS:
        return "ts";
    case QN_FILE_FMT_E_MP4:
        return "mp4";
    case QN_FILE_FMT_E_MOV:
        return "mov";
    case QN_FILE_FMT_E_WAV:
    case QN_FILE_FMT_E_WAV_PREALLOC:
        return "wav";
    case QN_FILE_FMT_E_AAC:
        return "aac";
    case QN_FILE_FMT_E_JPG:
        return "jpg";
    default:
        return "mkv";
    }
}

QN_FILE_FMT_E QN_STORAGE_FileExt2FmtType(const char *pszExt)
{
    static const struct
    {
        const char *pszExt;
        QN_FILE_FMT_E enFormat;
    } astFormats[] = {
        {"mkv", QN_FILE_FMT_E_MKV}, {"ts", QN_FILE_FMT_E_TS},   {"mp4", QN_FILE_FMT_E_MP4}, {"mov", QN_FILE_FMT_E_MOV},
        {"aac", QN_FILE_FMT_E_AAC}, {"wav", QN_FILE_FMT_E_WAV}, {"jpg", QN_FILE_FMT_E_JPG},
    };
    for (const auto &stFormat : astFormats)
    {
        if (strcmp(pszExt, stFormat.pszExt) == 0)
        {
            return stFormat.enFormat;
        }
    }
    return QN_FILE_FMT_E_UNKNOWN;
}

static void ToTmRange(tm &stTime)
{
    stTime.tm_year -= TM_YEAR_BASE;
    stTime.tm_mon -= 1;
}

const char *QN_NAME_Extension(const char *pszName)
{
    const char *pszDot = strrchr(pszName, '.');
    return pszDot == nullptr ? nullptr : pszDot + 1;
}

bool QN_NAME_Times(const char *pszName, tm &stStart, tm &stEnd)
{
    const int32_t s32Fields =
        sscanf(pszName, "%04d-%02d-%02d-%02d-%02d-%02d.To.%04d-%02d-%02d-%02d-%02d-%02d", &stStart.tm_year,
               &stStart.tm_mon, &stStart.tm_mday, &stStart.tm_hour, &stStart.tm_min, &stStart.tm_sec, &stEnd.tm_year,
               &stEnd.tm_mon, &stEnd.tm_mday, &stEnd.tm_hour, &stEnd.tm_min, &stEnd.tm_sec);
    if (s32Fields < 6)
    {
        return false;
    }
    if (s32Fields < 12)
    {
        stEnd = stStart; // in progress, or a picture: one time only
    }
    ToTmRange(stStart);
    ToTmRange(stEnd);
    return true;
}

size_t QN_NAME_Comment(const char *pszName, const char *&pszComment)
{
    const char *pszOpen = strchr(pszName, '[');
    const char *pszClose = strrchr(pszName, ']');
    if (pszOpen == nullptr || pszClose == nullptr || pszOpen > pszClose)
    {
        return 0;
    }
    pszComment = pszOpen + 1;
    return static_cast<size_t>(pszClose - pszComment);
}

int32_t QN_STORAGE_GetFilenameInfo(const char *pszName, tm &stStart, tm &stEnd, std::string &strExt)
try
{
    const char *pszExt = QN_NAME_Extension(pszName);
    if (pszExt != nullptr)
    {
        strExt = pszExt;
    }
    return QN_NAME_Times(pszName, stStart, stEnd) ? 0 : -1;
}
catch (const std::exception &)
{
    return -1;
}

std::string QN_STORAGE_GetFilenameComment(const char *pszName)
try
{
    const char *pszComment = "";
    const size_t length = QN_NAME_Comment(pszName, pszComment);
    return std::string(pszComment, length);
}
catch (const std::exception &)
{
    return std::string();
}

} // namespace libquarrin
