#include "demuxer_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <tuple>

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libavutil/mathematics.h>
}

using namespace libquarrin;

const std::vector<CONTAINER_S> TEST_CONTAINERS = {{QN_FILE_FMT_E_MKV, "matroska"},
                                                  {QN_FILE_FMT_E_TS, "mpegts"},
                                                  {QN_FILE_FMT_E_MP4, "mp4"},
                                                  {QN_FILE_FMT_E_MOV, "mov"}};

static SOURCE_S Video(QN_CODEC_TYPE_E enCodec, const std::vector<TEST_FRAME_S> &vecFrames, int32_t s32Fps)
{
    const tagQN_STREAM_PARAM_S stParam = TEST_VideoParam(enCodec, vecFrames);
    SOURCE_S st;
    st.s32CodecId = enCodec == QN_CODEC_H265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
    st.vecFrames = vecFrames;
    st.vecExtradata.assign(stParam.stSps.pu8Data, stParam.stSps.pu8Data + stParam.stSps.u32Len);
    st.vecExtradata.insert(st.vecExtradata.end(), stParam.stPps.pu8Data, stParam.stPps.pu8Data + stParam.stPps.u32Len);
    st.s32FrameDen = s32Fps;
    return st;
}

static SOURCE_S Audio(int32_t s32CodecId, int32_t s32SampleRate, int32_t s32Channels, int32_t s32FrameSamples)
{
    SOURCE_S st;
    st.s32CodecId = s32CodecId;
    st.s32FrameNum = s32FrameSamples;
    st.s32FrameDen = s32SampleRate;
    st.s32SampleRate = s32SampleRate;
    st.s32Channels = s32Channels;
    return st;
}

SOURCE_S SOURCE_H264(int32_t s32Fps, int32_t s32Gop, int32_t s32Frames)
{
    return Video(QN_CODEC_H264, TEST_EncodeH264(64, 64, s32Fps, s32Gop, s32Frames), s32Fps);
}

SOURCE_S SOURCE_H265(int32_t s32Fps, int32_t s32Gop, int32_t s32Frames)
{
    return Video(QN_CODEC_H265, TEST_EncodeH265(64, 64, s32Fps, s32Gop, s32Frames), s32Fps);
}

SOURCE_S SOURCE_Aac(int32_t s32SampleRate, int32_t s32Channels)
{
    SOURCE_S st = Audio(AV_CODEC_ID_AAC, s32SampleRate, s32Channels, 1024);
    st.vecFrames = TEST_EncodeAac(s32SampleRate, s32Channels);
    st.s32BitRate = 64000;
    return st;
}

SOURCE_S SOURCE_Mp3()
{
    SOURCE_S st = Audio(AV_CODEC_ID_MP3, 44100, 2, 1152);
    TEST_FRAME_S stFrame;
    stFrame.bKey = true;
    stFrame.vecData.assign(417, 0);                       // 144 * 128000 / 44100
    const uint8_t au8Header[] = {0xff, 0xfb, 0x90, 0x00}; // ISO/IEC 11172-3: layer III, 128 kbit/s, 44.1 kHz, stereo
    std::copy(au8Header, au8Header + sizeof(au8Header), stFrame.vecData.begin());
    st.vecFrames.assign(20, stFrame);
    st.s32BitRate = 128000;
    return st;
}

SOURCE_S SOURCE_Pcm()
{
    SOURCE_S st = Audio(AV_CODEC_ID_PCM_S16LE, 8000, 1, 320);
    TEST_FRAME_S stFrame;
    stFrame.bKey = true;
    stFrame.vecData.assign(640, 3);
    st.vecFrames.assign(10, stFrame);
    st.s32BitRate = 128000;
    return st;
}

static void Describe(AVStream *pStream, const SOURCE_S &st)
{
    AVCodecParameters *pPar = pStream->codecpar;
    pPar->codec_id = static_cast<AVCodecID>(st.s32CodecId);
    pPar->codec_type = st.s32SampleRate != 0 ? AVMEDIA_TYPE_AUDIO : AVMEDIA_TYPE_VIDEO;
    pPar->bit_rate = st.s32BitRate;
    pStream->time_base = AVRational{st.s32FrameNum, st.s32FrameDen};
    if (!st.vecExtradata.empty())
    {
        pPar->extradata = static_cast<uint8_t *>(av_mallocz(st.vecExtradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        memcpy(pPar->extradata, st.vecExtradata.data(), st.vecExtradata.size());
        pPar->extradata_size = static_cast<int>(st.vecExtradata.size());
    }
    if (pPar->codec_type == AVMEDIA_TYPE_VIDEO)
    {
        pPar->width = 64;
        pPar->height = 64;
        pStream->avg_frame_rate = st.bDeclareRate ? AVRational{st.s32FrameDen, st.s32FrameNum} : AVRational{0, 0};
        return;
    }
    pPar->sample_rate = st.s32SampleRate;
    pPar->frame_size = st.s32FrameNum;
    av_channel_layout_default(&pPar->ch_layout, st.s32Channels);
    if (st.s32CodecId == AV_CODEC_ID_PCM_S16LE)
    {
        pPar->bits_per_coded_sample = 16;
        pPar->block_align = 2;
    }
}

static bool WriteFrame(AVFormatContext *pFormat, int32_t s32Stream, const SOURCE_S &st, size_t u32No)
{
    const TEST_FRAME_S &stFrame = st.vecFrames[u32No];
    AVPacket *pPacket = av_packet_alloc();
    bool bDone = av_new_packet(pPacket, static_cast<int>(stFrame.vecData.size())) == 0;
    if (bDone)
    {
        memcpy(pPacket->data, stFrame.vecData.data(), stFrame.vecData.size());
        pPacket->stream_index = s32Stream;
        pPacket->flags = stFrame.bKey ? AV_PKT_FLAG_KEY : 0;
        pPacket->pts = pPacket->dts = static_cast<int64_t>(u32No);
        pPacket->duration = 1;
        av_packet_rescale_ts(pPacket, AVRational{st.s32FrameNum, st.s32FrameDen},
                             pFormat->streams[s32Stream]->time_base);
        bDone = av_interleaved_write_frame(pFormat, pPacket) == 0;
    }
    av_packet_free(&pPacket);
    return bDone;
}

// Time, stream and number of every frame, earliest first.
static std::vector<std::tuple<double, int32_t, size_t>> Schedule(const std::vector<SOURCE_S> &vecSources)
{
    std::vector<std::tuple<double, int32_t, size_t>> vec;
    for (size_t i = 0; i < vecSources.size(); ++i)
    {
        for (size_t n = 0; n < vecSources[i].vecFrames.size(); ++n)
        {
            const double fTime = static_cast<double>(n) * vecSources[i].s32FrameNum / vecSources[i].s32FrameDen;
            vec.emplace_back(fTime, static_cast<int32_t>(i), n);
        }
    }
    std::sort(vec.begin(), vec.end());
    return vec;
}

bool TEST_WriteMedia(const std::string &strPath, const std::string &strMuxer, const std::vector<SOURCE_S> &vecSources)
{
    AVFormatContext *pFormat = nullptr;
    if (avformat_alloc_output_context2(&pFormat, nullptr, strMuxer.c_str(), strPath.c_str()) < 0)
    {
        return false;
    }
    for (const SOURCE_S &st : vecSources)
    {
        Describe(avformat_new_stream(pFormat, nullptr), st);
    }
    bool bDone =
        avio_open(&pFormat->pb, strPath.c_str(), AVIO_FLAG_WRITE) >= 0 && avformat_write_header(pFormat, nullptr) >= 0;
    if (bDone)
    {
        for (const auto &[fTime, s32Stream, u32No] : Schedule(vecSources))
        {
            bDone = bDone && WriteFrame(pFormat, s32Stream, vecSources[static_cast<size_t>(s32Stream)], u32No);
        }
        bDone = av_write_trailer(pFormat) == 0 && bDone;
    }
    avio_closep(&pFormat->pb);
    avformat_free_context(pFormat);
    return bDone;
}

void TEST_WriteAac(const std::string &strPath)
{
    std::string strBytes;
    for (const TEST_FRAME_S &stFrame : TEST_EncodeAac())
    {
        strBytes.append(stFrame.vecData.begin(), stFrame.vecData.end());
    }
    TEST_Touch(strPath, strBytes);
}

bool GOT_S::IsUntouched() const
{
    const GOT_S stFresh;
    return pu8Data == stFresh.pu8Data && u32Size == stFresh.u32Size && u64Pts == stFresh.u64Pts &&
           bKey == stFresh.bKey && bVideo == stFresh.bVideo;
}

std::vector<uint8_t> GOT_S::Bytes() const
{
    return std::vector<uint8_t>(pu8Data, pu8Data + u32Size);
}

GOT_S TEST_Get(void *pReader)
{
    GOT_S st;
    st.s32Ret = FFMUXER_ReadGetFrame(pReader, &st.pu8Data, &st.u32Size, &st.u64Pts, &st.bKey, &st.bVideo);
    return st;
}

READ_S TEST_ReadAll(void *pReader, size_t u32Most)
{
    READ_S stRead;
    while (stRead.vecFrames.size() < u32Most)
    {
        const GOT_S stGot = TEST_Get(pReader);
        if (stGot.s32Ret != 0)
        {
            EXPECT_TRUE(stGot.IsUntouched());
            stRead.s32End = stGot.s32Ret;
            break;
        }
        TEST_PACKET_S st;
        st.s32Stream = stGot.bVideo ? 1 : 0;
        st.s64Pts = static_cast<int64_t>(stGot.u64Pts);
        st.bKey = stGot.bKey;
        st.vecBytes = stGot.Bytes();
        stRead.vecFrames.push_back(st);
        EXPECT_EQ(0, FFMUXER_ReadReleaseFrame(pReader, stGot.pu8Data));
    }
    return stRead;
}

void DEMUXER_TEST::SetUp()
{
    FAKE_PLATFORM_Reset();
    FFMPEG_CALLS_Reset();
    m_s32Level = av_log_get_level();
    av_log_set_level(AV_LOG_QUIET); // FFmpeg has much to say about damaged files
}

void DEMUXER_TEST::TearDown()
{
    if (m_pReader != nullptr)
    {
        Close();
    }
    FFMPEG_CALLS_Reset();
    av_log_set_level(m_s32Level);
}

std::string DEMUXER_TEST::Path(const std::string &strName) const
{
    return m_dir.strPath + "/" + strName;
}

void DEMUXER_TEST::Make(const std::string &strMuxer, const std::vector<SOURCE_S> &vecSources)
{
    ASSERT_TRUE(TEST_WriteMedia(Path(), strMuxer, vecSources)) << strMuxer;
}

void DEMUXER_TEST::Open(QN_FILE_FMT_E enFormat)
{
    ASSERT_EQ(nullptr, m_pReader);
    m_pReader = FFMUXER_ReadOpen(nullptr, Path().c_str(), enFormat);
    ASSERT_NE(nullptr, m_pReader) << enFormat;
}

void DEMUXER_TEST::MakeAndOpen(const CONTAINER_S &stContainer, const std::vector<SOURCE_S> &vecSources)
{
    ASSERT_NO_FATAL_FAILURE(Make(stContainer.pszMuxer, vecSources));
    ASSERT_NO_FATAL_FAILURE(Open(stContainer.enFormat));
}

void DEMUXER_TEST::Close()
{
    EXPECT_EQ(0, FFMUXER_ReadClose(m_pReader));
    m_pReader = nullptr;
}

void DEMUXER_TEST::ExpectOneLine(const std::string &strPrinted, int32_t s32Level, const std::string &strFunc,
                                 const std::string &strText)
{
    const std::vector<FAKE_LOG_S> vecLogs = FAKE_PLATFORM_Logs();
    ASSERT_EQ(1u, vecLogs.size());
    EXPECT_EQ(s32Level, vecLogs[0].s32Level);
    EXPECT_EQ(strText, vecLogs[0].strText);
    const std::string &strPrefix = vecLogs[0].strPrefix;
    ASSERT_EQ(0u, strPrefix.find(strFunc + "["));
    const std::string strLine = strPrefix.substr(strFunc.size() + 1, strPrefix.find(']') - strFunc.size() - 1);
    EXPECT_LT(0, atoi(strLine.c_str()));
    EXPECT_EQ(strFunc + "[" + strLine + "] ", strPrefix);
    const std::string strTag = s32Level == 3 ? "[ERROR]" : "[INFO]";
    EXPECT_EQ(strTag + "[" + strFunc + ":" + strLine + "] " + strText + "\n", strPrinted);
}
