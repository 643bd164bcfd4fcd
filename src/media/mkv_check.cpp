// A look at a Matroska file of a stranger before FFmpeg opens it: where its elements are found.
// Threads: any. Locks: none. Not here: damage that FFmpeg answers quickly.

#include "media/mkv_check.h"

#include <algorithm>
#include <iterator>

#include "media/mkv_elements.h"

namespace libquarrin
{

static constexpr uint32_t MAX_LEVEL1 = 4096;        // elements before the first cluster, and those that are named
static constexpr uint32_t MAX_NAMED = 16;           // of those that take something; each is named once
static constexpr int32_t MAX_SEEK_HEADS = 8;        // that name one another
static constexpr uint64_t MAX_SEARCH = 1 << 23;     // bytes that are searched for ids
static constexpr uint64_t FIRST_CLUSTERS = 1 << 20; // bytes of clusters that are looked at; an open reads some of them

static bool IsLevel1(uint32_t u32Id)
{
    constexpr uint32_t IDS[] = {MKV_CLUSTER, MKV_SEEK_HEAD, MKV_INFO,     MKV_TRACKS,
                                MKV_CUES,    MKV_TAGS,      MKV_CHAPTERS, MKV_ATTACHMENTS};
    return std::find(std::begin(IDS), std::end(IDS), u32Id) != std::end(IDS);
}

// The first id of the first level between two places, or the end; u64Left limits all searches of a file together.
static uint64_t FindLevel1(tagFILE_BYTES_S &stBytes, uint64_t u64At, uint64_t u64End, uint64_t &u64Left)
{
    for (; u64At + 4 <= u64End && u64Left > 0; ++u64At, --u64Left)
    {
        if ((FILEBYTES_Number(stBytes, u64At, 1) & 0xf0) == 0x10 && IsLevel1(FILEBYTES_Word(stBytes, u64At)))
        {
            return u64At;
        }
    }
    return u64End;
}

/// A list of places where there are elements.
struct tagSEEKS_S
{
    tagELEMENT_S stLast; ///< child that was read last
    uint32_t u32Seeks;
    uint32_t u32Named;
    uint64_t u64Segment;
    uint64_t u64From; ///< elements before this place were looked at
    int32_t s32Depth;
};

static bool IsFiller(uint32_t u32Id)
{
    return u32Id == 0xec || u32Id == 0xbf;
}

// A place in a list of places: first what is there, then where. FFmpeg finds the id in it when it looks for ids, and
// would take the bytes behind it for its size.
static bool TakeSeekPart(tagMKV_S &stMkv, const tagELEMENT_S &stElement, void *pArgument)
{
    tagSEEKS_S &stSeeks = *static_cast<tagSEEKS_S *>(pArgument);
    stSeeks.stLast = stElement;
    const uint64_t u64Number = MKV_NumberOf(stMkv, stElement);
    stSeeks.u32Named += stElement.u32Id == 0x53ab && (u64Number == MKV_TRACKS || u64Number == MKV_CUES ||
                                                      u64Number == MKV_TAGS || u64Number == MKV_CHAPTERS)
                            ? 1
                            : 0;
    return ++stSeeks.u32Seeks <= MAX_LEVEL1 && stSeeks.u32Named <= MAX_NAMED && stElement.bWhole &&
           (IsFiller(stElement.u32Id) ||
            (stElement.u64End - stElement.u64Begin <= 8 && (stElement.u32Id == 0x53ab || stElement.u32Id == 0x53ac)));
}

static bool TakeSeek(tagMKV_S &stMkv, const tagELEMENT_S &stElement, void *pArgument)
{
    tagSEEKS_S &stSeeks = *static_cast<tagSEEKS_S *>(pArgument);
    const bool bGood = stElement.u32Id == 0x4dbb
                           ? MKV_ForEach(stMkv, stElement, TakeSeekPart, pArgument) &&
                                 stSeeks.stLast.u64End == stElement.u64End && stSeeks.stLast.u32Id != 0x53ab
                           : IsFiller(stElement.u32Id);
    stSeeks.stLast = stElement;
    return bGood && stElement.bWhole;
}

// A list with anything else in it would make FFmpeg look for ids.
static bool IsSound(tagMKV_S &stMkv, const tagELEMENT_S &stHead)
{
    tagSEEKS_S stSeeks = {};
    stSeeks.stLast.u64End = stHead.u64Begin;
    return MKV_ForEach(stMkv, stHead, TakeSeek, &stSeeks) && stSeeks.stLast.u64End == stHead.u64End;
}

static bool FollowSeek(tagMKV_S &stMkv, const tagELEMENT_S &stElement, void *pArgument)
{
    tagSEEKS_S &stSeeks = *static_cast<tagSEEKS_S *>(pArgument);
    if (stElement.u32Id == 0x4dbb)
    {
        return MKV_ForEach(stMkv, stElement, FollowSeek, pArgument);
    }
    const uint64_t u64At = stSeeks.u64Segment + MKV_NumberOf(stMkv, stElement);
    tagELEMENT_S stFound = {};
    if (stElement.u32Id != 0x53ac || u64At < stSeeks.u64From ||
        !MKV_ReadElement(stMkv.stBytes, u64At, stMkv.stBytes.u64Size, stFound))
    {
        return true;
    }
    if (stFound.u32Id == MKV_SEEK_HEAD)
    {
        tagSEEKS_S stNext = stSeeks;
        return ++stNext.s32Depth <= MAX_SEEK_HEADS && MKV_ForEach(stMkv, stFound, FollowSeek, &stNext);
    }
    return ++stSeeks.u32Seeks <= MAX_LEVEL1 && MKV_TakeElement(stMkv, stFound);
}

// Elements behind the clusters are found by their places.
static bool FollowSeekHeads(tagMKV_S &stMkv, const tagELEMENT_S &stSegment, uint64_t u64Cluster)
{
    tagELEMENT_S stElement = {};
    tagSEEKS_S stSeeks = {};
    stSeeks.u64Segment = stSegment.u64Begin;
    stSeeks.u64From = u64Cluster;
    for (uint64_t u64At = stSegment.u64Begin;
         u64At < u64Cluster && MKV_ReadElement(stMkv.stBytes, u64At, stSegment.u64End, stElement);
         u64At = stElement.u64End)
    {
        if (stElement.u32Id == MKV_SEEK_HEAD && !MKV_ForEach(stMkv, stElement, FollowSeek, &stSeeks))
        {
            return false;
        }
    }
    return true;
}

// A header that breaks off: FFmpeg looks for the next id, and the next, up to a cluster.
static bool TakeRest(tagMKV_S &stMkv, uint64_t u64At, uint64_t &u64Left)
{
    const uint64_t u64End = stMkv.stBytes.u64Size;
    uint32_t u32Elements = 0;
    for (u64At = FindLevel1(stMkv.stBytes, u64At, u64End, u64Left); u64At < u64End;
         u64At = FindLevel1(stMkv.stBytes, u64At + 1, u64End, u64Left))
    {
        tagELEMENT_S stElement = {};
        if (FILEBYTES_Word(stMkv.stBytes, u64At) == MKV_CLUSTER)
        {
            return true;
        }
        if (++u32Elements > MAX_LEVEL1 ||
            (MKV_ReadElement(stMkv.stBytes, u64At, u64End, stElement) && !MKV_TakeElement(stMkv, stElement)))
        {
            return false;
        }
    }
    return true;
}

// Up to the first cluster, whose place is left in u64At. Where FFmpeg may come to an error, it begins anew and goes
// from id to id.
static bool TakeHeader(tagMKV_S &stMkv, const tagELEMENT_S &stSegment, uint64_t &u64At)
{
    uint64_t u64Left = MAX_SEARCH;
    uint32_t u32Elements = 0;
    bool bSound = true;
    tagELEMENT_S stElement = {};
    for (; u64At < stSegment.u64End; u64At = stElement.u64End)
    {
        const bool bRead = MKV_ReadElement(stMkv.stBytes, u64At, stSegment.u64End, stElement);
        bSound = bSound && bRead;
        if (!bRead || stElement.u32Id == MKV_CLUSTER)
        {
            break;
        }
        bSound = bSound &&
                 (stElement.u32Id == MKV_SEEK_HEAD
                      ? IsSound(stMkv, stElement)
                      : FindLevel1(stMkv.stBytes, stElement.u64Begin, stElement.u64End, u64Left) >= stElement.u64End);
        if (++u32Elements > MAX_LEVEL1 || !MKV_TakeElement(stMkv, stElement))
        {
            return false;
        }
    }
    u64Left = MAX_SEARCH;
    return bSound || TakeRest(stMkv, stSegment.u64Begin, u64Left);
}

// The groups of a cluster; the place behind it is left in u64At.
static bool TakeCluster(tagMKV_S &stMkv, const tagELEMENT_S &stCluster, uint64_t u64Limit, uint64_t &u64At)
{
    tagELEMENT_S stElement = {};
    u64At = stCluster.u64Begin;
    while (u64At < stCluster.u64End && u64At < u64Limit &&
           MKV_ReadElement(stMkv.stBytes, u64At, stCluster.u64End, stElement) && !IsLevel1(stElement.u32Id))
    {
        if (stElement.u32Id == 0xa0 && !MKV_TakeBlockGroup(stMkv, stElement))
        {
            return false;
        }
        u64At = stElement.u64End;
    }
    return true;
}

static bool TakeFirstClusters(tagMKV_S &stMkv, uint64_t u64At)
{
    const uint64_t u64Limit = std::min(stMkv.stBytes.u64Size, u64At + FIRST_CLUSTERS);
    uint64_t u64Left = FIRST_CLUSTERS;
    for (u64At = FindLevel1(stMkv.stBytes, u64At, u64Limit, u64Left); u64At < u64Limit;
         u64At = FindLevel1(stMkv.stBytes, u64At, u64Limit, u64Left))
    {
        tagELEMENT_S stElement = {};
        const bool bRead = MKV_ReadElement(stMkv.stBytes, u64At, stMkv.stBytes.u64Size, stElement);
        ++u64At;
        if (bRead && stElement.u32Id == MKV_CLUSTER && !TakeCluster(stMkv, stElement, u64Limit, u64At))
        {
            return false;
        }
    }
    return true;
}

bool FFREAD_IsModestMatroska(tagFILE_BYTES_S &stBytes)
{
    tagMKV_S stMkv = {stBytes};
    tagELEMENT_S stSegment = {};
    uint64_t u64At = 0;
    while (MKV_ReadElement(stBytes, u64At, stBytes.u64Size, stSegment) && stSegment.u32Id != MKV_SEGMENT)
    {
        u64At = stSegment.u64End;
        ++stMkv.u64Steps;
    }
    if (stSegment.u32Id != MKV_SEGMENT)
    {
        uint64_t u64Left = MAX_SEARCH;
        return TakeRest(stMkv, 0, u64Left);
    }
    u64At = stSegment.u64Begin;
    return TakeHeader(stMkv, stSegment, u64At) && FollowSeekHeads(stMkv, stSegment, u64At) &&
           TakeFirstClusters(stMkv, u64At);
}

} // namespace libquarrin
