// A playable file made of replayed frames.
#ifndef QUARRIN_TOOLS_PLAY_OUTPUT_H
#define QUARRIN_TOOLS_PLAY_OUTPUT_H

#include <string>
#include <vector>

#include "replay_file.h"

struct tagTOOL_PLAY_OUTPUT_S
{
    AVFormatContext *pContext = nullptr; ///< owned
    std::vector<int32_t> vecStreams;     ///< output stream of each stream of the recording; -1: left out
    bool bHeader = false;                ///< the header is written, so a trailer is due
    TOOL_PACKET pPacket{av_packet_alloc()};

    tagTOOL_PLAY_OUTPUT_S() = default;
    tagTOOL_PLAY_OUTPUT_S(const tagTOOL_PLAY_OUTPUT_S &) = delete;
    tagTOOL_PLAY_OUTPUT_S &operator=(const tagTOOL_PLAY_OUTPUT_S &) = delete;
    ~tagTOOL_PLAY_OUTPUT_S();
};

/// Opens the output: a file whose extension chooses the container, or "-", Matroska to standard output.
///
/// \param bBadInput  [out] the failure is the user's to mend, and nothing was written.
///
/// \return false with strError set.
bool TOOL_PLAY_OUTPUT_Open(tagTOOL_REPLAY_S &stReplay, const std::string &strOutput, tagTOOL_PLAY_OUTPUT_S &stOutput,
                           bool &bBadInput, std::string &strError);

/// Writes one frame; its bytes are copied. False with strError set when it was not taken.
bool TOOL_PLAY_OUTPUT_Write(tagTOOL_PLAY_OUTPUT_S &stOutput, const tagTOOL_REPLAY_S &stReplay,
                            const tagTOOL_REPLAY_FRAME_S &stFrame, std::string &strError);

/// Finishes the file. False with strError set when it is not whole.
bool TOOL_PLAY_OUTPUT_Finish(tagTOOL_PLAY_OUTPUT_S &stOutput, std::string &strError);

#endif
