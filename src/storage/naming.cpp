// File names: built from times, and read back.
// Threads: any. Locks: none; pure functions of their arguments.

#include "libquarrin/naming.h"

#include <cstdio>
#include <cstring>

namespace libquarrin
{

constexpr int32_t TM_YEAR_BASE = 1900;

static std::string CommentPart(const char *pszComment)
{
    if (pszComment == nullptr || pszComment[0] == '\0')
    {
        return "";
    }
    return std::string(".[") + pszComment + "]";
}

static std::string BuildPath(const char *pszDir, const char *pszFolder, const std::string &strTimes,
                             const char *pszComment, const char *pszExt)
{
    return std::string(pszDir) + "/" + pszFolder + "/" + strTimes + CommentPart(pszComment) + "." + pszExt;
}

std::string QN_STORAGE_GenerateRecordFile(const char *pszDir, const char *pszFolder, time_t tStart, time_t tEnd,
                                          const char *pszComment, const char *pszExt)
{
    const std::string strTimes = QN_STORAGE_PrettierTime(tStart) + ".To." + QN_STORAGE_PrettierTime(tEnd);
    return BuildPath(pszDir, pszFolder, strTimes, pszComment, pszExt);
}

std::string QN_STORAGE_GenerateRecordingFile(const char *pszDir, const char *pszFolder, time_t tStart,
                                             const char *pszComment, const char *pszExt)
{
    return BuildPath(pszDir, pszFolder, QN_STORAGE_PrettierTime(tStart) + ".To.unknown", pszComment, pszExt);
}

std::string QN_STORAGE_GenerateImageFile(const char *pszDir, const char *pszFolder, time_t tTime,
                                         const char *pszComment, const char *pszExt)
{
    return BuildPath(pszDir, pszFolder, QN_STORAGE_PrettierTime(tTime), pszComment, pszExt);
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

int32_t QN_STORAGE_GetFilenameInfo(const char *pszName, tm &stStart, tm &stEnd, std::string &strExt)
{
    const char *pszDot = strrchr(pszName, '.');
    if (pszDot != nullptr)
    {
        strExt = pszDot + 1;
    }
    const int32_t s32Fields =
        sscanf(pszName, "%04d-%02d-%02d-%02d-%02d-%02d.To.%04d-%02d-%02d-%02d-%02d-%02d", &stStart.tm_year,
               &stStart.tm_mon, &stStart.tm_mday, &stStart.tm_hour, &stStart.tm_min, &stStart.tm_sec, &stEnd.tm_year,
               &stEnd.tm_mon, &stEnd.tm_mday, &stEnd.tm_hour, &stEnd.tm_min, &stEnd.tm_sec);
    if (s32Fields < 6)
    {
        return -1;
    }
    if (s32Fields < 12)
    {
        stEnd = stStart; // in progress, or a picture: one time only
    }
    ToTmRange(stStart);
    ToTmRange(stEnd);
    return 0;
}

std::string QN_STORAGE_GetFilenameComment(const char *pszName)
{
    const char *pszOpen = strchr(pszName, '[');
    const char *pszClose = strrchr(pszName, ']');
    if (pszOpen == nullptr || pszClose == nullptr || pszOpen > pszClose)
    {
        return "";
    }
    return std::string(pszOpen + 1, pszClose);
}

} // namespace libquarrin
