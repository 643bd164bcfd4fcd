// NAL units of H.264 and H.265 byte streams: splitting, types, parameter sets.
// Threads: any. Locks: none. Not here: the parameter sets that go into a file (media/muxer_stream.cpp).

#include "libquarrin/stream.h"

#include <exception>

#include "util/log.h"

using NALUS = std::vector<std::pair<unsigned char *, int>>;

static constexpr int32_t NAL_NO_START_CODE = -1;
static constexpr int32_t NAL_TOO_SHORT = -2;
static constexpr uint32_t NAL_MIN_UNIT = 5;   // a four-byte start code and one header byte
static constexpr uint32_t NAL_MIN_STREAM = 6; // one byte more than the shortest unit

static void EmitUnit(unsigned char *pu8Data, uint32_t u32Begin, uint32_t u32End, NALUS &vecNalus)
{
    if (u32End > u32Begin)
    {
        vecNalus.emplace_back(pu8Data + u32Begin, static_cast<int>(u32End - u32Begin));
    }
}

// Kept: only 00 00 00 01 and 00 00 00 00 01 split; a unit with a three-byte start code in it stays whole.
static void Split(unsigned char *pu8Data, uint32_t u32Len, NALUS &vecNalus)
{
    uint32_t u32Begin = 0;
    uint32_t u32Zeros = 0;
    for (uint32_t i = 0; i < u32Len; ++i)
    {
        if (pu8Data[i] == 0)
        {
            ++u32Zeros;
            continue;
        }
        if (pu8Data[i] == 1 && (u32Zeros == 3 || u32Zeros == 4))
        {
            EmitUnit(pu8Data, u32Begin, i - u32Zeros, vecNalus);
            u32Begin = i - u32Zeros;
        }
        u32Zeros = 0;
    }
    EmitUnit(pu8Data, u32Begin, u32Len, vecNalus);
}

int32_t SPLIT_H26X_NALUS(unsigned char *pu8Data, uint32_t u32Len, NALUS &vecNalus)
try
{
    vecNalus.clear();
    if (pu8Data != nullptr && u32Len >= NAL_MIN_STREAM)
    {
        Split(pu8Data, u32Len, vecNalus);
    }
    return static_cast<int32_t>(vecNalus.size());
}
catch (const std::exception &) // no memory: rather none than some
{
    vecNalus.clear();
    return 0;
}

// The first header byte of a unit behind a start code of three or four bytes; negative when there is none.
static int32_t HeaderByte(const unsigned char *pu8Data, uint32_t u32Len)
{
    if (pu8Data == nullptr || u32Len < NAL_MIN_UNIT)
    {
        return NAL_TOO_SHORT;
    }
    if (pu8Data[0] != 0 || pu8Data[1] != 0)
    {
        return NAL_NO_START_CODE;
    }
    if (pu8Data[2] == 1)
    {
        return pu8Data[3];
    }
    return pu8Data[2] == 0 && pu8Data[3] == 1 ? pu8Data[4] : NAL_NO_START_CODE;
}

int32_t GET_H264_NAL_TYPE(unsigned char *pu8Data, uint32_t u32Len)
{
    const int32_t s32Header = HeaderByte(pu8Data, u32Len);
    return s32Header < 0 ? s32Header : s32Header & 31;
}

int32_t GET_H265_NAL_TYPE(unsigned char *pu8Data, uint32_t u32Len)
{
    const int32_t s32Header = HeaderByte(pu8Data, u32Len);
    return s32Header < 0 ? s32Header : (s32Header >> 1) & 63;
}

namespace libquarrin
{

static constexpr int32_t H264_NAL_SPS = 7; // ISO/IEC 14496-10, table 7-1
static constexpr int32_t H264_NAL_PPS = 8;
static constexpr int32_t H265_NAL_VPS = 32; // ISO/IEC 23008-2, table 7-1
static constexpr int32_t H265_NAL_PPS = 34;

// Kept: for H.265 the VPS goes where the SPS is expected, and the SPS (33) is not collected.
int32_t QN_GetH26xInfo(unsigned char *pu8Data, uint32_t u32Len, bool bH265, tagQN_BYTES *pstPps, tagQN_BYTES *pstSps)
{
    NALUS vecNalus;
    if (SPLIT_H26X_NALUS(pu8Data, u32Len, vecNalus) <= 0)
    {
        QN_TRACE("Split nalus failed\n");
        return -1;
    }
    for (const std::pair<unsigned char *, int> &unit : vecNalus)
    {
        const uint32_t u32UnitLen = static_cast<uint32_t>(unit.second);
        const int32_t s32Type =
            bH265 ? GET_H265_NAL_TYPE(unit.first, u32UnitLen) : GET_H264_NAL_TYPE(unit.first, u32UnitLen);
        if (s32Type == (bH265 ? H265_NAL_VPS : H264_NAL_SPS) && pstSps != nullptr)
        {
            *pstSps = tagQN_BYTES{unit.first, u32UnitLen};
        }
        else if (s32Type == (bH265 ? H265_NAL_PPS : H264_NAL_PPS) && pstPps != nullptr)
        {
            *pstPps = tagQN_BYTES{unit.first, u32UnitLen};
        }
    }
    return 0;
}

} // namespace libquarrin
