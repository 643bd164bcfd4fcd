// Reads a media file back with libavformat. Declared in streams.h.

#include "support/streams.h"

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

std::vector<TEST_PACKET_S> TEST_MEDIA_S::Of(int32_t s32Stream) const
{
    std::vector<TEST_PACKET_S> vecOut;
    for (const TEST_PACKET_S &stPacket : vecPackets)
    {
        if (stPacket.s32Stream == s32Stream)
        {
            vecOut.push_back(stPacket);
        }
    }
    return vecOut;
}

int32_t TEST_MEDIA_S::VideoStream() const
{
    for (size_t i = 0; i < vecStreams.size(); ++i)
    {
        if (vecStreams[i].bVideo)
        {
            return static_cast<int32_t>(i);
        }
    }
    return -1;
}

int32_t TEST_MEDIA_S::AudioStream() const
{
    for (size_t i = 0; i < vecStreams.size(); ++i)
    {
        if (vecStreams[i].bAudio)
        {
            return static_cast<int32_t>(i);
        }
    }
    return -1;
}

static TEST_MEDIA_STREAM_S Describe(const AVStream *pStream)
{
    const AVCodecParameters *pPar = pStream->codecpar;
    TEST_MEDIA_STREAM_S st;
    st.bVideo = pPar->codec_type == AVMEDIA_TYPE_VIDEO;
    st.bAudio = pPar->codec_type == AVMEDIA_TYPE_AUDIO;
    st.s32CodecId = static_cast<int32_t>(pPar->codec_id);
    st.s32Width = pPar->width;
    st.s32Height = pPar->height;
    st.s32Format = pPar->format;
    st.s32SampleRate = pPar->sample_rate;
    st.s32Channels = pPar->ch_layout.nb_channels;
    st.u64ChannelMask = pPar->ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? pPar->ch_layout.u.mask : 0;
    st.s64BitRate = pPar->bit_rate;
    st.vecExtradata.assign(pPar->extradata, pPar->extradata + pPar->extradata_size);
    st.s32TimeBaseNum = pStream->time_base.num;
    st.s32TimeBaseDen = pStream->time_base.den;
    return st;
}

static AVCodecContext *OpenDecoder(const AVCodecParameters *pPar)
{
    const AVCodec *pDecoder = avcodec_find_decoder(pPar->codec_id);
    AVCodecContext *pCodec = pDecoder != nullptr ? avcodec_alloc_context3(pDecoder) : nullptr;
    if (pCodec != nullptr)
    {
        pCodec->thread_count = 1;
        if (avcodec_parameters_to_context(pCodec, pPar) < 0 || avcodec_open2(pCodec, pDecoder, nullptr) < 0)
        {
            avcodec_free_context(&pCodec);
        }
    }
    return pCodec;
}

static void Decode(AVCodecContext *pCodec, const AVPacket *pPacket, TEST_MEDIA_STREAM_S &st)
{
    if (pCodec == nullptr || avcodec_send_packet(pCodec, pPacket) < 0)
    {
        ++st.s32DecodeErrors;
        return;
    }
    AVFrame *pFrame = av_frame_alloc();
    int s32Ret = 0;
    while ((s32Ret = avcodec_receive_frame(pCodec, pFrame)) == 0)
    {
        const bool bBroken = pFrame->decode_error_flags != 0 || (pFrame->flags & AV_FRAME_FLAG_CORRUPT) != 0;
        st.s32Decoded += bBroken ? 0 : 1;
        st.s32DecodeErrors += bBroken ? 1 : 0;
        av_frame_unref(pFrame);
    }
    st.s32DecodeErrors += s32Ret == AVERROR(EAGAIN) || s32Ret == AVERROR_EOF ? 0 : 1;
    av_frame_free(&pFrame);
}

static void ReadPackets(AVFormatContext *pFormat, bool bDecode, TEST_MEDIA_S &stMedia)
{
    std::vector<AVCodecContext *> vecDecoders;
    for (uint32_t i = 0; bDecode && i < pFormat->nb_streams; ++i)
    {
        vecDecoders.push_back(OpenDecoder(pFormat->streams[i]->codecpar));
    }
    AVPacket *pPacket = av_packet_alloc();
    while (av_read_frame(pFormat, pPacket) == 0)
    {
        TEST_PACKET_S st;
        st.s32Stream = pPacket->stream_index;
        st.s64Pts = pPacket->pts;
        st.s64Dts = pPacket->dts;
        st.bKey = (pPacket->flags & AV_PKT_FLAG_KEY) != 0;
        st.s32Size = pPacket->size;
        st.vecBytes.assign(pPacket->data, pPacket->data + pPacket->size);
        stMedia.vecPackets.push_back(st);
        const size_t u32Stream = static_cast<size_t>(st.s32Stream);
        if (u32Stream < vecDecoders.size())
        {
            Decode(vecDecoders[u32Stream], pPacket, stMedia.vecStreams[u32Stream]);
        }
        av_packet_unref(pPacket);
    }
    av_packet_free(&pPacket);
    for (size_t i = 0; i < vecDecoders.size(); ++i)
    {
        if (vecDecoders[i] != nullptr)
        {
            Decode(vecDecoders[i], nullptr, stMedia.vecStreams[i]);
        }
        avcodec_free_context(&vecDecoders[i]);
    }
}

TEST_MEDIA_S TEST_ReadMedia(const std::string &strPath, bool bProbe, bool bDecode)
{
    TEST_MEDIA_S stMedia;
    AVFormatContext *pFormat = avformat_alloc_context();
    AVDictionary *pOptions = nullptr;
    if (!bProbe)
    {
        pFormat->flags |= AVFMT_FLAG_NOPARSE;              // key flags are the container's
        av_dict_set(&pOptions, "ignore_editlist", "1", 0); // MP4, MOV: every packet, also those that players hide
    }
    const int s32Ret = avformat_open_input(&pFormat, strPath.c_str(), nullptr, &pOptions);
    av_dict_free(&pOptions);
    if (s32Ret < 0)
    {
        return stMedia;
    }
    stMedia.bOpened = !bProbe || avformat_find_stream_info(pFormat, nullptr) >= 0;
    if (stMedia.bOpened)
    {
        stMedia.strFormat = pFormat->iformat->name;
        for (uint32_t i = 0; i < pFormat->nb_streams; ++i)
        {
            stMedia.vecStreams.push_back(Describe(pFormat->streams[i]));
        }
        ReadPackets(pFormat, bDecode, stMedia);
    }
    avformat_close_input(&pFormat);
    return stMedia;
}
