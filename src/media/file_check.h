// A look at a media file of a stranger before FFmpeg opens it.
// Threads: any. Locks: none.
#ifndef QUARRIN_MEDIA_FILE_CHECK_H
#define QUARRIN_MEDIA_FILE_CHECK_H

#include "libquarrin/params.h"

namespace libquarrin
{

/// The file promises no more than it can hold. A few bytes of an MP4 may speak of millions of samples, and FFmpeg (5.1)
/// makes an entry in memory for each of them before it looks at the first; it also sorts names one by one.
///
/// MP4, MOV: the samples of all tracks, each as often as its track is cut, are at most one for each byte of the file;
/// every table fits its box; there are some thousand boxes at most. Matroska: tags and chapters are of moderate size,
/// tracks few, cues in their order but for some, frames not compressed once more, copies of what is beside them few;
/// what FFmpeg would find only after an error counts too.
/// Everything else, and what cannot be read, is FFmpeg's to judge: true.
///
/// Blocks: for some short reads of the file.
bool FFREAD_IsModest(const char *pszPath, QN_FILE_FMT_E enFormat);

} // namespace libquarrin

#endif
