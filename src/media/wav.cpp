// WAV back end: a placeholder that keeps the shape of a writer and writes nothing.
// Threads: any. Locks: none. Not here: the tables (media_api.cpp).

#include "libquarrin/media.h"

#include <cstdlib>

namespace libquarrin
{

void *WAV_WriteOpen(tagQN_RECORD_PARAM_S *, const char *)
{
    return malloc(1);
}

void *WAV_WriteOpenPreAlloc(tagQN_RECORD_PARAM_S *pstParam, const char *pszPath)
{
    return WAV_WriteOpen(pstParam, pszPath);
}

int32_t WAV_WriteFrame(void *pWriter, const unsigned char *, uint32_t, uint64_t, bool, bool)
{
    return pWriter != nullptr ? 0 : -1;
}

// Kept: the one-byte writer is not freed.
int32_t WAV_WriteClose(void *pWriter)
{
    return pWriter != nullptr ? 0 : -1;
}

} // namespace libquarrin
