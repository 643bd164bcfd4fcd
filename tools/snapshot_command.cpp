// The snapshot command: decodes forward to a time and saves the picture through the library's YUV writer.

#include "commands.h"

#include <algorithm>

#include <sys/stat.h>

extern "C"
{
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include "output.h"
#include "replay_file.h"

static constexpr uint32_t SNAPSHOT_END_OF_FILE = 9;     // of QN_ReplayReadFrame
static constexpr int64_t SNAPSHOT_LAST_SHOWS = 1000000; // how long the last picture counts as shown

struct tagTOOL_SNAPSHOT_S
{
    tagTOOL_REPLAY_S stReplay;
    TOOL_CODEC pDecoder;
    TOOL_PACKET pPacket{av_packet_alloc()};
    TOOL_PICTURE pDecoded{av_frame_alloc()};
    TOOL_PICTURE pShown{av_frame_alloc()}; ///< the picture that is shown at the time, as far as decoded
    bool bShown = false;
    int64_t s64At = 0; ///< the time on the file's clock, in microseconds
    std::string strError;
};

static bool OpenDecoder(tagTOOL_SNAPSHOT_S &stSnapshot)
{
    const tagTOOL_REPLAY_S &stReplay = stSnapshot.stReplay;
    if (stReplay.s32Video < 0)
    {
        stSnapshot.strError = stReplay.strPath + " has no video";
        return false;
    }
    const AVStream *pStream = stReplay.pHeaders->streams[stReplay.s32Video];
    const AVCodec *pCodec = avcodec_find_decoder(pStream->codecpar->codec_id);
    stSnapshot.pDecoder.reset(avcodec_alloc_context3(pCodec));
    int s32Result = pCodec == nullptr ? AVERROR_DECODER_NOT_FOUND
                                      : avcodec_parameters_to_context(stSnapshot.pDecoder.get(), pStream->codecpar);
    stSnapshot.pDecoder->pkt_timebase = pStream->time_base;
    s32Result = s32Result < 0 ? s32Result : avcodec_open2(stSnapshot.pDecoder.get(), pCodec, nullptr);
    if (s32Result < 0)
    {
        stSnapshot.strError = "cannot begin the decoder: " + TOOL_FF_Text(s32Result);
    }
    return s32Result >= 0;
}

/// Takes the decoded pictures. True once one is past the time: the one before it is the picture.
static bool TakePictures(tagTOOL_SNAPSHOT_S &stSnapshot)
{
    const AVRational stBase = stSnapshot.pDecoder->pkt_timebase;
    while (avcodec_receive_frame(stSnapshot.pDecoder.get(), stSnapshot.pDecoded.get()) >= 0)
    {
        const int64_t s64Time = av_rescale_q(stSnapshot.pDecoded->best_effort_timestamp, stBase, TOOL_TIME_BASE);
        if (stSnapshot.bShown && s64Time > stSnapshot.s64At)
        {
            return true;
        }
        av_frame_unref(stSnapshot.pShown.get());
        av_frame_move_ref(stSnapshot.pShown.get(), stSnapshot.pDecoded.get());
        stSnapshot.bShown = true;
    }
    return false;
}

static bool DecodeFrame(tagTOOL_SNAPSHOT_S &stSnapshot, const tagTOOL_REPLAY_FRAME_S &stFrame)
{
    AVPacket *pPacket = stSnapshot.pPacket.get();
    if (av_new_packet(pPacket, static_cast<int>(stFrame.u32Len)) < 0)
    {
        return false;
    }
    std::copy_n(stFrame.pu8Data, stFrame.u32Len, pPacket->data);
    pPacket->pts = stFrame.s64Pts;
    pPacket->flags = stFrame.bKey ? AV_PKT_FLAG_KEY : 0;
    (void)avcodec_send_packet(stSnapshot.pDecoder.get(), pPacket); // a damaged frame gives no picture
    av_packet_unref(pPacket);
    return TakePictures(stSnapshot);
}

/// Decodes until the picture of the time is found. False with strError set when there is none.
static bool FindPicture(tagTOOL_SNAPSHOT_S &stSnapshot)
{
    tagTOOL_REPLAY_FRAME_S stFrame;
    uint32_t u32Result = TOOL_REPLAY_Read(stSnapshot.stReplay, stFrame);
    while (u32Result == 0)
    {
        const bool bFound = stFrame.bVideo && DecodeFrame(stSnapshot, stFrame);
        TOOL_REPLAY_GiveBack(stSnapshot.stReplay, stFrame);
        if (bFound)
        {
            return true;
        }
        u32Result = TOOL_REPLAY_Read(stSnapshot.stReplay, stFrame);
    }
    (void)avcodec_send_packet(stSnapshot.pDecoder.get(), nullptr); // what the decoder still holds
    if (TakePictures(stSnapshot))
    {
        return true;
    }
    const int64_t s64Last = stSnapshot.bShown ? av_rescale_q(stSnapshot.pShown->best_effort_timestamp,
                                                             stSnapshot.pDecoder->pkt_timebase, TOOL_TIME_BASE)
                                              : 0;
    if (!stSnapshot.bShown || u32Result != SNAPSHOT_END_OF_FILE)
    {
        stSnapshot.strError = "no picture of " + stSnapshot.stReplay.strPath + " can be decoded";
        return false;
    }
    if (stSnapshot.s64At > s64Last + SNAPSHOT_LAST_SHOWS)
    {
        stSnapshot.strError = stSnapshot.stReplay.strPath + " ends before that time";
        return false;
    }
    return true;
}

/// A scaler that knows the ranges from the begin: set later, they do not count for a picture of unchanged size.
static SwsContext *OpenScaler(const AVFrame *pFrom, int32_t s32Width, int32_t s32Height)
{
    SwsContext *pScaler = sws_alloc_context();
    if (pScaler == nullptr)
    {
        return nullptr;
    }
    av_opt_set_int(pScaler, "srcw", pFrom->width, 0);
    av_opt_set_int(pScaler, "srch", pFrom->height, 0);
    av_opt_set_int(pScaler, "src_format", pFrom->format, 0);
    av_opt_set_int(pScaler, "src_range", pFrom->color_range == AVCOL_RANGE_JPEG ? 1 : 0, 0);
    av_opt_set_int(pScaler, "dstw", s32Width, 0);
    av_opt_set_int(pScaler, "dsth", s32Height, 0);
    av_opt_set_int(pScaler, "dst_format", AV_PIX_FMT_YUV420P, 0);
    av_opt_set_int(pScaler, "dst_range", 1, 0);
    av_opt_set_int(pScaler, "sws_flags", SWS_BICUBIC, 0);
    if (sws_init_context(pScaler, nullptr, nullptr) < 0)
    {
        sws_freeContext(pScaler);
        return nullptr;
    }
    return pScaler;
}

/// Full-range I420 of even size, tightly packed: what the library's writer takes.
static bool ToI420(const AVFrame *pFrom, int32_t s32Width, int32_t s32Height, std::vector<uint8_t> &vecYuv)
{
    SwsContext *pScaler = OpenScaler(pFrom, s32Width, s32Height);
    if (pScaler == nullptr)
    {
        return false;
    }
    const size_t uLuma = static_cast<size_t>(s32Width) * static_cast<size_t>(s32Height);
    vecYuv.assign(uLuma * 3 / 2, 0);
    uint8_t *apu8To[4] = {vecYuv.data(), vecYuv.data() + uLuma, vecYuv.data() + uLuma * 5 / 4, nullptr};
    const int as32Pitch[4] = {s32Width, s32Width / 2, s32Width / 2, 0};
    const int s32Rows = sws_scale(pScaler, pFrom->data, pFrom->linesize, 0, pFrom->height, apu8To, as32Pitch);
    sws_freeContext(pScaler);
    return s32Rows == s32Height;
}

static bool Save(tagTOOL_SNAPSHOT_S &stSnapshot, const std::string &strOutput)
{
    const AVFrame *pPicture = stSnapshot.pShown.get();
    const int32_t s32Width = std::max(pPicture->width & ~1, 2);
    const int32_t s32Height = std::max(pPicture->height & ~1, 2);
    std::vector<uint8_t> vecYuv;
    if (!ToI420(pPicture, s32Width, s32Height, vecYuv))
    {
        stSnapshot.strError = "the picture cannot be converted";
        return false;
    }
    struct stat stStat = {};
    const int32_t s32Result =
        libquarrin::qn_media_api_ffmpeg.pfnSaveYuvToJpeg(strOutput.c_str(), vecYuv.data(), s32Width, s32Height);
    // Some failures of the writer give 0 as well, so the file is looked at.
    if (s32Result != 0 || stat(strOutput.c_str(), &stStat) != 0 || stStat.st_size == 0)
    {
        stSnapshot.strError =
            "cannot write " + strOutput + (s32Result < 0 ? ": " + TOOL_FF_Text(s32Result) : std::string());
        return false;
    }
    return true;
}

static bool Take(tagTOOL_SNAPSHOT_S &stSnapshot, const tagTOOL_SNAPSHOT_OPTIONS_S &stOptions)
{
    if (!TOOL_REPLAY_Open(stOptions.strFile, stOptions.strStorage, stSnapshot.stReplay, stSnapshot.strError))
    {
        return false;
    }
    if (TOOL_REPLAY_WouldOverwrite(stSnapshot.stReplay, stOptions.strOutput))
    {
        stSnapshot.strError = stOptions.strOutput + " is a recording and is not overwritten";
        return false;
    }
    if (!TOOL_REPLAY_HasTime(stSnapshot.stReplay, stOptions.dAtSeconds))
    {
        stSnapshot.strError = stSnapshot.stReplay.strPath + " ends before that time";
        return false;
    }
    const int64_t s64Start = stSnapshot.stReplay.pHeaders->start_time;
    stSnapshot.s64At = static_cast<int64_t>(stOptions.dAtSeconds * 1e6) + (s64Start == AV_NOPTS_VALUE ? 0 : s64Start);
    const uint32_t u32Seek = static_cast<uint32_t>(stOptions.dAtSeconds);
    if (u32Seek != 0 && !TOOL_REPLAY_Seek(stSnapshot.stReplay, u32Seek))
    {
        stSnapshot.strError = stSnapshot.stReplay.strPath + " cannot be sought to that time";
        return false;
    }
    return OpenDecoder(stSnapshot) && FindPicture(stSnapshot);
}

int32_t TOOL_SnapshotCommand(const tagTOOL_SNAPSHOT_OPTIONS_S &stOptions)
{
    tagTOOL_SNAPSHOT_S stSnapshot;
    if (!Take(stSnapshot, stOptions) || !Save(stSnapshot, stOptions.strOutput))
    {
        TOOL_OUTPUT_Say("%s", stSnapshot.strError.c_str());
        return TOOL_EXIT_BAD_INPUT;
    }
    return TOOL_EXIT_GOOD;
}
