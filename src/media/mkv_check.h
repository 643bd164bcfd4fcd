// A look at a Matroska file of a stranger before FFmpeg opens it.
// Threads: any. Locks: none.
#ifndef QUARRIN_MEDIA_MKV_CHECK_H
#define QUARRIN_MEDIA_MKV_CHECK_H

#include "media/file_bytes.h"

namespace libquarrin
{

/// The file asks FFmpeg (5.1) for no more than a file of its size may: see FFREAD_IsModest.
///
/// FFmpeg goes from element to element up to the first cluster, and to what the seek heads name. Where that fails it
/// looks for the ids of the first level byte by byte, from the begin; where it may fail, both ways are looked at.
bool FFREAD_IsModestMatroska(tagFILE_BYTES_S &stBytes);

} // namespace libquarrin

#endif
