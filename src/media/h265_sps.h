// A look at the H.265 parameter sets that a file begins with.
// Threads: any. Locks: none; pure functions of their arguments.
#ifndef QUARRIN_MEDIA_H265_SPS_H
#define QUARRIN_MEDIA_H265_SPS_H

#include <cstdint>

#include "libquarrin/media.h"

namespace libquarrin
{

/// Every sequence parameter set of an Annex B byte stream has the bits that it speaks of, as far as the end of its
/// short-term reference picture sets. Values are not judged; a stream without one passes.
///
/// FFmpeg (5.1) reads the sets when it writes the header of Matroska and the index of MP4 and MOV. Where the bits run
/// out it goes on behind their end and counts to numbers that it takes from there: for minutes.
bool H265_SpsAreWhole(const uint8_t *pu8Data, uint32_t u32Len);

/// FFmpeg takes the parameter sets of a file with these parameters from its first video packet: H.265 in MP4 and MOV.
bool FFWRITE_TakesSetsFromVideo(const tagQN_RECORD_PARAM_S *pstParam);

/// A file with these parameters may have this frame as its first one of video. False: the sets would come from it, and
/// one of them is not whole. The writer leaves such a frame out; a session asks beforehand.
bool FFWRITE_MayBeginVideo(const tagQN_RECORD_PARAM_S *pstParam, const uint8_t *pu8Data, uint32_t u32Len);

} // namespace libquarrin

#endif
