// A recording opened for replay: the frames come from the library, what its metadata does not carry from the headers.
#ifndef QUARRIN_TOOLS_REPLAY_FILE_H
#define QUARRIN_TOOLS_REPLAY_FILE_H

#include <string>
#include <vector>

#include "ff.h"
#include "storage_handle.h"

struct tagTOOL_REPLAY_S
{
    TOOL_STORAGE pStorage;                                 ///< closed last
    std::string strPath;                                   ///< of the file
    libquarrin::tagQN_REPLAY_HANDLER_S *pReplay = nullptr; ///< owned
    AVFormatContext *pHeaders = nullptr;                   ///< owned; only its headers are read
    int32_t s32Video = -1;                                 ///< index of the stream whose frames the library calls video
    int32_t s32Other = -1; ///< index of the one other stream; -1 when there is none, or more than one

    tagTOOL_REPLAY_S() = default;
    tagTOOL_REPLAY_S(const tagTOOL_REPLAY_S &) = delete;
    tagTOOL_REPLAY_S &operator=(const tagTOOL_REPLAY_S &) = delete;
    ~tagTOOL_REPLAY_S();
};

/// One frame on loan from the library, until it is given back.
struct tagTOOL_REPLAY_FRAME_S
{
    uint8_t *pu8Data = nullptr;
    uint32_t u32Len = 0;
    int64_t s64Pts = 0; ///< in the time base of its stream
    bool bKey = false;
    bool bVideo = false;
    int32_t s32Stream = -1; ///< stream index; -1 when it is not known
    AVRational stBase = {0, 1};
};

/// Opens a recording by its bare name or its path. False with strError set when it cannot be played.
bool TOOL_REPLAY_Open(const std::string &strFile, const std::string &strStorage, tagTOOL_REPLAY_S &stReplay,
                      std::string &strError);

/// False when the headers say that the file ends before a time. True when they do not say.
bool TOOL_REPLAY_HasTime(const tagTOOL_REPLAY_S &stReplay, double dSeconds);

/// Goes to the key frame at or before a second of the file. False when the file cannot be sought.
bool TOOL_REPLAY_Seek(tagTOOL_REPLAY_S &stReplay, uint32_t u32Seconds);

/// Borrows the next frame. 0 good, 9 end of file, anything else a failure.
uint32_t TOOL_REPLAY_Read(tagTOOL_REPLAY_S &stReplay, tagTOOL_REPLAY_FRAME_S &stFrame);

/// AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1) of a stream whose frames carry ADTS headers, made of the first one;
/// empty when there is none. Reads on in the headers' context.
std::vector<uint8_t> TOOL_REPLAY_AacConfig(tagTOOL_REPLAY_S &stReplay, int32_t s32Stream);

/// Gives the frame back.
void TOOL_REPLAY_GiveBack(tagTOOL_REPLAY_S &stReplay, tagTOOL_REPLAY_FRAME_S &stFrame);

/// True when a file that would be written lies among the recordings already: it must not be overwritten.
bool TOOL_REPLAY_WouldOverwrite(const tagTOOL_REPLAY_S &stReplay, const std::string &strOutput);

#endif
