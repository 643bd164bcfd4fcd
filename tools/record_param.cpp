// Record parameters: streams, parameter sets, time base.

#include "record_param.h"

#include <cstdio>

#include "annexb.h"
#include "ff.h"

static constexpr uint32_t RECORD_FPS_UNKNOWN = 25;

libquarrin::QN_FILE_FMT_E TOOL_RECORD_Format(const std::string &strFormat)
{
    const libquarrin::QN_FILE_FMT_E enFormat = libquarrin::QN_STORAGE_FileExt2FmtType(strFormat.c_str());
    return enFormat <= libquarrin::QN_FILE_FMT_E_MOV ? enFormat : libquarrin::QN_FILE_FMT_E_UNKNOWN;
}

uint64_t TOOL_RECORD_Pts(int64_t s64SinceFirst)
{
    return static_cast<uint64_t>(s64SinceFirst) + static_cast<uint64_t>(TOOL_TIME_BASE.den);
}

static std::string RateText(const tagTOOL_VIDEO_S &stVideo)
{
    char acText[32];
    snprintf(acText, sizeof(acText), "%.3f", static_cast<double>(stVideo.s32RateNum) / stVideo.s32RateDen);
    return acText;
}

/// Whole frames per second, as the library wants them.
static uint32_t WholeRate(const tagTOOL_VIDEO_S &stVideo)
{
    if (stVideo.s32RateNum <= 0 || stVideo.s32RateDen <= 0)
    {
        return RECORD_FPS_UNKNOWN;
    }
    const int64_t s64Rounded = (stVideo.s32RateNum * 2LL + stVideo.s32RateDen) / (stVideo.s32RateDen * 2LL);
    return s64Rounded < 1 ? 1 : static_cast<uint32_t>(s64Rounded);
}

/// MP4 and MOV count frames and take no time stamps, so only a whole and even rate keeps time.
static void NoteRate(const tagTOOL_VIDEO_S &stVideo, libquarrin::QN_FILE_FMT_E enFormat, bool bUneven,
                     std::vector<std::string> &vecNotes)
{
    if (enFormat != libquarrin::QN_FILE_FMT_E_MP4 && enFormat != libquarrin::QN_FILE_FMT_E_MOV)
    {
        return;
    }
    const std::string strCounts = std::string(libquarrin::QN_STORAGE_FmtType2FileExt(enFormat)) + " counts frames, " +
                                  std::to_string(WholeRate(stVideo)) + " to the second, ";
    if (stVideo.s32RateNum <= 0 || stVideo.s32RateDen <= 0)
    {
        vecNotes.push_back("warning: " + strCounts + "and the frame rate is unknown; use mkv or ts to keep its time");
    }
    else if (stVideo.s32RateNum % stVideo.s32RateDen != 0)
    {
        vecNotes.push_back("warning: " + strCounts + "and " + RateText(stVideo) +
                           " is not whole; use mkv or ts to keep its time");
    }
    else if (bUneven)
    {
        vecNotes.push_back("warning: " + strCounts + "and the frame rate varies; use mkv or ts to keep its time");
    }
}

static bool FindH264(tagTOOL_FRAME_S &stKey, tagTOOL_RECORD_PARAM_S &stRecord)
{
    libquarrin::tagQN_BYTES stSps = {nullptr, 0};
    libquarrin::tagQN_BYTES stPps = {nullptr, 0};
    const uint32_t u32Len = static_cast<uint32_t>(stKey.vecData.size());
    if (libquarrin::QN_GetH26xInfo(stKey.vecData.data(), u32Len, false, &stPps, &stSps) != 0 || stSps.u32Len == 0 ||
        stPps.u32Len == 0)
    {
        return false;
    }
    stRecord.vecSps.assign(stSps.pu8Data, stSps.pu8Data + stSps.u32Len);
    stRecord.vecPps.assign(stPps.pu8Data, stPps.pu8Data + stPps.u32Len);
    return true;
}

static void AppendUnit(const std::pair<unsigned char *, int> &stNalu, std::vector<uint8_t> &vecOut)
{
    vecOut.insert(vecOut.end(), stNalu.first, stNalu.first + stNalu.second);
}

/// The library collects no H.265 SPS, so the units are picked out here: Matroska's header needs all three.
static bool FindH265(tagTOOL_FRAME_S &stKey, tagTOOL_RECORD_PARAM_S &stRecord)
{
    std::vector<std::pair<unsigned char *, int>> vecNalus;
    SPLIT_H26X_NALUS(stKey.vecData.data(), static_cast<uint32_t>(stKey.vecData.size()), vecNalus);
    std::vector<uint8_t> vecVps;
    std::vector<uint8_t> vecSps;
    for (const std::pair<unsigned char *, int> &stNalu : vecNalus)
    {
        switch (GET_H265_NAL_TYPE(stNalu.first, static_cast<uint32_t>(stNalu.second)))
        {
        case 32:
            AppendUnit(stNalu, vecVps);
            break;
        case 33:
            AppendUnit(stNalu, vecSps);
            break;
        case 34:
            AppendUnit(stNalu, stRecord.vecPps);
            break;
        default:
            break;
        }
    }
    stRecord.vecSps = vecVps;
    stRecord.vecSps.insert(stRecord.vecSps.end(), vecSps.begin(), vecSps.end());
    return !vecVps.empty() && !vecSps.empty() && !stRecord.vecPps.empty();
}

static bool FillVideo(const tagTOOL_VIDEO_S &stVideo, tagTOOL_FRAME_S &stKey, tagTOOL_RECORD_PARAM_S &stRecord)
{
    libquarrin::tagQN_STREAM_PARAM_S &stParam = stRecord.stParam.stVideo;
    stParam.bEnable = 1;
    stParam.enCodec = stVideo.enCodec;
    stParam.u32Width = stVideo.u32Width;
    stParam.u32Height = stVideo.u32Height;
    stParam.u32Fps = WholeRate(stVideo);
    stParam.u32BitRate = stVideo.u32BitRate;
    stParam.u32TimeBaseNum = static_cast<uint32_t>(TOOL_TIME_BASE.num);
    stParam.u32TimeBaseDen = static_cast<uint32_t>(TOOL_TIME_BASE.den);
    const bool bFound =
        stVideo.enCodec == libquarrin::QN_CODEC_H265 ? FindH265(stKey, stRecord) : FindH264(stKey, stRecord);
    stParam.stSps = {stRecord.vecSps.data(), static_cast<uint32_t>(stRecord.vecSps.size())};
    stParam.stPps = {stRecord.vecPps.data(), static_cast<uint32_t>(stRecord.vecPps.size())};
    return bFound;
}

static void FillAudio(tagTOOL_QUEUE_S &stQueue, libquarrin::tagQN_STREAM_PARAM_S &stParam)
{
    const tagTOOL_AUDIO_S &stAudio = stQueue.pInput->stAudio;
    stParam.bEnable = 1;
    stParam.enCodec = libquarrin::QN_CODEC_AAC;
    stParam.u32Width = stAudio.u32SampleRate;
    stParam.u32Fps = stAudio.u32Channels;
    stParam.u32TimeBaseNum = static_cast<uint32_t>(TOOL_TIME_BASE.num);
    stParam.u32TimeBaseDen = static_cast<uint32_t>(TOOL_TIME_BASE.den);
    // A demuxer may name the rate that a decoder makes out of the core's.
    tagTOOL_ADTS_S stAdts;
    if (!stQueue.dqAudio.empty() &&
        TOOL_ADTS_FromHeader(stQueue.dqAudio.front().vecData.data(), stQueue.dqAudio.front().vecData.size(), stAdts))
    {
        stParam.u32Width = TOOL_ADTS_Rate(stAdts.u32RateIndex);
    }
}

bool TOOL_RECORD_FillParam(tagTOOL_QUEUE_S &stQueue, libquarrin::QN_FILE_FMT_E enFormat, const tagTOOL_LOOK_S &stLook,
                           tagTOOL_RECORD_PARAM_S &stRecord, std::vector<std::string> &vecNotes, std::string &strError)
{
    const tagTOOL_INPUT_S &stInput = *stQueue.pInput;
    stRecord.stParam.enFormat = enFormat;
    if (stInput.stAudio.bPresent)
    {
        FillAudio(stQueue, stRecord.stParam.stAudio);
    }
    if (!stInput.stVideo.bPresent)
    {
        return true;
    }
    NoteRate(stInput.stVideo, enFormat, stLook.bUneven, vecNotes);
    if (!FillVideo(stInput.stVideo, stQueue.dqVideo.front(), stRecord))
    {
        strError = "the first key frame of the video has no parameter sets";
        return false;
    }
    return true;
}
