#include "photo_support.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

extern "C"
{
#include <libavcodec/avcodec.h>
}

#include "support/card.h"

uint8_t PLANE_S::At(int32_t s32X, int32_t s32Y) const
{
    return vecBytes.at(static_cast<size_t>(s32Y) * static_cast<size_t>(s32Width) + static_cast<size_t>(s32X));
}

int32_t PLANE_S::FarthestFrom(int32_t s32Value) const
{
    int32_t s32Farthest = vecBytes.empty() ? 255 : 0;
    for (const uint8_t u8Byte : vecBytes)
    {
        s32Farthest = std::max(s32Farthest, std::abs(u8Byte - s32Value));
    }
    return s32Farthest;
}

double PLANE_S::MeanDifference(const PLANE_S &stOther) const
{
    if (vecBytes.empty() || s32Width != stOther.s32Width || s32Height != stOther.s32Height)
    {
        return 255;
    }
    double fSum = 0;
    for (size_t i = 0; i < vecBytes.size(); ++i)
    {
        fSum += std::abs(vecBytes[i] - stOther.vecBytes[i]);
    }
    return fSum / static_cast<double>(vecBytes.size());
}

static PLANE_S CopyPlane(const AVFrame *pFrame, int32_t s32Plane)
{
    const int32_t s32Shift = s32Plane == 0 ? 0 : 1;
    PLANE_S st;
    st.s32Width = (pFrame->width + s32Shift) >> s32Shift;
    st.s32Height = (pFrame->height + s32Shift) >> s32Shift;
    for (int32_t y = 0; y < st.s32Height; ++y)
    {
        const uint8_t *pu8Row = pFrame->data[s32Plane] + y * pFrame->linesize[s32Plane];
        st.vecBytes.insert(st.vecBytes.end(), pu8Row, pu8Row + st.s32Width);
    }
    return st;
}

static void TakePicture(const AVFrame *pFrame, PICTURE_S &st)
{
    st.bDecoded = pFrame->format == AV_PIX_FMT_YUVJ420P || pFrame->format == AV_PIX_FMT_YUV420P;
    if (st.bDecoded)
    {
        st.bFullRange = pFrame->format == AV_PIX_FMT_YUVJ420P || pFrame->color_range == AVCOL_RANGE_JPEG;
        st.stY = CopyPlane(pFrame, 0);
        st.stU = CopyPlane(pFrame, 1);
        st.stV = CopyPlane(pFrame, 2);
    }
}

PICTURE_S DecodeJpeg(const std::string &strPath)
{
    PICTURE_S st;
    const std::string strBytes = TEST_ReadFile(strPath);
    const AVCodec *pDecoder = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
    AVCodecContext *pCodec = avcodec_alloc_context3(pDecoder);
    AVPacket *pPacket = av_packet_alloc();
    AVFrame *pFrame = av_frame_alloc();
    pCodec->thread_count = 1;
    if (!strBytes.empty() && av_new_packet(pPacket, static_cast<int>(strBytes.size())) == 0 &&
        avcodec_open2(pCodec, pDecoder, nullptr) == 0)
    {
        memcpy(pPacket->data, strBytes.data(), strBytes.size());
        if (avcodec_send_packet(pCodec, pPacket) == 0 && avcodec_receive_frame(pCodec, pFrame) == 0)
        {
            TakePicture(pFrame, st);
        }
    }
    av_frame_free(&pFrame);
    av_packet_free(&pPacket);
    avcodec_free_context(&pCodec);
    return st;
}

COLOUR_S ColourAt(const PICTURE_S &stPicture, int32_t s32X, int32_t s32Y)
{
    const double fY = stPicture.stY.At(s32X, s32Y);
    const double fU = stPicture.stU.At(s32X / 2, s32Y / 2) - 128.0;
    const double fV = stPicture.stV.At(s32X / 2, s32Y / 2) - 128.0;
    return {static_cast<int32_t>(std::lround(fY + 1.402 * fV)),
            static_cast<int32_t>(std::lround(fY - 0.344136 * fU - 0.714136 * fV)),
            static_cast<int32_t>(std::lround(fY + 1.772 * fU))};
}

bool IsNear(const COLOUR_S &stColour, const COLOUR_S &stOther, int32_t s32Tolerance)
{
    return std::abs(stColour.s32Red - stOther.s32Red) <= s32Tolerance &&
           std::abs(stColour.s32Green - stOther.s32Green) <= s32Tolerance &&
           std::abs(stColour.s32Blue - stOther.s32Blue) <= s32Tolerance;
}

std::vector<int32_t> OpenDescriptors()
{
    std::vector<int32_t> vecOpen;
    for (const std::string &strName : TEST_List("/proc/self/fd"))
    {
        const int32_t s32Fd = atoi(strName.c_str());
        if (fcntl(s32Fd, F_GETFD) >= 0) // the listing's own descriptor is closed again
        {
            vecOpen.push_back(s32Fd);
        }
    }
    return vecOpen;
}

std::vector<DESCRIPTOR_S> DescriptorsOf(const std::string &strPath)
{
    std::vector<DESCRIPTOR_S> vecFound;
    for (const int32_t s32Fd : OpenDescriptors())
    {
        char szTarget[PATH_MAX] = "";
        const std::string strLink = "/proc/self/fd/" + std::to_string(s32Fd);
        if (readlink(strLink.c_str(), szTarget, sizeof(szTarget) - 1) > 0 && strPath == szTarget)
        {
            vecFound.push_back({s32Fd, (fcntl(s32Fd, F_GETFD) & FD_CLOEXEC) != 0});
        }
    }
    return vecFound;
}
