// H.265 sequence parameter sets made bit by bit, whole and cut, and key frames that carry them.
#ifndef QUARRIN_TESTS_H265_SETS_H
#define QUARRIN_TESTS_H265_SETS_H

#include <cstdint>
#include <vector>

#include "support/streams.h"

/// A short-term reference picture set: so many pictures before and behind; or told by the difference to the set before
/// it, which keeps bKept of the pictures.
struct H265_SET_S
{
    uint32_t u32Negative = 0;
    uint32_t u32Positive = 0;
    bool bByDifference = false;
    uint32_t u32Pictures = 0; ///< by difference: of the set before it
};

/// What an SPS says; the usual values are those of a plain camera.
struct H265_SPS_S
{
    uint32_t u32SubLayers = 0;     ///< one less than their number
    uint32_t u32SubLayerFlags = 0; ///< what each of them has: 2 a profile, 1 a level
    bool bOrderOfEach = false;     ///< of every sub-layer, and not of the last alone
    uint32_t u32Chroma = 1;        ///< 3: with the flag of separate planes
    uint32_t u32Size = 64;
    bool bWindow = false;
    uint32_t u32ScalingLists = 0; ///< 1 the usual ones; 2 each like another; 3 coefficient by coefficient
    bool bPcm = false;
    std::vector<H265_SET_S> vecSets;
    int64_t s64Sets = -1;     ///< the number of sets that it tells; -1: the true one
    uint32_t u32Distance = 0; ///< of every picture of a set to the next, less one
};

/// The NAL unit without a start code, emulation bytes in place.
///
/// \param s32Less  bits left out before the end of the short-term sets; what stands behind the sets is left out too. A
///                 cut unit is filled up with ones to a whole byte, as far as those are not more bits than were cut.
std::vector<uint8_t> H265_MakeSps(const H265_SPS_S &stSps, int32_t s32Less = -1);

/// An SPS that speaks of 64 sets and ends there. FFmpeg (5.1) takes their numbers from behind the end.
std::vector<uint8_t> H265_CutSps();

/// The frame with another NAL unit in place of its SPS.
TEST_FRAME_S H265_WithSps(const TEST_FRAME_S &stFrame, const std::vector<uint8_t> &vecSps);

/// Where the SPS of a frame stands, without its start code: offset and length.
std::pair<size_t, size_t> H265_PlaceOfSps(const TEST_FRAME_S &stFrame);

#endif
