// Output of a replay, by libavformat.

#include "play_output.h"

#include <algorithm>
#include <cstring>

#include "output.h"

tagTOOL_PLAY_OUTPUT_S::~tagTOOL_PLAY_OUTPUT_S()
{
    if (pContext != nullptr)
    {
        avio_closep(&pContext->pb);
    }
    avformat_free_context(pContext);
}

static bool AddStream(const tagTOOL_REPLAY_S &stReplay, int32_t s32Stream, tagTOOL_PLAY_OUTPUT_S &stOutput,
                      std::string &strError)
{
    const AVStream *pFrom = stReplay.pHeaders->streams[s32Stream];
    const AVOutputFormat *pFormat = stOutput.pContext->oformat;
    if (avformat_query_codec(pFormat, pFrom->codecpar->codec_id, FF_COMPLIANCE_NORMAL) == 0)
    {
        strError = std::string(pFormat->name) + " cannot hold " + avcodec_get_name(pFrom->codecpar->codec_id);
        return false;
    }
    AVStream *pTo = avformat_new_stream(stOutput.pContext, nullptr);
    if (pTo == nullptr || avcodec_parameters_copy(pTo->codecpar, pFrom->codecpar) < 0)
    {
        strError = "out of memory";
        return false;
    }
    pTo->codecpar->codec_tag = 0; // the tag of the other container
    pTo->time_base = pFrom->time_base;
    pTo->avg_frame_rate = pFrom->avg_frame_rate;
    stOutput.vecStreams[static_cast<size_t>(s32Stream)] = pTo->index;
    return true;
}

static bool AddStreams(const tagTOOL_REPLAY_S &stReplay, tagTOOL_PLAY_OUTPUT_S &stOutput, std::string &strError)
{
    stOutput.vecStreams.assign(stReplay.pHeaders->nb_streams, -1);
    if (stReplay.s32Video >= 0 && stReplay.pHeaders->streams[stReplay.s32Video]->codecpar->video_delay > 0)
    {
        strError = stReplay.strPath + " has B-frames; replay carries no decoding times, so it cannot be written anew";
        return false;
    }
    for (int32_t s32Stream : {stReplay.s32Video, stReplay.s32Other})
    {
        if (s32Stream >= 0 && !AddStream(stReplay, s32Stream, stOutput, strError))
        {
            return false;
        }
    }
    if (stOutput.pContext->nb_streams == 0)
    {
        strError = stReplay.strPath + " has no stream that can be played";
        return false;
    }
    return true;
}

static const AVOutputFormat *FormatOf(const std::string &strOutput)
{
    const AVOutputFormat *pFormat = strOutput == "-" ? av_guess_format("matroska", nullptr, nullptr)
                                                     : av_guess_format(nullptr, strOutput.c_str(), nullptr);
    return pFormat == nullptr || (pFormat->flags & AVFMT_NOFILE) != 0 ? nullptr : pFormat;
}

/// A header that cannot be mended afterwards, as on a pipe, needs the audio's configuration at once; a transport
/// stream has it in every frame instead.
static bool AddAacConfig(tagTOOL_REPLAY_S &stReplay, tagTOOL_PLAY_OUTPUT_S &stOutput)
{
    const int32_t s32Stream = stReplay.s32Other < 0 ? -1 : stOutput.vecStreams[static_cast<size_t>(stReplay.s32Other)];
    if (s32Stream < 0 || (stOutput.pContext->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0)
    {
        return true;
    }
    AVCodecParameters *pParameters = stOutput.pContext->streams[s32Stream]->codecpar;
    if (pParameters->codec_id != AV_CODEC_ID_AAC || pParameters->extradata_size != 0)
    {
        return true;
    }
    const std::vector<uint8_t> vecConfig = TOOL_REPLAY_AacConfig(stReplay, stReplay.s32Other);
    pParameters->extradata = static_cast<uint8_t *>(av_mallocz(vecConfig.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (pParameters->extradata == nullptr)
    {
        return false;
    }
    std::copy(vecConfig.begin(), vecConfig.end(), pParameters->extradata);
    pParameters->extradata_size = static_cast<int>(vecConfig.size());
    return true;
}

bool TOOL_PLAY_OUTPUT_Open(tagTOOL_REPLAY_S &stReplay, const std::string &strOutput, tagTOOL_PLAY_OUTPUT_S &stOutput,
                           bool &bBadInput, std::string &strError)
{
    bBadInput = true;
    const AVOutputFormat *pFormat = FormatOf(strOutput);
    if (pFormat == nullptr)
    {
        strError = "the extension of " + strOutput + " names no container";
        return false;
    }
    if (avformat_alloc_output_context2(&stOutput.pContext, pFormat, nullptr, nullptr) < 0 || !stOutput.pPacket)
    {
        strError = "out of memory";
        return false;
    }
    if (!AddStreams(stReplay, stOutput, strError))
    {
        return false;
    }
    const std::string strUrl = strOutput == "-" ? "pipe:" + std::to_string(TOOL_OUTPUT_Fd()) : "file:" + strOutput;
    int s32Result = avio_open(&stOutput.pContext->pb, strUrl.c_str(), AVIO_FLAG_WRITE);
    if (s32Result < 0)
    {
        strError = "cannot write " + strOutput + ": " + TOOL_FF_Text(s32Result);
        return false;
    }
    bBadInput = false;
    stOutput.pContext->avoid_negative_ts = AVFMT_AVOID_NEG_TS_MAKE_ZERO; // behind a seek the file begins at 0 as well
    s32Result = AddAacConfig(stReplay, stOutput) ? avformat_write_header(stOutput.pContext, nullptr) : AVERROR(ENOMEM);
    stOutput.bHeader = s32Result >= 0;
    if (s32Result < 0)
    {
        strError = "cannot write the header of " + strOutput + ": " + TOOL_FF_Text(s32Result);
    }
    return s32Result >= 0;
}

static int64_t DurationOf(const AVStream *pStream)
{
    const AVCodecParameters *pParameters = pStream->codecpar;
    if (pParameters->codec_type == AVMEDIA_TYPE_AUDIO && pParameters->sample_rate > 0)
    {
        const int32_t s32Samples = pParameters->frame_size > 0 ? pParameters->frame_size : 1024;
        return av_rescale_q(s32Samples, AVRational{1, pParameters->sample_rate}, pStream->time_base);
    }
    const AVRational stRate = pStream->avg_frame_rate;
    return stRate.num > 0 && stRate.den > 0 ? av_rescale_q(1, av_inv_q(stRate), pStream->time_base) : 0;
}

bool TOOL_PLAY_OUTPUT_Write(tagTOOL_PLAY_OUTPUT_S &stOutput, const tagTOOL_REPLAY_S &stReplay,
                            const tagTOOL_REPLAY_FRAME_S &stFrame, std::string &strError)
{
    const int32_t s32Stream = stFrame.s32Stream < 0 ? -1 : stOutput.vecStreams[static_cast<size_t>(stFrame.s32Stream)];
    if (s32Stream < 0 || stFrame.s64Pts == AV_NOPTS_VALUE)
    {
        return true;
    }
    AVPacket *pPacket = stOutput.pPacket.get();
    int s32Result = av_new_packet(pPacket, static_cast<int>(stFrame.u32Len));
    if (s32Result >= 0)
    {
        const AVStream *pFrom = stReplay.pHeaders->streams[stFrame.s32Stream];
        memcpy(pPacket->data, stFrame.pu8Data, stFrame.u32Len);
        pPacket->stream_index = s32Stream;
        pPacket->flags = stFrame.bKey ? AV_PKT_FLAG_KEY : 0;
        pPacket->pts = stFrame.s64Pts;
        pPacket->dts = stFrame.s64Pts;
        pPacket->duration = DurationOf(pFrom);
        av_packet_rescale_ts(pPacket, pFrom->time_base, stOutput.pContext->streams[s32Stream]->time_base);
        s32Result = av_interleaved_write_frame(stOutput.pContext, pPacket);
    }
    if (s32Result < 0)
    {
        strError = "the output broke: " + TOOL_FF_Text(s32Result);
    }
    return s32Result >= 0;
}

bool TOOL_PLAY_OUTPUT_Finish(tagTOOL_PLAY_OUTPUT_S &stOutput, std::string &strError)
{
    int s32Result = stOutput.bHeader ? av_write_trailer(stOutput.pContext) : 0;
    const int s32Closed = avio_closep(&stOutput.pContext->pb);
    s32Result = s32Result < 0 ? s32Result : s32Closed;
    if (s32Result < 0)
    {
        strError = "the output broke: " + TOOL_FF_Text(s32Result);
    }
    return s32Result >= 0;
}
