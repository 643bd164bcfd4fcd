// The play command.

#include "commands.h"

#include <cinttypes>
#include <cstdio>

#include <unistd.h>

#include "output.h"
#include "play_output.h"

static constexpr uint32_t PLAY_END_OF_FILE = 9; // of QN_ReplayReadFrame

struct tagTOOL_PLAY_S
{
    const tagTOOL_PLAY_OPTIONS_S *pOptions = nullptr; ///< borrowed
    tagTOOL_REPLAY_S stReplay;
    tagTOOL_PLAY_OUTPUT_S stOutput;
    uint64_t u64Frames = 0;
    bool bBegun = false; ///< the first frame that a file may begin with was seen
    std::string strError;
};

static bool PrintFrame(tagTOOL_PLAY_S &stPlay, const tagTOOL_REPLAY_FRAME_S &stFrame)
{
    char acTime[64] = "unknown";
    if (stFrame.s32Stream >= 0 && stFrame.s64Pts != AV_NOPTS_VALUE)
    {
        snprintf(acTime, sizeof(acTime), "%.6f", static_cast<double>(stFrame.s64Pts) * av_q2d(stFrame.stBase));
    }
    char acLine[192];
    snprintf(acLine, sizeof(acLine), "frame=%" PRIu64 " type=%s key=%d pts=%" PRId64 " time=%s size=%" PRIu32 "\n",
             stPlay.u64Frames, stFrame.bVideo ? "video" : "audio", stFrame.bKey ? 1 : 0, stFrame.s64Pts, acTime,
             stFrame.u32Len);
    if (!TOOL_OUTPUT_Write(acLine))
    {
        stPlay.strError = "nobody takes the output any more";
        return false;
    }
    return true;
}

/// Behind a seek the streams do not begin together; a file begins with a picture that can be decoded.
static bool MayBegin(tagTOOL_PLAY_S &stPlay, const tagTOOL_REPLAY_FRAME_S &stFrame)
{
    const bool bAnyFrame = stPlay.pOptions->u32SeekSeconds == 0 || stPlay.stReplay.s32Video < 0;
    stPlay.bBegun = stPlay.bBegun || bAnyFrame || (stFrame.bVideo && stFrame.bKey);
    return stPlay.bBegun;
}

static bool TakeFrame(tagTOOL_PLAY_S &stPlay, const tagTOOL_REPLAY_FRAME_S &stFrame)
{
    if (!MayBegin(stPlay, stFrame))
    {
        return true;
    }
    if (stPlay.pOptions->bFrames && !PrintFrame(stPlay, stFrame))
    {
        return false;
    }
    stPlay.u64Frames++;
    return stPlay.pOptions->strOutput.empty() ||
           TOOL_PLAY_OUTPUT_Write(stPlay.stOutput, stPlay.stReplay, stFrame, stPlay.strError);
}

static bool Play(tagTOOL_PLAY_S &stPlay)
{
    tagTOOL_REPLAY_FRAME_S stFrame;
    uint32_t u32Result = TOOL_REPLAY_Read(stPlay.stReplay, stFrame);
    while (u32Result == 0)
    {
        const bool bTaken = TakeFrame(stPlay, stFrame);
        TOOL_REPLAY_GiveBack(stPlay.stReplay, stFrame);
        if (!bTaken)
        {
            return false;
        }
        u32Result = TOOL_REPLAY_Read(stPlay.stReplay, stFrame);
    }
    if (u32Result != PLAY_END_OF_FILE)
    {
        stPlay.strError = "reading " + stPlay.stReplay.strPath + " broke off";
        return false;
    }
    return stPlay.pOptions->strOutput.empty() || TOOL_PLAY_OUTPUT_Finish(stPlay.stOutput, stPlay.strError);
}

static bool CheckOptions(const tagTOOL_PLAY_OPTIONS_S &stOptions)
{
    if (stOptions.strOutput.empty() && !stOptions.bFrames)
    {
        TOOL_OUTPUT_Say("say what play is to give: --output OUT or --frames");
        return false;
    }
    if (stOptions.strOutput == "-" && (stOptions.bFrames || isatty(TOOL_OUTPUT_Fd()) != 0))
    {
        TOOL_OUTPUT_Say(stOptions.bFrames ? "--output - and --frames both want standard output"
                                          : "--output - writes a media file: send standard output somewhere");
        return false;
    }
    return true;
}

static bool OpenAll(tagTOOL_PLAY_S &stPlay, bool &bBadInput)
{
    const tagTOOL_PLAY_OPTIONS_S &stOptions = *stPlay.pOptions;
    bBadInput = true;
    if (!TOOL_REPLAY_Open(stOptions.strFile, stOptions.strStorage, stPlay.stReplay, stPlay.strError))
    {
        return false;
    }
    if (!TOOL_REPLAY_HasTime(stPlay.stReplay, stOptions.u32SeekSeconds))
    {
        stPlay.strError = stPlay.stReplay.strPath + " ends before that time";
        return false;
    }
    if (stOptions.u32SeekSeconds != 0 && !TOOL_REPLAY_Seek(stPlay.stReplay, stOptions.u32SeekSeconds))
    {
        stPlay.strError = stPlay.stReplay.strPath + " cannot be sought to that time";
        return false;
    }
    if (stOptions.strOutput.empty())
    {
        return true;
    }
    if (stOptions.strOutput != "-" && TOOL_REPLAY_WouldOverwrite(stPlay.stReplay, stOptions.strOutput))
    {
        stPlay.strError = stOptions.strOutput + " is a recording and is not overwritten";
        return false;
    }
    return TOOL_PLAY_OUTPUT_Open(stPlay.stReplay, stOptions.strOutput, stPlay.stOutput, bBadInput, stPlay.strError);
}

int32_t TOOL_PlayCommand(const tagTOOL_PLAY_OPTIONS_S &stOptions)
{
    if (!CheckOptions(stOptions))
    {
        return TOOL_EXIT_BAD_INPUT;
    }
    tagTOOL_PLAY_S stPlay;
    stPlay.pOptions = &stOptions;
    bool bBadInput = false;
    if (!OpenAll(stPlay, bBadInput) || !Play(stPlay))
    {
        TOOL_OUTPUT_Say("%s", stPlay.strError.c_str());
        return bBadInput ? TOOL_EXIT_BAD_INPUT : TOOL_EXIT_FAILED;
    }
    return TOOL_EXIT_GOOD;
}
