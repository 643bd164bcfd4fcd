// File names: every media file carries its time span, in UTC, and a comment in its name.
//
//   finished     2024-03-01-08-15-00.To.2024-03-01-08-20-00.[door].mp4
//   in progress  2024-03-01-08-15-00.To.unknown.[door].mp4
//   picture      2024-03-01-08-15-00.[door].jpg
//
// All functions are re-entrant and may be called from any thread. Those that give a string give an empty one when there
// is no memory.
#ifndef LIBQUARRIN_NAMING_H
#define LIBQUARRIN_NAMING_H

#include <ctime>
#include <string>

#include "libquarrin/types.h"

namespace libquarrin
{

/// Path of a finished recording: pszDir, "/", pszFolder, "/" and the name.
///
/// Nothing is escaped and no length is checked: the pieces stand in the path as they are given.
///
/// \param pszDir      base directory, not null.
/// \param pszFolder   folder of the volume, not null.
/// \param tStart      begin, seconds since the epoch.
/// \param tEnd        end, seconds since the epoch.
/// \param pszComment  text for the brackets; null or empty: no brackets.
/// \param pszExt      extension without a dot, not null.
QN_API std::string QN_STORAGE_GenerateRecordFile(const char *pszDir, const char *pszFolder, time_t tStart, time_t tEnd,
                                                 const char *pszComment, const char *pszExt);

/// Path of a recording in progress; parameters as of QN_STORAGE_GenerateRecordFile.
QN_API std::string QN_STORAGE_GenerateRecordingFile(const char *pszDir, const char *pszFolder, time_t tStart,
                                                    const char *pszComment, const char *pszExt);

/// Path of a still picture; parameters as of QN_STORAGE_GenerateRecordFile.
QN_API std::string QN_STORAGE_GenerateImageFile(const char *pszDir, const char *pszFolder, time_t tTime,
                                                const char *pszComment, const char *pszExt);

/// Extension of a container, a static text without a dot; "mkv" for every value without one of its own.
QN_API const char *QN_STORAGE_FmtType2FileExt(QN_FILE_FMT_E enFormat);

/// Container of an extension, case-sensitive; QN_FILE_FMT_E_UNKNOWN for any other. "wav" gives QN_FILE_FMT_E_WAV.
QN_API QN_FILE_FMT_E QN_STORAGE_FileExt2FmtType(const char *pszExt);

/// Reads the times and the extension of a bare file name.
///
/// \param pszName  the name, not a path.
/// \param stStart  [out] year to second of the start; other fields are untouched.
/// \param stEnd    [out] the same of the end; a copy of stStart when the name holds one time only.
/// \param strExt   [out] text behind the last dot; untouched when there is none. Set even on failure.
///
/// \return 0 done; -1 the name does not begin with a time (stStart may be partly written), or no memory.
QN_API int32_t QN_STORAGE_GetFilenameInfo(const char *pszName, tm &stStart, tm &stEnd, std::string &strExt);

/// Text between the first "[" and the last "]" of a name; empty when there is none.
QN_API std::string QN_STORAGE_GetFilenameComment(const char *pszName);

/// Short text of a size: "512B", "1.5MB", "5.0GB". A unit begins above its power of two, not at it.
QN_API std::string QN_STORAGE_PrettierSize(uint64_t u64Bytes);

/// Time part of a file name: "YYYY-MM-DD-hh-mm-ss" in UTC.
QN_API std::string QN_STORAGE_PrettierTime(time_t tTime);

} // namespace libquarrin

#endif
