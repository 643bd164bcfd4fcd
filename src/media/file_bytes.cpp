// Numbers of a file of a stranger, read a window at a time.
// Threads: any; calls on one record are serialised by the caller. Locks: none.

#include "media/file_bytes.h"

#include <algorithm>

#include <unistd.h>

namespace libquarrin
{

static bool Holds(const tagFILE_BYTES_S &stFile, uint64_t u64At, uint64_t u64Bytes)
{
    return u64At >= stFile.u64Begin && u64At + u64Bytes <= stFile.u64Begin + stFile.u32Filled;
}

static void Fill(tagFILE_BYTES_S &stFile, uint64_t u64At)
{
    const ssize_t got = pread(stFile.s32Fd, stFile.au8Window, sizeof(stFile.au8Window), static_cast<off_t>(u64At));
    stFile.u64Begin = u64At;
    stFile.u32Filled = static_cast<uint32_t>(std::max<ssize_t>(got, 0));
}

uint64_t FILEBYTES_Number(tagFILE_BYTES_S &stFile, uint64_t u64At, uint32_t u32Bytes)
{
    if (u64At >= stFile.u64Size)
    {
        return 0;
    }
    const uint64_t u64There = std::min<uint64_t>(u32Bytes, stFile.u64Size - u64At);
    if (!Holds(stFile, u64At, u64There))
    {
        Fill(stFile, u64At);
    }
    uint64_t u64Value = 0;
    for (uint64_t i = 0; i < u32Bytes; ++i)
    {
        const bool bThere = i < u64There && Holds(stFile, u64At + i, 1);
        u64Value = u64Value << 8 | (bThere ? stFile.au8Window[u64At + i - stFile.u64Begin] : 0u);
    }
    return u64Value;
}

uint32_t FILEBYTES_Word(tagFILE_BYTES_S &stFile, uint64_t u64At)
{
    return static_cast<uint32_t>(FILEBYTES_Number(stFile, u64At, 4));
}

} // namespace libquarrin
