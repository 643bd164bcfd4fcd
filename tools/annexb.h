// Annex B byte streams (ISO/IEC 14496-10 Annex B) and ADTS headers (ISO/IEC 14496-3, 1.A.2.2).
#ifndef QUARRIN_TOOLS_ANNEXB_H
#define QUARRIN_TOOLS_ANNEXB_H

#include <cstdint>
#include <string>
#include <vector>

/// Appends an access unit with every start code written with four bytes.
///
/// The library's split helper sees only those, and encoders write some with three. Zero bytes at the end of a unit go:
/// they belong to no unit.
void TOOL_ANNEXB_Append(const uint8_t *pu8Data, size_t uLen, std::vector<uint8_t> &vecOut);

/// True when the bytes begin with a start code of three or four bytes.
bool TOOL_ANNEXB_Is(const uint8_t *pu8Data, size_t uLen);

/// What an AAC frame needs in its header.
struct tagTOOL_ADTS_S
{
    uint32_t u32Profile = 1;   ///< object type minus 1; 1 is LC
    uint32_t u32RateIndex = 0; ///< index of the sample rate
    uint32_t u32Channels = 0;  ///< channel configuration, 1 to 7
};

/// Sample rate of an index in Hz; 0 for an index that has none.
uint32_t TOOL_ADTS_Rate(uint32_t u32RateIndex);

/// Reads an AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1). False when ADTS cannot carry such AAC.
bool TOOL_ADTS_FromConfig(const uint8_t *pu8Data, size_t uLen, tagTOOL_ADTS_S &stAdts);

/// Reads an ADTS header. False when there is none.
bool TOOL_ADTS_FromHeader(const uint8_t *pu8Data, size_t uLen, tagTOOL_ADTS_S &stAdts);

/// Appends a header for a raw frame of uLen bytes. False when the frame is too long for one.
bool TOOL_ADTS_Append(const tagTOOL_ADTS_S &stAdts, size_t uLen, std::vector<uint8_t> &vecOut);

#endif
