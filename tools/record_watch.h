// Watches a recording: is the folder still there, is there room and is it known, does the file grow.
#ifndef QUARRIN_TOOLS_RECORD_WATCH_H
#define QUARRIN_TOOLS_RECORD_WATCH_H

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

#include "libquarrin.h"

struct tagTOOL_WATCH_S
{
    libquarrin::tagQN_HANDLER_S *pHandle = nullptr;         ///< borrowed
    libquarrin::tagQN_RECORD_HANDLER_S *pSession = nullptr; ///< borrowed
    dev_t stDevice = 0;                                     ///< of the folder, as it was at the begin
    ino_t stInode = 0;                                      ///< the same
    std::chrono::steady_clock::time_point stLastLook;       ///< the last look
    std::chrono::steady_clock::time_point stAnyFed;         ///< first look that saw a frame come since the file grew
    std::chrono::steady_clock::time_point stAllFed;         ///< the same of frames of every stream
    std::chrono::steady_clock::time_point stLastRoom;       ///< when there was room, or nobody knew
    uint64_t u64Frames = 0;                                 ///< handed in so far; the recording counts them
    uint64_t au64Fed[2] = {};          ///< the same of sound and of video; the recording counts them
    uint64_t au64FedAtGrowth[2] = {};  ///< as they were when the file was seen to grow
    int64_t s64Bytes = 0;              ///< written into the current file, for the progress line
    int64_t s64OnDisk = -1;            ///< size of the current file as the file system has it
    bool bFull = false;                ///< the library declared the storage full
    bool bSizeUnknown = false;         ///< it was said that the file system does not tell its size
    std::string strWarning;            ///< what is to be said, once; the recording goes on
    std::vector<std::string> vecPaths; ///< in-progress paths of all files, the current one last
};

/// Begins to watch a session that was just started.
void TOOL_WATCH_Begin(tagTOOL_WATCH_S &stWatch, libquarrin::tagQN_HANDLER_S *pHandle,
                      libquarrin::tagQN_RECORD_HANDLER_S *pSession);

/// Notes the file that the session writes. Called after every frame: files may follow each other fast.
void TOOL_WATCH_NoteFile(tagTOOL_WATCH_S &stWatch);

/// Looks, a few times a second at most. What is wrong in one line, or an empty text.
std::string TOOL_WATCH_Look(tagTOOL_WATCH_S &stWatch);

#endif
