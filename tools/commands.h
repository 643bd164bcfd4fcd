// The tool's commands. Each returns the exit status.
#ifndef QUARRIN_TOOLS_COMMANDS_H
#define QUARRIN_TOOLS_COMMANDS_H

#include <cstdint>
#include <string>

#include "input.h"
#include "storage_handle.h"

/// Least --split in seconds: the library throws shorter files away.
constexpr uint32_t TOOL_SPLIT_LEAST = 5;

struct tagTOOL_RECORD_OPTIONS_S
{
    tagTOOL_INPUT_OPTIONS_S stInput;
    std::string strStorage;
    std::string strFormat = "mkv";
    std::string strCodec = "h264"; ///< of the generated clip
    std::string strName;
    std::string strQuota;
    bool bNoAutoDelete = false;
    uint32_t u32SplitSeconds = 0;    ///< 0: no split
    uint32_t u32DurationSeconds = 0; ///< 0: until the input ends
    uint32_t u32DurableSeconds = 0;  ///< 0: the kernel decides when data reaches the card
};

struct tagTOOL_LIST_OPTIONS_S
{
    std::string strStorage;
    bool bJson = false;
};

struct tagTOOL_PLAY_OPTIONS_S
{
    std::string strFile;
    std::string strStorage;
    std::string strOutput; ///< empty: none; "-": standard output
    uint32_t u32SeekSeconds = 0;
    bool bFrames = false;
};

struct tagTOOL_SNAPSHOT_OPTIONS_S
{
    std::string strFile;
    std::string strStorage;
    std::string strOutput;
    double dAtSeconds = 0.0;
};

/// Records an input into the storage folder until it ends, the duration is over, a stop is asked for or the storage
/// fails.
int32_t TOOL_RecordCommand(const tagTOOL_RECORD_OPTIONS_S &stOptions);

/// Lists the recordings.
int32_t TOOL_ListCommand(const tagTOOL_LIST_OPTIONS_S &stOptions);

/// Plays a recording back: into a file, to standard output, or as a line per frame.
int32_t TOOL_PlayCommand(const tagTOOL_PLAY_OPTIONS_S &stOptions);

/// Saves one picture of a recording as JPEG.
int32_t TOOL_SnapshotCommand(const tagTOOL_SNAPSHOT_OPTIONS_S &stOptions);

#endif
