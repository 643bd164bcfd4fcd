// Elementary-stream helpers for the host: NAL units, parameter sets, AAC configuration. Any thread may call them.
#ifndef LIBQUARRIN_STREAM_H
#define LIBQUARRIN_STREAM_H

#include <utility>
#include <vector>

#include "libquarrin/types.h"

/// Splits an Annex B access unit (ISO/IEC 14496-10 Annex B, ISO/IEC 23008-2 Annex B) at its four-byte start codes.
///
/// Three-byte start codes do not split. Each unit begins with its start code.
///
/// \param pu8Data   the bytes; borrowed, the units point into them.
/// \param u32Len    their number; fewer than 6 give no unit.
/// \param vecNalus  [out] pointer and length of each unit.
///
/// \return the number of units; 0, with none, when there is no memory.
QN_API int32_t SPLIT_H26X_NALUS(unsigned char *pu8Data, uint32_t u32Len,
                                std::vector<std::pair<unsigned char *, int>> &vecNalus);

/// NAL unit type of an H.264 unit (ISO/IEC 14496-10, table 7-1) that begins with a start code of three or four bytes.
///
/// \return the type; -1 no start code; -2 shorter than 5 bytes.
QN_API int32_t GET_H264_NAL_TYPE(unsigned char *pu8Data, uint32_t u32Len);

/// The same of an H.265 unit (ISO/IEC 23008-2, table 7-1).
QN_API int32_t GET_H265_NAL_TYPE(unsigned char *pu8Data, uint32_t u32Len);

/// AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1) of an ADTS header; prints what it read.
///
/// \param pu8Adts  seven bytes; borrowed.
///
/// \return its two bytes, the first in the low half.
QN_API uint16_t AAC_GET_AUDIO_SPECIFIC_CONFIG(unsigned char *pu8Adts);

namespace libquarrin
{

/// Finds the parameter sets of a key frame.
///
/// H.264: the SPS (type 7) and the PPS (type 8). H.265: the VPS (type 32) goes to pstSps and the PPS (type 34) to
/// pstPps; the H.265 SPS is not collected. The last of each type counts; a type that does not occur leaves its output
/// untouched.
///
/// \param pu8Data  the access unit; borrowed, the outputs point into it (copy them with QN_BYTES_dup).
/// \param u32Len   its length.
/// \param bH265    H.265 instead of H.264.
/// \param pstPps   [out] the picture parameter set, start code included.
/// \param pstSps   [out] the sequence (H.265: video) parameter set, start code included.
///
/// \return 0; -1 there is no unit.
QN_API int32_t QN_GetH26xInfo(unsigned char *pu8Data, uint32_t u32Len, bool bH265, tagQN_BYTES *pstPps,
                              tagQN_BYTES *pstSps);

} // namespace libquarrin

#endif
