#include "support/streams.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <tuple>

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

using namespace libquarrin;

using FRAMES = std::vector<TEST_FRAME_S>;

// A test without its streams proves nothing, so a machine without the encoders stops it at once.
static void Need(bool bHolds, const char *pszWhat)
{
    if (!bHolds)
    {
        fprintf(stderr, "test streams: %s\n", pszWhat);
        abort();
    }
}

// Writes every NAL unit with a four-byte start code; encoders write some with three.
static std::vector<uint8_t> FourByteStartCodes(const uint8_t *pu8Data, size_t u32Len)
{
    std::vector<uint8_t> vecOut;
    size_t i = 0;
    while (i < u32Len)
    {
        if (i + 3 <= u32Len && pu8Data[i] == 0 && pu8Data[i + 1] == 0 && pu8Data[i + 2] == 1)
        {
            while (!vecOut.empty() && vecOut.back() == 0)
            {
                vecOut.pop_back(); // the zero of a four-byte code; a NAL unit never ends with one
            }
            vecOut.insert(vecOut.end(), {0, 0, 0, 1});
            i += 3;
            continue;
        }
        vecOut.push_back(pu8Data[i]);
        ++i;
    }
    return vecOut;
}

static std::vector<uint8_t> WithAdtsHeader(const std::vector<uint8_t> &vecRaw, int32_t s32SampleRate,
                                           int32_t s32Channels)
{
    const int32_t as32Rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000};
    uint32_t u32Index = 0;
    while (u32Index < 12 && as32Rates[u32Index] != s32SampleRate)
    {
        ++u32Index;
    }
    Need(u32Index < 12, "no ADTS index for the sample rate");
    const uint32_t u32Channels = static_cast<uint32_t>(s32Channels);
    const uint32_t u32Len = static_cast<uint32_t>(vecRaw.size()) + 7;
    const uint32_t au32Header[7] = {0xff, // ISO/IEC 13818-7, 6.2: sync word, MPEG-4, no CRC, low complexity profile
                                    0xf1,
                                    1u << 6 | u32Index << 2 | u32Channels >> 2,
                                    (u32Channels & 3) << 6 | u32Len >> 11,
                                    u32Len >> 3,
                                    (u32Len & 7) << 5 | 0x1f,
                                    0xfc};
    std::vector<uint8_t> vecOut;
    for (uint32_t u32Byte : au32Header)
    {
        vecOut.push_back(static_cast<uint8_t>(u32Byte & 0xff));
    }
    vecOut.insert(vecOut.end(), vecRaw.begin(), vecRaw.end());
    return vecOut;
}

// Takes every packet that is ready.
static void Drain(AVCodecContext *pCodec, FRAMES &vecFrames)
{
    AVPacket *pPacket = av_packet_alloc();
    while (avcodec_receive_packet(pCodec, pPacket) == 0)
    {
        TEST_FRAME_S stFrame;
        stFrame.bKey = (pPacket->flags & AV_PKT_FLAG_KEY) != 0;
        stFrame.vecData.assign(pPacket->data, pPacket->data + pPacket->size);
        vecFrames.push_back(stFrame);
        av_packet_unref(pPacket);
    }
    av_packet_free(&pPacket);
}

static void DrawGradient(AVFrame *pFrame, int32_t s32No)
{
    for (int32_t y = 0; y < pFrame->height; ++y)
    {
        for (int32_t x = 0; x < pFrame->width; ++x)
        {
            pFrame->data[0][y * pFrame->linesize[0] + x] = static_cast<uint8_t>(x * 2 + y + s32No * 5);
        }
    }
    for (int32_t y = 0; y < pFrame->height / 2; ++y)
    {
        for (int32_t x = 0; x < pFrame->width / 2; ++x)
        {
            pFrame->data[1][y * pFrame->linesize[1] + x] = static_cast<uint8_t>(128 + y + s32No);
            pFrame->data[2][y * pFrame->linesize[2] + x] = static_cast<uint8_t>(64 + x + s32No);
        }
    }
}

static AVCodecContext *OpenVideo(bool bH265, int32_t s32Width, int32_t s32Height, int32_t s32Fps, int32_t s32Gop)
{
    const AVCodec *pEncoder = avcodec_find_encoder_by_name(bH265 ? "libx265" : "libx264");
    Need(pEncoder != nullptr, bH265 ? "libavcodec has no libx265" : "libavcodec has no libx264");
    AVCodecContext *pCodec = avcodec_alloc_context3(pEncoder);
    pCodec->width = s32Width;
    pCodec->height = s32Height;
    pCodec->pix_fmt = AV_PIX_FMT_YUV420P;
    pCodec->time_base = AVRational{1, s32Fps};
    pCodec->framerate = AVRational{s32Fps, 1};
    pCodec->gop_size = s32Gop;
    pCodec->max_b_frames = 0;
    pCodec->thread_count = 1;
    av_opt_set(pCodec->priv_data, "preset", "ultrafast", 0);
    av_opt_set(pCodec->priv_data, "tune", "zerolatency", 0);
    const std::string strGop = "keyint=" + std::to_string(s32Gop) + ":min-keyint=" + std::to_string(s32Gop);
    if (bH265)
    {
        const std::string strMore = ":scenecut=0:bframes=0:repeat-headers=1:pools=none:frame-threads=1:log-level=none";
        av_opt_set(pCodec->priv_data, "x265-params", (strGop + strMore).c_str(), 0);
    }
    else
    {
        av_opt_set(pCodec->priv_data, "x264-params", (strGop + ":scenecut=0:repeat-headers=1").c_str(), 0);
    }
    Need(avcodec_open2(pCodec, pEncoder, nullptr) == 0, "the video encoder does not open");
    return pCodec;
}

static FRAMES EncodeVideo(bool bH265, int32_t s32Width, int32_t s32Height, int32_t s32Fps, int32_t s32Gop,
                          int32_t s32Frames)
{
    FRAMES vecFrames;
    AVCodecContext *pCodec = OpenVideo(bH265, s32Width, s32Height, s32Fps, s32Gop);
    AVFrame *pFrame = av_frame_alloc();
    pFrame->format = AV_PIX_FMT_YUV420P;
    pFrame->width = s32Width;
    pFrame->height = s32Height;
    Need(av_frame_get_buffer(pFrame, 0) == 0, "no memory for a picture");
    for (int32_t i = 0; i < s32Frames; ++i)
    {
        Need(av_frame_make_writable(pFrame) == 0, "no memory for a picture");
        DrawGradient(pFrame, i);
        pFrame->pts = i;
        Need(avcodec_send_frame(pCodec, pFrame) == 0, "the video encoder takes no frame");
        Drain(pCodec, vecFrames);
    }
    avcodec_send_frame(pCodec, nullptr);
    Drain(pCodec, vecFrames);
    av_frame_free(&pFrame);
    avcodec_free_context(&pCodec);
    Need(vecFrames.size() == static_cast<size_t>(s32Frames), "the video encoder lost a frame");
    for (TEST_FRAME_S &stFrame : vecFrames)
    {
        stFrame.vecData = FourByteStartCodes(stFrame.vecData.data(), stFrame.vecData.size());
    }
    return vecFrames;
}

static FRAMES EncodeAac(int32_t s32SampleRate, int32_t s32Channels, int32_t s32Frames)
{
    FRAMES vecFrames;
    const AVCodec *pEncoder = avcodec_find_encoder_by_name("aac");
    Need(pEncoder != nullptr, "libavcodec has no AAC encoder");
    AVCodecContext *pCodec = avcodec_alloc_context3(pEncoder);
    pCodec->sample_fmt = AV_SAMPLE_FMT_FLTP;
    pCodec->sample_rate = s32SampleRate;
    pCodec->bit_rate = 64000;
    pCodec->time_base = AVRational{1, s32SampleRate};
    pCodec->thread_count = 1;
    av_channel_layout_default(&pCodec->ch_layout, s32Channels);
    Need(avcodec_open2(pCodec, pEncoder, nullptr) == 0, "the AAC encoder does not open");
    AVFrame *pFrame = av_frame_alloc();
    pFrame->format = AV_SAMPLE_FMT_FLTP;
    pFrame->nb_samples = 1024;
    pFrame->sample_rate = s32SampleRate;
    av_channel_layout_copy(&pFrame->ch_layout, &pCodec->ch_layout);
    Need(av_frame_get_buffer(pFrame, 0) == 0, "no memory for samples");
    for (int32_t i = 0; vecFrames.size() < static_cast<size_t>(s32Frames); ++i)
    {
        Need(av_frame_make_writable(pFrame) == 0, "no memory for samples");
        for (int32_t c = 0; c < s32Channels; ++c)
        {
            float *pf = reinterpret_cast<float *>(pFrame->data[c]);
            for (int32_t n = 0; n < 1024; ++n)
            {
                pf[n] = 0.3f * std::sin(440.0f * 6.2831853f * static_cast<float>(i * 1024 + n) /
                                        static_cast<float>(s32SampleRate));
            }
        }
        pFrame->pts = static_cast<int64_t>(i) * 1024;
        Need(avcodec_send_frame(pCodec, pFrame) == 0, "the AAC encoder takes no frame");
        Drain(pCodec, vecFrames);
    }
    av_frame_free(&pFrame);
    avcodec_free_context(&pCodec);
    for (TEST_FRAME_S &stFrame : vecFrames)
    {
        stFrame.bKey = true;
    }
    return vecFrames;
}

// The encoders chat at information level, and libx265 (release 3.5) keeps some of its parameters for good.
class ENCODING
{
public:
    ENCODING() : m_s32Level(av_log_get_level())
    {
        av_log_set_level(AV_LOG_ERROR);
#ifdef __SANITIZE_ADDRESS__
        __lsan_disable();
#endif
    }
    ~ENCODING()
    {
#ifdef __SANITIZE_ADDRESS__
        __lsan_enable();
#endif
        av_log_set_level(m_s32Level);
    }
    ENCODING(const ENCODING &) = delete;
    ENCODING &operator=(const ENCODING &) = delete;

private:
    int m_s32Level;
};

static std::mutex g_mutexCache;

static const FRAMES &CachedVideo(bool bH265, int32_t s32Width, int32_t s32Height, int32_t s32Fps, int32_t s32Gop,
                                 int32_t s32Frames)
{
    static std::map<std::tuple<bool, int32_t, int32_t, int32_t, int32_t, int32_t>, FRAMES> mapCache;
    const std::lock_guard<std::mutex> lock(g_mutexCache);
    FRAMES &vecFrames = mapCache[{bH265, s32Width, s32Height, s32Fps, s32Gop, s32Frames}];
    if (vecFrames.empty())
    {
        const ENCODING encoding;
        vecFrames = EncodeVideo(bH265, s32Width, s32Height, s32Fps, s32Gop, s32Frames);
    }
    return vecFrames;
}

const FRAMES &TEST_EncodeH264(int32_t s32Width, int32_t s32Height, int32_t s32Fps, int32_t s32Gop, int32_t s32Frames)
{
    return CachedVideo(false, s32Width, s32Height, s32Fps, s32Gop, s32Frames);
}

const FRAMES &TEST_EncodeH265(int32_t s32Width, int32_t s32Height, int32_t s32Fps, int32_t s32Gop, int32_t s32Frames)
{
    return CachedVideo(true, s32Width, s32Height, s32Fps, s32Gop, s32Frames);
}

const FRAMES &TEST_EncodeAac(int32_t s32SampleRate, int32_t s32Channels, int32_t s32Frames, bool bAdts)
{
    static std::map<std::tuple<int32_t, int32_t, int32_t, bool>, FRAMES> mapCache;
    const std::lock_guard<std::mutex> lock(g_mutexCache);
    FRAMES &vecFrames = mapCache[{s32SampleRate, s32Channels, s32Frames, bAdts}];
    if (vecFrames.empty())
    {
        const ENCODING encoding;
        vecFrames = EncodeAac(s32SampleRate, s32Channels, s32Frames);
        for (TEST_FRAME_S &stFrame : vecFrames)
        {
            stFrame.vecData = bAdts ? WithAdtsHeader(stFrame.vecData, s32SampleRate, s32Channels) : stFrame.vecData;
        }
    }
    return vecFrames;
}

// Offset and length of the units of one type; the frames have four-byte start codes only.
static tagQN_BYTES FindUnit(const TEST_FRAME_S &stFrame, bool bH265, int32_t s32Type)
{
    const std::vector<uint8_t> &vec = stFrame.vecData;
    size_t u32Begin = vec.size();
    size_t i = 0;
    for (; i + 5 <= vec.size(); ++i)
    {
        if (vec[i] != 0 || vec[i + 1] != 0 || vec[i + 2] != 0 || vec[i + 3] != 1)
        {
            continue;
        }
        if (u32Begin < vec.size())
        {
            break;
        }
        const int32_t s32Found = bH265 ? vec[i + 4] >> 1 & 63 : vec[i + 4] & 31;
        u32Begin = s32Found == s32Type ? i : u32Begin;
    }
    Need(u32Begin < vec.size(), "a key frame lacks a parameter set");
    return tagQN_BYTES{const_cast<uint8_t *>(vec.data()) + u32Begin, static_cast<uint32_t>(i - u32Begin)};
}

tagQN_STREAM_PARAM_S TEST_VideoParam(QN_CODEC_TYPE_E enCodec, const FRAMES &vecFrames, int32_t s32Width,
                                     int32_t s32Height, int32_t s32Fps)
{
    tagQN_STREAM_PARAM_S stParam{};
    stParam.bEnable = 1;
    stParam.enCodec = enCodec;
    stParam.u32Width = static_cast<uint32_t>(s32Width);
    stParam.u32Height = static_cast<uint32_t>(s32Height);
    stParam.u32Fps = static_cast<uint32_t>(s32Fps);
    stParam.u32BitRate = 500000;
    stParam.u32TimeBaseNum = 1;
    stParam.u32TimeBaseDen = 1000;
    if (enCodec == QN_CODEC_H265)
    {
        const tagQN_BYTES stVps = FindUnit(vecFrames[0], true, 32);
        const tagQN_BYTES stSps = FindUnit(vecFrames[0], true, 33);
        Need(stVps.pu8Data + stVps.u32Len == stSps.pu8Data, "VPS and SPS are not neighbours");
        stParam.stSps = tagQN_BYTES{stVps.pu8Data, stVps.u32Len + stSps.u32Len};
        stParam.stPps = FindUnit(vecFrames[0], true, 34);
    }
    else
    {
        stParam.stSps = FindUnit(vecFrames[0], false, 7);
        stParam.stPps = FindUnit(vecFrames[0], false, 8);
    }
    return stParam;
}

tagQN_STREAM_PARAM_S TEST_AudioParam(int32_t s32SampleRate, int32_t s32Channels)
{
    tagQN_STREAM_PARAM_S stParam{};
    stParam.bEnable = 1;
    stParam.enCodec = QN_CODEC_AAC;
    stParam.u32Width = static_cast<uint32_t>(s32SampleRate);
    stParam.u32Fps = static_cast<uint32_t>(s32Channels);
    stParam.u32TimeBaseNum = 1;
    stParam.u32TimeBaseDen = 1000;
    return stParam;
}
