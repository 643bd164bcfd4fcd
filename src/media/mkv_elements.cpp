// Elements of a Matroska file (RFC 9559) of a stranger, and what each of them may ask for.
// Threads: any. Locks: none. Not here: where FFmpeg finds elements (mkv_check.cpp).

#include "media/mkv_elements.h"

#include <algorithm>

namespace libquarrin
{

static constexpr uint64_t MAX_TAG_BYTES = 65536;   // FFmpeg compares each tag with all before it
static constexpr uint32_t MAX_TRACKS = 64;         // an empty one takes two bytes, and a kilobyte of memory
static constexpr uint64_t MAX_STRIPPED = 1024;     // put before each frame again; a block has up to 256
static constexpr uint64_t MAX_CUE_MOVES = 1 << 22; // of entries, to make room for cues that come late
static constexpr uint64_t MAX_ADDED = 1 << 24;     // beside the frames of one block; each of them gets a copy
static constexpr uint64_t SPARE_STEPS = 1 << 20;   // and one for each eight bytes of the file

// An element's id, or its size; the id keeps the bits that tell its length. 0 bytes: there is none.
static uint32_t ReadVint(tagFILE_BYTES_S &stBytes, uint64_t u64At, bool bId, uint64_t &u64Value)
{
    const uint32_t u32First = static_cast<uint32_t>(FILEBYTES_Number(stBytes, u64At, 1));
    uint32_t u32Bytes = 1;
    while (u32Bytes < 9 && (u32First & 0x100u >> u32Bytes) == 0)
    {
        ++u32Bytes;
    }
    if (u64At >= stBytes.u64Size || u32Bytes > (bId ? 4u : 8u))
    {
        return 0;
    }
    u64Value = FILEBYTES_Number(stBytes, u64At, u32Bytes);
    u64Value &= bId ? UINT64_MAX : (uint64_t{1} << 7 * u32Bytes) - 1;
    return u32Bytes;
}

bool MKV_ReadElement(tagFILE_BYTES_S &stBytes, uint64_t u64At, uint64_t u64End, tagELEMENT_S &stElement)
{
    uint64_t u64Id = 0;
    uint64_t u64Size = 0;
    const uint32_t u32Id = ReadVint(stBytes, u64At, true, u64Id);
    const uint32_t u32Size = u32Id != 0 ? ReadVint(stBytes, u64At + u32Id, false, u64Size) : 0;
    stElement.u32Id = static_cast<uint32_t>(u64Id);
    stElement.u64Begin = u64At + u32Id + u32Size;
    stElement.bWhole = u64End >= stElement.u64Begin && u64Size <= u64End - stElement.u64Begin;
    stElement.u64End = stElement.bWhole ? stElement.u64Begin + u64Size : u64End;
    return u32Size != 0 && stElement.u64Begin <= u64End;
}

uint64_t MKV_NumberOf(tagMKV_S &stMkv, const tagELEMENT_S &stElement)
{
    const uint64_t u64Bytes = std::min<uint64_t>(stElement.u64End - stElement.u64Begin, 8);
    return FILEBYTES_Number(stMkv.stBytes, stElement.u64Begin, static_cast<uint32_t>(u64Bytes));
}

bool MKV_ForEach(tagMKV_S &stMkv, const tagELEMENT_S &stParent, MKV_CALL pfnCall, void *pArgument)
{
    tagELEMENT_S stChild = {};
    for (uint64_t u64At = stParent.u64Begin;
         u64At < stParent.u64End && MKV_ReadElement(stMkv.stBytes, u64At, stParent.u64End, stChild);
         u64At = stChild.u64End)
    {
        if (++stMkv.u64Steps > SPARE_STEPS + stMkv.stBytes.u64Size / 8 || !pfnCall(stMkv, stChild, pArgument))
        {
            return false;
        }
    }
    return true;
}

/// How the frames of a track are packed.
struct tagENCODING_S
{
    bool bEncrypted;
    bool bStripped;    ///< of bytes that all frames begin with
    bool bUnpacked;    ///< in some other way: a kilobyte may stand for megabytes
    uint64_t u64Bytes; ///< that they begin with
};

static bool TakeEncodingPart(tagMKV_S &stMkv, const tagELEMENT_S &stElement, void *pArgument)
{
    tagENCODING_S &stEncoding = *static_cast<tagENCODING_S *>(pArgument);
    switch (stElement.u32Id)
    {
    case 0x5033: // the kind: 1 for encryption
        stEncoding.bEncrypted = MKV_NumberOf(stMkv, stElement) != 0;
        return true;
    case 0x5034: // compression
        return MKV_ForEach(stMkv, stElement, TakeEncodingPart, pArgument);
    case 0x4254: // its kind: 3 for bytes that were stripped
        stEncoding.bStripped = MKV_NumberOf(stMkv, stElement) == 3;
        stEncoding.bUnpacked = stEncoding.bUnpacked || !stEncoding.bStripped;
        return true;
    case 0x4255:
        stEncoding.u64Bytes += stElement.u64End - stElement.u64Begin;
        return true;
    default:
        return true;
    }
}

static bool TakeTrackPart(tagMKV_S &stMkv, const tagELEMENT_S &stElement, void *)
{
    if (stElement.u32Id == 0x6d80) // a list of encodings
    {
        return MKV_ForEach(stMkv, stElement, TakeTrackPart, nullptr);
    }
    if (stElement.u32Id != 0x6240)
    {
        return true;
    }
    tagENCODING_S stEncoding = {};
    return MKV_ForEach(stMkv, stElement, TakeEncodingPart, &stEncoding) &&
           (stEncoding.bEncrypted || (stEncoding.bStripped && !stEncoding.bUnpacked)) &&
           stEncoding.u64Bytes <= MAX_STRIPPED;
}

static bool TakeTrack(tagMKV_S &stMkv, const tagELEMENT_S &stElement, void *)
{
    return stElement.u32Id != 0xae ||
           (++stMkv.u32Tracks <= MAX_TRACKS && MKV_ForEach(stMkv, stElement, TakeTrackPart, nullptr));
}

/// Cues, as far as they were read.
struct tagCUES_S
{
    uint64_t u64Entries;
    uint64_t u64Latest;
    uint64_t u64Time;   ///< of the current point
    uint64_t u64Tracks; ///< of the current point
};

static bool TakeCuePart(tagMKV_S &stMkv, const tagELEMENT_S &stElement, void *pArgument)
{
    tagCUES_S &stCues = *static_cast<tagCUES_S *>(pArgument);
    stCues.u64Time = stElement.u32Id == 0xb3 ? MKV_NumberOf(stMkv, stElement) : stCues.u64Time;
    stCues.u64Tracks += stElement.u32Id == 0xb7 ? 1 : 0;
    return true;
}

// FFmpeg sorts the cues by inserting one after the other: one that comes late moves those behind it.
static bool TakeCue(tagMKV_S &stMkv, const tagELEMENT_S &stElement, void *pArgument)
{
    tagCUES_S &stCues = *static_cast<tagCUES_S *>(pArgument);
    if (stElement.u32Id != 0xbb)
    {
        return true;
    }
    stCues.u64Time = 0;
    stCues.u64Tracks = 0;
    if (!MKV_ForEach(stMkv, stElement, TakeCuePart, pArgument))
    {
        return false;
    }
    stMkv.u64CueMoves += stCues.u64Time < stCues.u64Latest ? stCues.u64Tracks * stCues.u64Entries : 0;
    stCues.u64Entries += stCues.u64Tracks;
    stCues.u64Latest = std::max(stCues.u64Latest, stCues.u64Time);
    return stMkv.u64CueMoves <= MAX_CUE_MOVES;
}

// One list: a second one would be sorted into the first.
static bool TakeCues(tagMKV_S &stMkv, const tagELEMENT_S &stElement)
{
    if (stMkv.u64Cues == stElement.u64Begin)
    {
        return true;
    }
    const bool bFirst = stMkv.u64Cues == 0;
    stMkv.u64Cues = stElement.u64Begin;
    tagCUES_S stCues = {};
    return MKV_ForEach(stMkv, stElement, TakeCue, &stCues) && (bFirst || stCues.u64Entries == 0);
}

bool MKV_TakeElement(tagMKV_S &stMkv, const tagELEMENT_S &stElement)
{
    switch (stElement.u32Id)
    {
    case MKV_TAGS:
    case MKV_CHAPTERS:
        stMkv.u64TagBytes += stElement.u64End - stElement.u64Begin;
        return stMkv.u64TagBytes <= MAX_TAG_BYTES;
    case MKV_TRACKS:
        return MKV_ForEach(stMkv, stElement, TakeTrack, nullptr);
    case MKV_CUES:
        return TakeCues(stMkv, stElement);
    default:
        return true;
    }
}

/// A block with what is beside it.
struct tagBLOCK_S
{
    uint64_t u64Frames;
    uint64_t u64Added;
};

// A track's number, a time of two bytes, flags, and, when the flags speak of several frames, their number less one.
static uint64_t CountFrames(tagMKV_S &stMkv, const tagELEMENT_S &stElement)
{
    uint64_t u64Track = 0;
    const uint64_t u64Flags = stElement.u64Begin + ReadVint(stMkv.stBytes, stElement.u64Begin, false, u64Track) + 2;
    const bool bSeveral = (FILEBYTES_Number(stMkv.stBytes, u64Flags, 1) & 0x06) != 0;
    return bSeveral ? FILEBYTES_Number(stMkv.stBytes, u64Flags + 1, 1) + 1 : 1;
}

static bool TakeBlockPart(tagMKV_S &stMkv, const tagELEMENT_S &stElement, void *pArgument)
{
    tagBLOCK_S &stBlock = *static_cast<tagBLOCK_S *>(pArgument);
    switch (stElement.u32Id)
    {
    case 0xa1:
        stBlock.u64Frames = std::max(stBlock.u64Frames, CountFrames(stMkv, stElement));
        return true;
    case 0x75a1: // lists of what is beside it
    case 0xa6:
        return MKV_ForEach(stMkv, stElement, TakeBlockPart, pArgument);
    case 0xa5:
        stBlock.u64Added = std::max(stBlock.u64Added, stElement.u64End - stElement.u64Begin);
        return true;
    default:
        return true;
    }
}

bool MKV_TakeBlockGroup(tagMKV_S &stMkv, const tagELEMENT_S &stElement)
{
    tagBLOCK_S stBlock = {};
    return MKV_ForEach(stMkv, stElement, TakeBlockPart, &stBlock) && stBlock.u64Frames * stBlock.u64Added <= MAX_ADDED;
}

} // namespace libquarrin
