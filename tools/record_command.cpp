// The record command: input, queue, pacing, library, watch.
// Threads: the main thread; the library's own beside it.

#include "commands.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <unistd.h>

#include "durable.h"
#include "output.h"
#include "pacing.h"
#include "record_param.h"
#include "record_result.h"
#include "record_watch.h"
#include "stop_signal.h"

static constexpr size_t RECORD_NAME_MOST = 120; // bytes; two times and an extension fit beside it
static constexpr int64_t RECORD_SECOND = 1000000;

struct tagTOOL_RECORDING_S
{
    const tagTOOL_RECORD_OPTIONS_S *pOptions = nullptr; ///< borrowed
    tagTOOL_INPUT_S stInput;
    tagTOOL_QUEUE_S stQueue;
    tagTOOL_RECORD_PARAM_S stParam;
    libquarrin::tagQN_RECORD_HANDLER_S *pSession = nullptr; ///< owned
    tagTOOL_PACING_S stPacing;
    tagTOOL_WATCH_S stWatch;
    tagTOOL_DURABLE_S stDurable;
    bool bRunning = false;       ///< the session is started
    bool bUnsynced = false;      ///< it was said that data could not be written through
    int64_t s64First = 0;        ///< time of the first frame
    int64_t s64FileFirst = 0;    ///< time of the current file's first frame
    int64_t s64LastVideo = 0;    ///< time of the last picture
    int64_t s64End = 0;          ///< end of the longest frame so far, from the first frame on
    int64_t s64LastProgress = 0; ///< when the progress was last shown
    std::string strFailure;      ///< why the recording broke off; empty: it did not
};

static void ShowProgress(tagTOOL_RECORDING_S &stRecording)
{
    const int64_t s64Elapsed = TOOL_PACING_Elapsed(stRecording.stPacing);
    const int64_t s64Interval = isatty(STDERR_FILENO) != 0 ? RECORD_SECOND / 4 : RECORD_SECOND;
    if (s64Elapsed - stRecording.s64LastProgress < s64Interval)
    {
        return;
    }
    stRecording.s64LastProgress = s64Elapsed;
    const tagTOOL_WATCH_S &stWatch = stRecording.stWatch;
    const std::string &strPath = stWatch.vecPaths.back();
    const int64_t s64Seconds = s64Elapsed / RECORD_SECOND;
    char acText[128];
    snprintf(
        acText, sizeof(acText), "%02" PRId64 ":%02" PRId64 ":%02" PRId64 "  %" PRIu64 " frames  %s  ",
        s64Seconds / 3600, s64Seconds / 60 % 60, s64Seconds % 60, stWatch.u64Frames,
        libquarrin::QN_STORAGE_PrettierSize(static_cast<uint64_t>(std::max<int64_t>(stWatch.s64Bytes, 0))).c_str());
    TOOL_OUTPUT_Progress(acText + strPath.substr(strPath.rfind('/') + 1) +
                         (stWatch.bFull ? "  storage full" : "  storage normal"));
}

static bool IsDurationOver(const tagTOOL_RECORDING_S &stRecording)
{
    const int64_t s64Limit = stRecording.pOptions->u32DurationSeconds * RECORD_SECOND;
    return s64Limit != 0 && TOOL_PACING_Elapsed(stRecording.stPacing) >= s64Limit;
}

/// The recording goes on: what the card does not take shows in the watch as well.
static void SayUnsynced(tagTOOL_RECORDING_S &stRecording)
{
    const int32_t s32Error = TOOL_DURABLE_TakeError(stRecording.stDurable);
    if (s32Error != 0 && !stRecording.bUnsynced)
    {
        stRecording.bUnsynced = true;
        TOOL_OUTPUT_Say("warning: the recording is not durable: %s", strerror(s32Error));
    }
}

static void SayWarning(tagTOOL_WATCH_S &stWatch)
{
    if (!stWatch.strWarning.empty())
    {
        TOOL_OUTPUT_Say("%s", stWatch.strWarning.c_str());
        stWatch.strWarning.clear();
    }
}

/// Asked all the time, also while the input is waited for: watches, shows how it goes, and says whether to end.
static bool IsOver(tagTOOL_RECORDING_S &stRecording)
{
    if (!stRecording.bRunning)
    {
        return TOOL_STOP_Asked();
    }
    if (stRecording.strFailure.empty())
    {
        stRecording.strFailure = TOOL_WATCH_Look(stRecording.stWatch);
    }
    SayWarning(stRecording.stWatch);
    SayUnsynced(stRecording);
    ShowProgress(stRecording);
    return TOOL_STOP_Asked() || !stRecording.strFailure.empty() || IsDurationOver(stRecording);
}

static bool CheckOptions(const tagTOOL_RECORD_OPTIONS_S &stOptions, tagTOOL_QUOTA_S &stQuota)
{
    const bool bBadName =
        std::any_of(stOptions.strName.begin(), stOptions.strName.end(),
                    [](char c) { return c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
    if (bBadName || stOptions.strName.size() > RECORD_NAME_MOST)
    {
        TOOL_OUTPUT_Say("--name is at most %zu bytes without a slash or control characters", RECORD_NAME_MOST);
        return false;
    }
    std::string strError;
    if (!stOptions.strQuota.empty() && !TOOL_STORAGE_ParseQuota(stOptions.strQuota, stQuota, strError))
    {
        TOOL_OUTPUT_Say("%s", strError.c_str());
        return false;
    }
    stQuota.bNoAutoDelete = stOptions.bNoAutoDelete;
    return true;
}

static bool OpenInput(tagTOOL_RECORDING_S &stRecording)
{
    tagTOOL_INPUT_S &stInput = stRecording.stInput;
    const tagTOOL_INPUT_OPTIONS_S &stOptions = stRecording.pOptions->stInput;
    stInput.fnInterrupted = [&stRecording]
    {
        return IsOver(stRecording);
    };
    const bool bOpen = stOptions.strInput == "test" ? TOOL_INPUT_OpenTest(stOptions, stInput)
                                                    : TOOL_INPUT_OpenFile(stOptions, stInput);
    tagTOOL_LOOK_S stLook;
    stRecording.stQueue.pInput = &stInput;
    if (!bOpen || !TOOL_QUEUE_Begin(stRecording.stQueue, stLook))
    {
        return false;
    }
    if (stLook.bReordered)
    {
        stInput.strError = "the video has B-frames, which cannot be recorded; --transcode encodes it again without";
        return false;
    }
    return TOOL_RECORD_FillParam(stRecording.stQueue, TOOL_RECORD_Format(stRecording.pOptions->strFormat), stLook,
                                 stRecording.stParam, stInput.vecNotes, stInput.strError);
}

static bool Start(tagTOOL_RECORDING_S &stRecording, libquarrin::tagQN_HANDLER_S *pHandle)
{
    libquarrin::tagQN_RECORD_PARAM_S &stParam = stRecording.stParam.stParam;
    stParam.bAutoSplit = stRecording.pOptions->u32SplitSeconds != 0 ? 1 : 0;
    stParam.u32SplitSeconds = stRecording.pOptions->u32SplitSeconds;
    if (libquarrin::QN_RecordInit(pHandle, &stParam, stRecording.pSession) != 0 || stRecording.pSession == nullptr)
    {
        stRecording.strFailure = "the recording could not be set up";
        return false;
    }
    TOOL_PACING_Begin(stRecording.stPacing, !stRecording.stInput.bLive && stParam.bAutoSplit != 0);
    if (!TOOL_DURABLE_Begin(stRecording.stDurable, TOOL_STORAGE_Folder(pHandle),
                            stRecording.pOptions->u32DurableSeconds))
    {
        stRecording.strFailure = "no thread for --durable";
        return false;
    }
    const std::string &strName = stRecording.pOptions->strName;
    if (libquarrin::QN_RecordStart(stRecording.pSession, strName.empty() ? nullptr : strName.c_str()) != 0)
    {
        stRecording.strFailure = "the first file could not be opened";
        return false;
    }
    TOOL_PACING_Begin(stRecording.stPacing, false); // the library may have waited for the next second
    TOOL_WATCH_Begin(stRecording.stWatch, pHandle, stRecording.pSession);
    stRecording.bRunning = true;
    return true;
}

static int64_t LengthOf(const tagTOOL_RECORDING_S &stRecording, const tagTOOL_FRAME_S &stFrame)
{
    const libquarrin::tagQN_RECORD_PARAM_S &stParam = stRecording.stParam.stParam;
    return stFrame.bVideo ? RECORD_SECOND / stParam.stVideo.u32Fps : 1024 * RECORD_SECOND / stParam.stAudio.u32Width;
}

static void Write(tagTOOL_RECORDING_S &stRecording, tagTOOL_FRAME_S &stFrame)
{
    const size_t uFiles = stRecording.stWatch.vecPaths.size();
    const uint64_t u64Pts = TOOL_RECORD_Pts(stFrame.s64Time - stRecording.s64First);
    (void)libquarrin::QN_RecordWriteFrame(stRecording.pSession, stFrame.vecData.data(),
                                          static_cast<uint32_t>(stFrame.vecData.size()), u64Pts, stFrame.bKey ? 1 : 0,
                                          stFrame.bVideo ? 1 : 0); // what went wrong shows in bytes and state
    stRecording.stWatch.u64Frames++;
    stRecording.stWatch.au64Fed[stFrame.bVideo ? 1 : 0]++;
    TOOL_WATCH_NoteFile(stRecording.stWatch);
    if (stRecording.stWatch.vecPaths.size() != uFiles)
    {
        stRecording.s64FileFirst = stFrame.s64Time;
    }
}

/// Hands one frame in, at its time. False when the recording is to end.
static bool HandIn(tagTOOL_RECORDING_S &stRecording, tagTOOL_FRAME_S &stFrame)
{
    const int64_t s64Time = stFrame.s64Time - stRecording.s64First;
    const auto fnOver = [&stRecording]
    {
        return IsOver(stRecording);
    };
    if (stFrame.bVideo && stFrame.s64Time < stRecording.s64LastVideo)
    {
        stRecording.strFailure = "the video has B-frames from here on, which cannot be recorded";
        return false;
    }
    if (!stRecording.stInput.bLive && !TOOL_PACING_Wait(stRecording.stPacing, s64Time, fnOver))
    {
        return false;
    }
    if (IsOver(stRecording))
    {
        return false;
    }
    if (stFrame.s64Time < stRecording.s64FileFirst)
    {
        return true; // late audio: a file's time begins with its first picture
    }
    stRecording.s64LastVideo = stFrame.bVideo ? stFrame.s64Time : stRecording.s64LastVideo;
    stRecording.s64End = std::max(stRecording.s64End, s64Time + LengthOf(stRecording, stFrame));
    Write(stRecording, stFrame);
    return true;
}

static void Run(tagTOOL_RECORDING_S &stRecording)
{
    tagTOOL_FRAME_S stFrame;
    TOOL_READ_E enRead = TOOL_QUEUE_Next(stRecording.stQueue, stFrame);
    stRecording.s64First = stFrame.s64Time;
    stRecording.s64FileFirst = stFrame.s64Time;
    stRecording.s64LastVideo = stFrame.s64Time;
    while (enRead == TOOL_READ_E_GOOD && HandIn(stRecording, stFrame))
    {
        enRead = TOOL_QUEUE_Next(stRecording.stQueue, stFrame);
    }
    if (enRead == TOOL_READ_E_END && !stRecording.stInput.bLive)
    {
        // The last frame lasts as well: the file's end in its name is the time of the stop.
        (void)TOOL_PACING_Wait(stRecording.stPacing, stRecording.s64End,
                               [&stRecording] { return IsOver(stRecording); });
    }
    const bool bWanted = TOOL_STOP_Asked() || IsDurationOver(stRecording);
    if (enRead == TOOL_READ_E_FAILED && !bWanted && stRecording.strFailure.empty())
    {
        stRecording.strFailure = stRecording.stInput.strError;
    }
}

/// Ends the session and says what became of its files. False when one of them is no whole recording.
static bool Finish(tagTOOL_RECORDING_S &stRecording)
{
    if (stRecording.pSession == nullptr)
    {
        return true;
    }
    stRecording.bRunning = false;
    const time_t tEnd = time(nullptr);
    (void)libquarrin::QN_RecordStop(stRecording.pSession);    // refuses a null session only
    (void)libquarrin::QN_RecordDestroy(stRecording.pSession); // the files' names are final behind this
    TOOL_DURABLE_End(stRecording.stDurable);                  // what is reported is on the card
    SayUnsynced(stRecording);
    return TOOL_RECORD_Report(stRecording.stWatch.vecPaths, tEnd);
}

static int32_t Record(tagTOOL_RECORDING_S &stRecording, const tagTOOL_QUOTA_S &stQuota)
{
    std::string strError;
    const tagTOOL_RECORD_OPTIONS_S &stOptions = *stRecording.pOptions;
    if (!TOOL_STORAGE_Prepare(stOptions.strStorage, strError))
    {
        TOOL_OUTPUT_Say("%s", strError.c_str());
        return TOOL_EXIT_BAD_INPUT;
    }
    TOOL_STORAGE pStorage = TOOL_STORAGE_Open(stOptions.strStorage, stQuota, strError);
    if (!pStorage)
    {
        TOOL_OUTPUT_Say("%s", strError.c_str());
        return TOOL_EXIT_BAD_INPUT;
    }
    for (const std::string &strNote : stRecording.stInput.vecNotes)
    {
        TOOL_OUTPUT_Say("%s", strNote.c_str());
    }
    if (Start(stRecording, pStorage.get()))
    {
        Run(stRecording);
    }
    if (!stRecording.strFailure.empty())
    {
        TOOL_OUTPUT_Say("%s", stRecording.strFailure.c_str());
    }
    const bool bWhole = Finish(stRecording);
    return stRecording.strFailure.empty() && bWhole ? TOOL_EXIT_GOOD : TOOL_EXIT_FAILED;
}

int32_t TOOL_RecordCommand(const tagTOOL_RECORD_OPTIONS_S &stOptions)
{
    tagTOOL_QUOTA_S stQuota;
    if (!CheckOptions(stOptions, stQuota))
    {
        return TOOL_EXIT_BAD_INPUT;
    }
    TOOL_STOP_Catch();
    tagTOOL_RECORDING_S stRecording;
    stRecording.pOptions = &stOptions;
    if (OpenInput(stRecording))
    {
        return Record(stRecording, stQuota);
    }
    if (TOOL_STOP_Asked())
    {
        TOOL_OUTPUT_Say("stopped before anything was recorded");
        return TOOL_EXIT_GOOD;
    }
    TOOL_OUTPUT_Say("%s: %s", stOptions.stInput.strInput.c_str(), stRecording.stInput.strError.c_str());
    return TOOL_EXIT_BAD_INPUT;
}
