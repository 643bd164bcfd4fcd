// From an input to the library's record parameters.
#ifndef QUARRIN_TOOLS_RECORD_PARAM_H
#define QUARRIN_TOOLS_RECORD_PARAM_H

#include <string>
#include <vector>

#include "frame_queue.h"
#include "input.h"

/// Parameters of a recording, with the bytes that they point to.
struct tagTOOL_RECORD_PARAM_S
{
    libquarrin::tagQN_RECORD_PARAM_S stParam = {};
    std::vector<uint8_t> vecSps; ///< H.264: SPS; H.265: VPS and SPS
    std::vector<uint8_t> vecPps;
};

/// Container of an option text: mkv, ts, mp4 or mov. QN_FILE_FMT_E_UNKNOWN for any other.
libquarrin::QN_FILE_FMT_E TOOL_RECORD_Format(const std::string &strFormat);

/// Fills the parameters for an input whose first key frame is at the front of the queue.
///
/// \param vecNotes  [out] warnings.
///
/// \return false with strError set when the first key frame has no parameter sets.
bool TOOL_RECORD_FillParam(tagTOOL_QUEUE_S &stQueue, libquarrin::QN_FILE_FMT_E enFormat, const tagTOOL_LOOK_S &stLook,
                           tagTOOL_RECORD_PARAM_S &stRecord, std::vector<std::string> &vecNotes, std::string &strError);

/// The library's time of a frame, above 0 from the first frame on: 0 would count as not seen.
uint64_t TOOL_RECORD_Pts(int64_t s64SinceFirst);

#endif
