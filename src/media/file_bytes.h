// Numbers of a file of a stranger, read a window at a time.
// Threads: any; calls on one record are serialised by the caller. Locks: none.
#ifndef QUARRIN_MEDIA_FILE_BYTES_H
#define QUARRIN_MEDIA_FILE_BYTES_H

#include <cstdint>

namespace libquarrin
{

/// An open file. Tables of a long recording have tens of megabytes: one system call for each number would take seconds.
struct tagFILE_BYTES_S
{
    int32_t s32Fd = -1; ///< borrowed
    uint64_t u64Size = 0;
    uint64_t u64Begin = 0; ///< of the window
    uint32_t u32Filled = 0;
    uint8_t au8Window[4096] = {};
};

/// A big-endian number of at most eight bytes; what lies behind the end of the file counts as zeros.
uint64_t FILEBYTES_Number(tagFILE_BYTES_S &stFile, uint64_t u64At, uint32_t u32Bytes);

/// One of four bytes.
uint32_t FILEBYTES_Word(tagFILE_BYTES_S &stFile, uint64_t u64At);

} // namespace libquarrin

#endif
