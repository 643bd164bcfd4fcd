// Elementary streams in the shape that the library takes: four-byte start codes, AAC with ADTS headers.
// Pure functions of their arguments.

#include "annexb.h"

static const uint32_t s_au32Rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                       22050, 16000, 12000, 11025, 8000,  7350};

/// Position of the next 00 00 01 at or after uFrom; uLen when there is none.
static size_t FindStartCode(const uint8_t *pu8Data, size_t uLen, size_t uFrom)
{
    for (size_t u = uFrom; u + 3 <= uLen; u++)
    {
        if (pu8Data[u] == 0 && pu8Data[u + 1] == 0 && pu8Data[u + 2] == 1)
        {
            return u;
        }
    }
    return uLen;
}

void TOOL_ANNEXB_Append(const uint8_t *pu8Data, size_t uLen, std::vector<uint8_t> &vecOut)
{
    static const uint8_t au8StartCode[] = {0, 0, 0, 1};
    size_t uCode = FindStartCode(pu8Data, uLen, 0);
    while (uCode < uLen)
    {
        const size_t uBegin = uCode + 3;
        const size_t uNext = FindStartCode(pu8Data, uLen, uBegin);
        size_t uEnd = uNext;
        while (uEnd > uBegin && pu8Data[uEnd - 1] == 0)
        {
            uEnd--;
        }
        if (uEnd > uBegin)
        {
            vecOut.insert(vecOut.end(), au8StartCode, au8StartCode + sizeof(au8StartCode));
            vecOut.insert(vecOut.end(), pu8Data + uBegin, pu8Data + uEnd);
        }
        uCode = uNext;
    }
}

bool TOOL_ANNEXB_Is(const uint8_t *pu8Data, size_t uLen)
{
    const size_t uCode = FindStartCode(pu8Data, uLen < 4 ? uLen : 4, 0);
    return uLen >= 4 && (uCode == 0 || (uCode == 1 && pu8Data[0] == 0));
}

uint32_t TOOL_ADTS_Rate(uint32_t u32RateIndex)
{
    return u32RateIndex < sizeof(s_au32Rates) / sizeof(s_au32Rates[0]) ? s_au32Rates[u32RateIndex] : 0;
}

static bool IsUsable(const tagTOOL_ADTS_S &stAdts)
{
    return stAdts.u32Profile < 4 && TOOL_ADTS_Rate(stAdts.u32RateIndex) != 0 && stAdts.u32Channels >= 1 &&
           stAdts.u32Channels <= 7;
}

bool TOOL_ADTS_FromConfig(const uint8_t *pu8Data, size_t uLen, tagTOOL_ADTS_S &stAdts)
{
    if (pu8Data == nullptr || uLen < 2)
    {
        return false;
    }
    uint64_t u64Bits = 0;
    for (size_t u = 0; u < 8; u++)
    {
        u64Bits = (u64Bits << 8) | (u < uLen ? pu8Data[u] : 0u);
    }
    const uint32_t u32Type = static_cast<uint32_t>(u64Bits >> 59);
    stAdts.u32RateIndex = static_cast<uint32_t>(u64Bits >> 55) & 15u;
    stAdts.u32Channels = static_cast<uint32_t>(u64Bits >> 51) & 15u;
    // SBR and PS (5 and 29) name the core's type behind the rate of the extension; ADTS carries the core.
    const bool bExtended = u32Type == 5 || u32Type == 29;
    const uint32_t u32Core = bExtended ? static_cast<uint32_t>(u64Bits >> 42) & 31u : u32Type;
    stAdts.u32Profile = u32Core - 1;
    return u32Core >= 1 && IsUsable(stAdts);
}

bool TOOL_ADTS_FromHeader(const uint8_t *pu8Data, size_t uLen, tagTOOL_ADTS_S &stAdts)
{
    if (uLen < 7 || pu8Data[0] != 0xff || (pu8Data[1] & 0xf6) != 0xf0)
    {
        return false;
    }
    stAdts.u32Profile = pu8Data[2] >> 6;
    stAdts.u32RateIndex = (pu8Data[2] >> 2) & 15u;
    stAdts.u32Channels = ((pu8Data[2] & 1u) << 2) | (pu8Data[3] >> 6);
    return IsUsable(stAdts);
}

bool TOOL_ADTS_Append(const tagTOOL_ADTS_S &stAdts, size_t uLen, std::vector<uint8_t> &vecOut)
{
    const size_t uWhole = uLen + 7; // without a checksum
    if (uWhole > 0x1fff)
    {
        return false;
    }
    const uint8_t au8Header[7] = {
        0xff,
        0xf1, // MPEG-4, no checksum
        static_cast<uint8_t>((stAdts.u32Profile << 6) | (stAdts.u32RateIndex << 2) | (stAdts.u32Channels >> 2)),
        static_cast<uint8_t>(((stAdts.u32Channels & 3u) << 6) | (uWhole >> 11)),
        static_cast<uint8_t>(uWhole >> 3),
        static_cast<uint8_t>(((uWhole & 7u) << 5) | 0x1f), // buffer fullness: variable rate
        0xfc,
    };
    vecOut.insert(vecOut.end(), au8Header, au8Header + sizeof(au8Header));
    return true;
}
