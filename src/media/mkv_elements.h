// Elements of a Matroska file (RFC 9559) of a stranger, and what each of them may ask for.
// Threads: any. Locks: none.
#ifndef QUARRIN_MEDIA_MKV_ELEMENTS_H
#define QUARRIN_MEDIA_MKV_ELEMENTS_H

#include "media/file_bytes.h"

namespace libquarrin
{

constexpr uint32_t MKV_SEGMENT = 0x18538067;
constexpr uint32_t MKV_CLUSTER = 0x1f43b675;
constexpr uint32_t MKV_SEEK_HEAD = 0x114d9b74;
constexpr uint32_t MKV_INFO = 0x1549a966;
constexpr uint32_t MKV_TRACKS = 0x1654ae6b;
constexpr uint32_t MKV_CUES = 0x1c53bb6b;
constexpr uint32_t MKV_ATTACHMENTS = 0x1941a469;
constexpr uint32_t MKV_TAGS = 0x1254c367;
constexpr uint32_t MKV_CHAPTERS = 0x1043a770;

/// An element without its header.
struct tagELEMENT_S
{
    uint32_t u32Id;
    uint64_t u64Begin;
    uint64_t u64End;
    bool bWhole; ///< false: it was cut where its parent ends, or its size is unknown
};

/// The file, and what it has asked for so far.
struct tagMKV_S
{
    tagFILE_BYTES_S &stBytes; ///< borrowed
    uint64_t u64Steps = 0;    ///< elements that were looked at
    uint64_t u64TagBytes = 0;
    uint32_t u32Tracks = 0;
    uint64_t u64Cues = 0; ///< place of the last cues; 0: none yet
    uint64_t u64CueMoves = 0;
};

/// Looks at one child. False: no more of it, the file is refused.
using MKV_CALL = bool (*)(tagMKV_S &stMkv, const tagELEMENT_S &stElement, void *pArgument);

/// The element at a place; one whose size is unknown, all ones, ends with its parent. False: there is none.
bool MKV_ReadElement(tagFILE_BYTES_S &stBytes, uint64_t u64At, uint64_t u64End, tagELEMENT_S &stElement);

/// The number that an element holds.
uint64_t MKV_NumberOf(tagMKV_S &stMkv, const tagELEMENT_S &stElement);

/// Calls for each child, up to the first that is none. False: a call refused, or there are too many.
bool MKV_ForEach(tagMKV_S &stMkv, const tagELEMENT_S &stParent, MKV_CALL pfnCall, void *pArgument);

/// Counts what an element of the first level asks for. False: more than it may.
bool MKV_TakeElement(tagMKV_S &stMkv, const tagELEMENT_S &stElement);

/// Counts what a group of a block asks for. False: more than it may.
bool MKV_TakeBlockGroup(tagMKV_S &stMkv, const tagELEMENT_S &stElement);

} // namespace libquarrin

#endif
