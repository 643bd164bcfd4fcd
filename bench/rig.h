// What every question stands on: a card that is only a folder, a utility layer that harms nothing, streams of frames.
#ifndef QUARRIN_BENCH_RIG_H
#define QUARRIN_BENCH_RIG_H

#include <cstdint>
#include <functional>
#include <string>

#include "libquarrin.h"

/// Ends the program with a message, as failed.
[[noreturn]] void RIG_Fail(const std::string &strWhy);

/// Fails unless the call gave 0.
void RIG_Expect(uint32_t u32Result, const char *pszCall);

/// Prints one figure: "NAME VALUE". What the library prints meanwhile goes nowhere.
void RIG_Figure(const std::string &strName, int64_t s64Value);
void RIG_Figure(const std::string &strName, double dValue);

/// Sends standard output and standard error, but for figures and failures, nowhere.
void RIG_Silence();

/// Waits for a condition; fails after a minute.
void RIG_WaitFor(const char *pszWhat, const std::function<bool()> &fnCondition);

/// Holds up mkfs, so that a format lasts.
void RIG_HoldFormat(bool bHold);

/// A temporary folder with a device node and, once it is in, a mount folder; both are plain files and folders.
struct CARD_S
{
    explicit CARD_S(bool bIn);
    ~CARD_S();
    CARD_S(const CARD_S &) = delete;
    CARD_S &operator=(const CARD_S &) = delete;

    std::string strFolder;
    std::string strMount;
    std::string strVolume; ///< folder of volume 0
    libquarrin::tagQN_STORAGE_PARAM_S stParam;
};

/// Makes a handle and waits until it is at rest: mounted with a card that is in, unplugged otherwise.
libquarrin::tagQN_HANDLER_S *RIG_Open(CARD_S &stCard);

/// Unmounts the card and starts a format.
void RIG_BeginFormat(libquarrin::tagQN_HANDLER_S *pHandle);

/// Waits until every event that was posted before has been handled.
void RIG_Rest(libquarrin::tagQN_HANDLER_S *pHandle);

/// Puts a socket in place of the monitor's own, so that no uevent of the machine reaches it; what is sent into the
/// result does.
int RIG_TakeSocket(libquarrin::tagQN_HANDLER_S *pHandle);

/// Parameters: 320 x 240 H.264 at 25 frames a second, AAC of 48 kHz in stereo.
libquarrin::tagQN_RECORD_PARAM_S RIG_RecordParam(libquarrin::QN_FILE_FMT_E enFormat, bool bVideo, bool bAudio);

/// A session that feeds itself.
struct FEED_S
{
    libquarrin::tagQN_RECORD_HANDLER_S *pSession = nullptr;
    bool bVideo = true;
    bool bAudio = false;
    uint32_t u32FrameBytes = 0; ///< video frames are filled up to this size
    uint64_t u64Video = 0;      ///< frames so far
    uint64_t u64Audio = 0;
};

/// Makes a session and starts it.
FEED_S RIG_Record(libquarrin::tagQN_HANDLER_S *pHandle, libquarrin::QN_FILE_FMT_E enFormat, bool bVideo, bool bAudio);

/// Hands in the next frames: s32Frames of video with the audio that goes with them, or s32Frames of audio alone. Every
/// 25th of video is a key frame.
void RIG_Feed(FEED_S &stFeed, int32_t s32Frames);

/// Stops and frees the session.
void RIG_Finish(FEED_S &stFeed);

/// Records a file of so many seconds as the card would have it; its path.
std::string RIG_MakeFile(const CARD_S &stCard, libquarrin::QN_FILE_FMT_E enFormat, int32_t s32Seconds);

#endif
