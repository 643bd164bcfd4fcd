// Input from a file or an address: libavformat demuxes, the frames are brought into the library's shape.
// Threads: the main thread; a read that waits asks fnInterrupted from inside.

#include "input.h"

#include <chrono>

#include "annexb.h"
#include "ff.h"
#include "timeline.h"
#include "transcode.h"

static constexpr int32_t INPUT_PATIENCE_S = 15; // a live input that sends nothing for so long is taken for dead

struct tagTOOL_FILE_S
{
    AVFormatContext *pContext = nullptr;
    int32_t s32Video = -1;
    int32_t s32Audio = -1;
    TOOL_PACKET pPacket{av_packet_alloc()};
    TOOL_FILTER pAnnexB;                // to start codes, where the container has lengths
    std::vector<uint8_t> vecParameters; // parameter sets of the header, for key frames that lack them
    bool bAdtsInBand = false;           // the packets bring their headers
    tagTOOL_ADTS_S stAdts;
    std::shared_ptr<tagTOOL_TRANSCODER_S> spTranscoder;
    tagTOOL_TIMELINE_S stLine;
    std::function<bool()> fnInterrupted;
    std::chrono::steady_clock::time_point stDeadline;

    ~tagTOOL_FILE_S()
    {
        avformat_close_input(&pContext);
    }
};

static bool IsOverdue(const tagTOOL_FILE_S &stFile)
{
    return std::chrono::steady_clock::now() > stFile.stDeadline;
}

static void SetDeadline(tagTOOL_FILE_S &stFile)
{
    stFile.stDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(INPUT_PATIENCE_S);
}

static int OnInterrupt(void *pArgument)
{
    const tagTOOL_FILE_S &stFile = *static_cast<tagTOOL_FILE_S *>(pArgument);
    return (stFile.fnInterrupted && stFile.fnInterrupted()) || IsOverdue(stFile) ? 1 : 0;
}

static bool OpenContext(const std::string &strInput, tagTOOL_FILE_S &stFile, std::string &strError)
{
    stFile.pContext = avformat_alloc_context();
    if (stFile.pContext == nullptr || !stFile.pPacket)
    {
        strError = "out of memory";
        return false;
    }
    stFile.pContext->interrupt_callback = {OnInterrupt, &stFile};
    SetDeadline(stFile);
    AVDictionary *pOptions = nullptr;
    av_dict_set(&pOptions, "rtsp_transport", "tcp", 0); // pictures torn by lost datagrams are of no use in a recording
    int s32Result = avformat_open_input(&stFile.pContext, strInput.c_str(), nullptr, &pOptions);
    av_dict_free(&pOptions);
    s32Result = s32Result < 0 ? s32Result : avformat_find_stream_info(stFile.pContext, nullptr);
    if (s32Result < 0)
    {
        strError = IsOverdue(stFile) ? "nothing was received" : TOOL_FF_Text(s32Result);
    }
    return s32Result >= 0;
}

static bool IsVideoUsable(const AVCodecParameters *pParameters, bool bTranscode)
{
    return bTranscode || pParameters->codec_id == AV_CODEC_ID_H264 || pParameters->codec_id == AV_CODEC_ID_HEVC;
}

static void ChooseStreams(tagTOOL_INPUT_S &stInput, tagTOOL_FILE_S &stFile, bool bTranscode)
{
    for (uint32_t u = 0; u < stFile.pContext->nb_streams; u++)
    {
        AVStream *pStream = stFile.pContext->streams[u];
        const AVCodecParameters *pParameters = pStream->codecpar;
        const bool bPicture = (pStream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
        const bool bVideo = pParameters->codec_type == AVMEDIA_TYPE_VIDEO && !bPicture;
        const bool bAudio = pParameters->codec_type == AVMEDIA_TYPE_AUDIO;
        pStream->discard = AVDISCARD_ALL;
        if (bVideo && stFile.s32Video < 0 && IsVideoUsable(pParameters, bTranscode))
        {
            stFile.s32Video = static_cast<int32_t>(u);
            pStream->discard = AVDISCARD_DEFAULT;
        }
        else if (bAudio && stFile.s32Audio < 0 && pParameters->codec_id == AV_CODEC_ID_AAC)
        {
            stFile.s32Audio = static_cast<int32_t>(u);
            pStream->discard = AVDISCARD_DEFAULT;
        }
        else if (bVideo || bAudio)
        {
            stInput.vecNotes.push_back("stream " + std::to_string(u) + " (" + avcodec_get_name(pParameters->codec_id) +
                                       ") is not recorded");
        }
    }
}

/// Gets the stream out of a container that writes lengths instead of start codes.
static bool OpenAnnexB(const AVCodecParameters *pParameters, tagTOOL_FILE_S &stFile, std::string &strError)
{
    const size_t uLen = static_cast<size_t>(pParameters->extradata_size);
    if (TOOL_ANNEXB_Is(pParameters->extradata, uLen))
    {
        TOOL_ANNEXB_Append(pParameters->extradata, uLen, stFile.vecParameters);
        return true;
    }
    if (uLen == 0)
    {
        return true;
    }
    const bool bH264 = pParameters->codec_id == AV_CODEC_ID_H264;
    const AVBitStreamFilter *pFilter = av_bsf_get_by_name(bH264 ? "h264_mp4toannexb" : "hevc_mp4toannexb");
    AVBSFContext *pContext = nullptr;
    int s32Result = pFilter == nullptr ? AVERROR_BSF_NOT_FOUND : av_bsf_alloc(pFilter, &pContext);
    stFile.pAnnexB.reset(pContext);
    s32Result = s32Result < 0 ? s32Result : avcodec_parameters_copy(pContext->par_in, pParameters);
    s32Result = s32Result < 0 ? s32Result : av_bsf_init(pContext);
    if (s32Result < 0)
    {
        strError = "the video's header cannot be read: " + TOOL_FF_Text(s32Result);
        return false;
    }
    const AVCodecParameters *pOut = pContext->par_out;
    TOOL_ANNEXB_Append(pOut->extradata, static_cast<size_t>(pOut->extradata_size), stFile.vecParameters);
    return true;
}

static bool OpenVideo(tagTOOL_INPUT_S &stInput, tagTOOL_FILE_S &stFile, const tagTOOL_INPUT_OPTIONS_S &stOptions)
{
    AVStream *pStream = stFile.pContext->streams[stFile.s32Video];
    const AVCodecParameters *pParameters = pStream->codecpar;
    const AVRational stRate = av_guess_frame_rate(stFile.pContext, pStream, nullptr);
    tagTOOL_VIDEO_S &stVideo = stInput.stVideo;
    stVideo.bPresent = true;
    stVideo.enCodec = pParameters->codec_id == AV_CODEC_ID_HEVC ? libquarrin::QN_CODEC_H265 : libquarrin::QN_CODEC_H264;
    stVideo.u32Width = static_cast<uint32_t>(pParameters->width);
    stVideo.u32Height = static_cast<uint32_t>(pParameters->height);
    stVideo.s32RateNum = stRate.num;
    stVideo.s32RateDen = stRate.den;
    stVideo.u32BitRate = static_cast<uint32_t>(pParameters->bit_rate);
    if (stVideo.u32Width == 0 || stVideo.u32Height == 0)
    {
        stInput.strError = "the video's size is unknown";
        return false;
    }
    if (stOptions.bTranscode)
    {
        stFile.spTranscoder = TOOL_TRANSCODE_Open(pParameters, stVideo, stInput.strError);
        return stFile.spTranscoder != nullptr;
    }
    if (pParameters->video_delay > 0)
    {
        stInput.strError = "the video has B-frames, which cannot be recorded; --transcode encodes it again without";
        return false;
    }
    return OpenAnnexB(pParameters, stFile, stInput.strError);
}

static bool OpenAudio(tagTOOL_INPUT_S &stInput, tagTOOL_FILE_S &stFile)
{
    const AVCodecParameters *pParameters = stFile.pContext->streams[stFile.s32Audio]->codecpar;
    tagTOOL_AUDIO_S &stAudio = stInput.stAudio;
    stAudio.bPresent = true;
    stAudio.u32Channels = static_cast<uint32_t>(pParameters->ch_layout.nb_channels);
    stAudio.u32SampleRate = static_cast<uint32_t>(pParameters->sample_rate);
    stFile.bAdtsInBand = pParameters->extradata_size == 0;
    if (!stFile.bAdtsInBand)
    {
        const size_t uLen = static_cast<size_t>(pParameters->extradata_size);
        if (!TOOL_ADTS_FromConfig(pParameters->extradata, uLen, stFile.stAdts))
        {
            stInput.strError = "this kind of AAC has no ADTS header and cannot be recorded";
            return false;
        }
        stAudio.u32SampleRate = TOOL_ADTS_Rate(stFile.stAdts.u32RateIndex); // of the core, which counts the frames
    }
    if (stAudio.u32SampleRate == 0)
    {
        stInput.strError = "the audio's sample rate is unknown";
        return false;
    }
    if (stAudio.u32Channels > 2)
    {
        stInput.vecNotes.push_back("the audio has " + std::to_string(stAudio.u32Channels) +
                                   " channels; the file's header will say 1");
    }
    return true;
}

/// Parameter sets go in front of a key frame that has none: a player may begin there, and the recording does.
static bool HasParameterSets(std::vector<uint8_t> &vecData, libquarrin::QN_CODEC_TYPE_E enCodec)
{
    std::vector<std::pair<unsigned char *, int>> vecNalus;
    SPLIT_H26X_NALUS(vecData.data(), static_cast<uint32_t>(vecData.size()), vecNalus);
    for (const std::pair<unsigned char *, int> &stNalu : vecNalus)
    {
        const uint32_t u32Len = static_cast<uint32_t>(stNalu.second);
        const bool bFound = enCodec == libquarrin::QN_CODEC_H264 ? GET_H264_NAL_TYPE(stNalu.first, u32Len) == 7
                                                                 : GET_H265_NAL_TYPE(stNalu.first, u32Len) == 33;
        if (bFound)
        {
            return true;
        }
    }
    return false;
}

static void AppendVideo(tagTOOL_INPUT_S &stInput, tagTOOL_FILE_S &stFile, const AVPacket *pPacket, int64_t s64Time,
                        std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    tagTOOL_FRAME_S stFrame;
    TOOL_ANNEXB_Append(pPacket->data, static_cast<size_t>(pPacket->size), stFrame.vecData);
    stFrame.s64Time = s64Time;
    stFrame.bKey = (pPacket->flags & AV_PKT_FLAG_KEY) != 0;
    stFrame.bVideo = true;
    if (stFrame.bKey && !HasParameterSets(stFrame.vecData, stInput.stVideo.enCodec))
    {
        stFrame.vecData.insert(stFrame.vecData.begin(), stFile.vecParameters.begin(), stFile.vecParameters.end());
    }
    if (!stFrame.vecData.empty())
    {
        dqFrames.push_back(std::move(stFrame));
    }
}

static bool AddVideo(tagTOOL_INPUT_S &stInput, tagTOOL_FILE_S &stFile, int64_t s64Time,
                     std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    AVPacket *pPacket = stFile.pPacket.get();
    if (stFile.spTranscoder)
    {
        pPacket->pts = s64Time;
        pPacket->dts = AV_NOPTS_VALUE;
        return TOOL_TRANSCODE_Packet(*stFile.spTranscoder, pPacket, dqFrames, stInput.strError);
    }
    if (!stFile.pAnnexB)
    {
        AppendVideo(stInput, stFile, pPacket, s64Time, dqFrames);
        return true;
    }
    int s32Result = av_bsf_send_packet(stFile.pAnnexB.get(), pPacket);
    while (s32Result >= 0)
    {
        s32Result = av_bsf_receive_packet(stFile.pAnnexB.get(), pPacket);
        if (s32Result >= 0)
        {
            AppendVideo(stInput, stFile, pPacket, s64Time, dqFrames);
            av_packet_unref(pPacket);
        }
    }
    return true; // a damaged packet is left out
}

static bool AddAudio(tagTOOL_INPUT_S &stInput, tagTOOL_FILE_S &stFile, int64_t s64Time,
                     std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    const AVPacket *pPacket = stFile.pPacket.get();
    const size_t uLen = static_cast<size_t>(pPacket->size);
    tagTOOL_FRAME_S stFrame;
    if (!stFile.bAdtsInBand && !TOOL_ADTS_Append(stFile.stAdts, uLen, stFrame.vecData))
    {
        stInput.strError = "an audio frame is too long for an ADTS header";
        return false;
    }
    tagTOOL_ADTS_S stHeader;
    if (stFile.bAdtsInBand && !TOOL_ADTS_FromHeader(pPacket->data, uLen, stHeader))
    {
        return true; // a damaged frame is left out
    }
    stFrame.vecData.insert(stFrame.vecData.end(), pPacket->data, pPacket->data + uLen);
    stFrame.s64Time = s64Time;
    stFrame.bKey = true;
    dqFrames.push_back(std::move(stFrame));
    return true;
}

static TOOL_READ_E EndOf(tagTOOL_INPUT_S &stInput, tagTOOL_FILE_S &stFile, int s32Result,
                         std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    if (stFile.spTranscoder && !TOOL_TRANSCODE_Packet(*stFile.spTranscoder, nullptr, dqFrames, stInput.strError))
    {
        return TOOL_READ_E_FAILED;
    }
    if (s32Result == AVERROR_EOF)
    {
        return TOOL_READ_E_END;
    }
    stInput.strError =
        IsOverdue(stFile) ? "the input sends nothing any more" : "the input broke: " + TOOL_FF_Text(s32Result);
    return TOOL_READ_E_FAILED;
}

static TOOL_READ_E ReadFile(tagTOOL_INPUT_S &stInput, std::deque<tagTOOL_FRAME_S> &dqFrames)
{
    tagTOOL_FILE_S &stFile = *static_cast<tagTOOL_FILE_S *>(stInput.spState.get());
    AVPacket *pPacket = stFile.pPacket.get();
    stFile.fnInterrupted = stInput.fnInterrupted;
    SetDeadline(stFile);
    const int s32Result = av_read_frame(stFile.pContext, pPacket);
    if (s32Result == AVERROR(EAGAIN))
    {
        return TOOL_READ_E_GOOD;
    }
    if (s32Result < 0)
    {
        return EndOf(stInput, stFile, s32Result, dqFrames);
    }
    const bool bVideo = pPacket->stream_index == stFile.s32Video;
    const bool bAudio = pPacket->stream_index == stFile.s32Audio;
    const int64_t s64Stamp = pPacket->pts != AV_NOPTS_VALUE ? pPacket->pts : pPacket->dts;
    bool bGood = true;
    if ((bVideo || bAudio) && s64Stamp != AV_NOPTS_VALUE && pPacket->size > 0)
    {
        const AVRational stBase = stFile.pContext->streams[pPacket->stream_index]->time_base;
        const int64_t s64Time = TOOL_TIMELINE_At(stFile.stLine, av_rescale_q(s64Stamp, stBase, TOOL_TIME_BASE));
        bGood = bVideo ? AddVideo(stInput, stFile, s64Time, dqFrames) : AddAudio(stInput, stFile, s64Time, dqFrames);
    }
    av_packet_unref(pPacket);
    return bGood ? TOOL_READ_E_GOOD : TOOL_READ_E_FAILED;
}

bool TOOL_INPUT_OpenFile(const tagTOOL_INPUT_OPTIONS_S &stOptions, tagTOOL_INPUT_S &stInput)
{
    std::shared_ptr<tagTOOL_FILE_S> spFile = std::make_shared<tagTOOL_FILE_S>();
    spFile->fnInterrupted = stInput.fnInterrupted;
    if (!OpenContext(stOptions.strInput, *spFile, stInput.strError))
    {
        return false;
    }
    ChooseStreams(stInput, *spFile, stOptions.bTranscode);
    if (spFile->s32Video < 0 && spFile->s32Audio < 0)
    {
        stInput.strError = "no H.264 or H.265 video and no AAC audio in it";
        return false;
    }
    if (spFile->s32Video >= 0 && !OpenVideo(stInput, *spFile, stOptions))
    {
        return false;
    }
    if (spFile->s32Audio >= 0 && !OpenAudio(stInput, *spFile))
    {
        return false;
    }
    // What can be sought is read as fast as it is asked for; all else sends at its own pace.
    const AVIOContext *pIo = spFile->pContext->pb;
    stInput.bLive = pIo == nullptr || (pIo->seekable & AVIO_SEEKABLE_NORMAL) == 0;
    stInput.spState = spFile;
    stInput.pfnRead = ReadFile;
    return true;
}
