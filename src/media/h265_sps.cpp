// A look at the H.265 parameter sets that a file begins with: ITU-T H.265, 7.3.2.2, read as FFmpeg reads it.
// Threads: any. Locks: none. Not here: what becomes of a frame that may not begin a file (muxer.cpp, record/frame.cpp).

#include "media/h265_sps.h"

#include <cstddef>

namespace libquarrin
{

static constexpr ptrdiff_t NAL_HEADER_BYTES = 2;
static constexpr uint32_t NAL_SPS = 33;             // table 7-1
static constexpr uint32_t MAX_SHORT_TERM_SETS = 64; // 7.4.3.2.1; FFmpeg reads no set when there are more
static constexpr uint32_t MAX_UE_ZEROS = 31;        // FFmpeg counts no more of them in front of a number
static constexpr uint32_t EMULATION_BYTE = 3;       // 7.3.1.1: it stands behind two zeros and is no payload
static constexpr uint32_t CHROMA_444 = 3;

/// What is left of a NAL unit, bit by bit. Behind the end every bit is 0.
struct tagH265_BITS_S
{
    const uint8_t *pu8Data; ///< borrowed; the next byte
    const uint8_t *pu8End;
    uint32_t u32Zeros; ///< zero bytes in a row before pu8Data
    uint32_t u32Byte;  ///< the byte that is being read
    uint32_t u32Left;  ///< bits of it that are left
    bool bRanOut;      ///< more was read than there is
};

static uint32_t ReadBit(tagH265_BITS_S &stBits)
{
    if (stBits.u32Left == 0)
    {
        if (stBits.u32Zeros >= 2 && stBits.pu8Data < stBits.pu8End && *stBits.pu8Data == EMULATION_BYTE)
        {
            ++stBits.pu8Data;
            stBits.u32Zeros = 0;
        }
        if (stBits.pu8Data >= stBits.pu8End)
        {
            stBits.bRanOut = true;
            return 0;
        }
        stBits.u32Byte = *stBits.pu8Data++;
        stBits.u32Zeros = stBits.u32Byte == 0 ? stBits.u32Zeros + 1 : 0;
        stBits.u32Left = 8;
    }
    --stBits.u32Left;
    return stBits.u32Byte >> stBits.u32Left & 1;
}

static uint32_t ReadBits(tagH265_BITS_S &stBits, uint32_t u32Count)
{
    uint32_t u32Value = 0;
    for (uint32_t i = 0; i < u32Count && !stBits.bRanOut; ++i)
    {
        u32Value = u32Value << 1 | ReadBit(stBits);
    }
    return u32Value;
}

// ue(v) of 9.2; se(v) has the same length.
static uint32_t ReadUe(tagH265_BITS_S &stBits)
{
    uint32_t u32Zeros = 0;
    uint32_t u32Value = ReadBit(stBits);
    while (u32Value == 0 && u32Zeros < MAX_UE_ZEROS && !stBits.bRanOut)
    {
        ++u32Zeros;
        u32Value = ReadBit(stBits);
    }
    for (; u32Zeros > 0; --u32Zeros)
    {
        u32Value = u32Value << 1 | ReadBit(stBits);
    }
    return u32Value - 1;
}

static void SkipUe(tagH265_BITS_S &stBits, uint32_t u32Count)
{
    for (uint32_t i = 0; i < u32Count && !stBits.bRanOut; ++i)
    {
        (void)ReadUe(stBits);
    }
}

// profile_tier_level, 7.3.3.
static void SkipProfileTierLevel(tagH265_BITS_S &stBits, uint32_t u32SubLayers)
{
    constexpr uint32_t PROFILE_BITS = 88;
    constexpr uint32_t LEVEL_BITS = 8;
    (void)ReadBits(stBits, PROFILE_BITS + LEVEL_BITS);
    const uint32_t u32Present = ReadBits(stBits, u32SubLayers * 2); // a profile, a level, for each of seven at most
    (void)ReadBits(stBits, u32SubLayers > 0 ? (8 - u32SubLayers) * 2 : 0);
    for (uint32_t i = u32SubLayers; i > 0; --i)
    {
        const uint32_t u32Flags = u32Present >> ((i - 1) * 2);
        (void)ReadBits(stBits, ((u32Flags & 2) != 0 ? PROFILE_BITS : 0) + ((u32Flags & 1) != 0 ? LEVEL_BITS : 0));
    }
}

// scaling_list_data, 7.3.4.
static void SkipScalingLists(tagH265_BITS_S &stBits)
{
    for (uint32_t u32Size = 0; u32Size < 4; ++u32Size)
    {
        const uint32_t u32Coefficients = u32Size == 0 ? 16 : 64;
        for (uint32_t i = 0; i < (u32Size == 3 ? 2u : 6u); ++i)
        {
            // The matrix that it is like; or its coefficients, from the third size on behind that of the mean.
            SkipUe(stBits, ReadBit(stBits) == 0 ? 1 : u32Coefficients + (u32Size > 1 ? 1 : 0));
        }
    }
}

// One st_ref_pic_set of 7.3.7, which may be told by the difference to the one before it. Its number of pictures.
static uint64_t ReadShortTermSet(tagH265_BITS_S &stBits, bool bFirst, uint64_t u64Before)
{
    uint64_t u64Pictures = 0;
    if (!bFirst && ReadBit(stBits) != 0)
    {
        (void)ReadBit(stBits);
        (void)ReadUe(stBits);
        for (uint64_t i = 0; i <= u64Before && !stBits.bRanOut; ++i)
        {
            const bool bUsed = ReadBit(stBits) != 0;
            const bool bKept = bUsed || ReadBit(stBits) != 0; // asked for the others alone
            u64Pictures += bKept ? 1 : 0;
        }
        return u64Pictures;
    }
    u64Pictures = ReadUe(stBits);
    u64Pictures += ReadUe(stBits);
    for (uint64_t i = 0; i < u64Pictures && !stBits.bRanOut; ++i)
    {
        (void)ReadUe(stBits);
        (void)ReadBit(stBits);
    }
    return u64Pictures;
}

static void ReadShortTermSets(tagH265_BITS_S &stBits)
{
    const uint32_t u32Sets = ReadUe(stBits);
    uint64_t u64Pictures = 0;
    for (uint32_t i = 0; i < u32Sets && u32Sets <= MAX_SHORT_TERM_SETS && !stBits.bRanOut; ++i)
    {
        u64Pictures = ReadShortTermSet(stBits, i == 0, u64Pictures);
    }
}

// seq_parameter_set_rbsp, behind the NAL header.
static bool IsWhole(tagH265_BITS_S stBits)
{
    (void)ReadBits(stBits, 4); // the video parameter set
    const uint32_t u32SubLayers = ReadBits(stBits, 3);
    (void)ReadBit(stBits); // nesting
    SkipProfileTierLevel(stBits, u32SubLayers);
    (void)ReadUe(stBits);                           // its own number
    if ((ReadUe(stBits) & UINT8_MAX) == CHROMA_444) // FFmpeg keeps eight bits of it
    {
        (void)ReadBit(stBits); // separate planes
    }
    SkipUe(stBits, 2);                                                 // size
    SkipUe(stBits, ReadBit(stBits) != 0 ? 4 : 0);                      // conformance window
    SkipUe(stBits, 3);                                                 // bit depths, length of the picture order count
    SkipUe(stBits, ReadBit(stBits) != 0 ? 3 * (u32SubLayers + 1) : 3); // ordering, of every sub-layer or of the last
    SkipUe(stBits, 6);                                                 // block sizes and depths
    const bool bScaling = ReadBit(stBits) != 0;
    if (bScaling && ReadBit(stBits) != 0)
    {
        SkipScalingLists(stBits);
    }
    (void)ReadBits(stBits, 2);
    if (ReadBit(stBits) != 0) // PCM
    {
        (void)ReadBits(stBits, 8);
        SkipUe(stBits, 2);
        (void)ReadBit(stBits);
    }
    ReadShortTermSets(stBits);
    return !stBits.bRanOut;
}

// Every unit but an SPS that is cut is.
static bool IsSoundUnit(const uint8_t *pu8Unit, const uint8_t *pu8End)
{
    if (pu8Unit == pu8End || (pu8Unit[0] >> 1 & 63u) != NAL_SPS)
    {
        return true;
    }
    const uint8_t *pu8Payload = pu8End - pu8Unit > NAL_HEADER_BYTES ? pu8Unit + NAL_HEADER_BYTES : pu8End;
    return IsWhole(tagH265_BITS_S{pu8Payload, pu8End, 0, 0, 0, false});
}

// Where a start code, 00 00 01, begins at or behind pu8; the end when there is none.
static const uint8_t *FindStartCode(const uint8_t *pu8, const uint8_t *pu8End)
{
    for (; pu8End - pu8 >= 3; ++pu8)
    {
        if (pu8[0] == 0 && pu8[1] == 0 && pu8[2] == 1)
        {
            return pu8;
        }
    }
    return pu8End;
}

bool H265_SpsAreWhole(const uint8_t *pu8Data, uint32_t u32Len)
{
    if (pu8Data == nullptr)
    {
        return true;
    }
    const uint8_t *pu8End = pu8Data + u32Len;
    const uint8_t *pu8Code = FindStartCode(pu8Data, pu8End);
    while (pu8Code != pu8End)
    {
        const uint8_t *pu8Unit = pu8Code + 3;
        pu8Code = FindStartCode(pu8Unit, pu8End);
        // The zero before a start code of four bytes belongs to that; others count as bits of the unit, for FFmpeg too.
        const uint8_t *pu8UnitEnd = pu8Code != pu8End && pu8Code > pu8Unit && pu8Code[-1] == 0 ? pu8Code - 1 : pu8Code;
        if (!IsSoundUnit(pu8Unit, pu8UnitEnd))
        {
            return false;
        }
    }
    return true;
}

bool FFWRITE_TakesSetsFromVideo(const tagQN_RECORD_PARAM_S *pstParam)
{
    return (pstParam->enFormat == QN_FILE_FMT_E_MP4 || pstParam->enFormat == QN_FILE_FMT_E_MOV) &&
           pstParam->stVideo.bEnable != 0 && pstParam->stVideo.enCodec == QN_CODEC_H265;
}

bool FFWRITE_MayBeginVideo(const tagQN_RECORD_PARAM_S *pstParam, const uint8_t *pu8Data, uint32_t u32Len)
{
    return !FFWRITE_TakesSetsFromVideo(pstParam) || H265_SpsAreWhole(pu8Data, u32Len);
}

} // namespace libquarrin
