// Still pictures from I420 (Y, U and V planes, full range), through FFmpeg's MJPEG encoder.
// Threads: any, at the same time on different paths. Locks: none. Not here: packed RGB (jpeg_rgb.cpp).

#include "libquarrin/media.h"

#include <cerrno>
#include <cstring>

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

#include "media/error_text.h"
#include "storage/new_file.h"
#include "util/log.h"

namespace libquarrin
{

constexpr int FRAME_ALIGN = 32; // bytes; what FFmpeg's vector code likes
constexpr char LOG_TAG[] = "FFMUXER_SaveYuvToJpeg";

// What one call works with. Everything in it is owned, except the stream, which is the context's.
struct PICTURE_WRITER_S
{
    AVFormatContext *pFormat = nullptr;
    AVCodecContext *pCodec = nullptr;
    AVStream *pStream = nullptr;
    AVFrame *pFrame = nullptr;
    AVPacket *pPacket = nullptr;
    int32_t s32Ret = 0; ///< result of the latest FFmpeg call that has one
};

static tagFF_ERROR_TEXT_S ErrorText(int32_t s32Error)
{
    return QN_FF_ErrorText(s32Error, 64); // promised with half the room of the reader and the writer
}

static bool OpenEncoder(PICTURE_WRITER_S &st, int32_t s32Width, int32_t s32Height)
{
    const AVCodec *pEncoder = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (pEncoder == nullptr)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Codec MJPEG not found");
        return false;
    }
    st.pCodec = avcodec_alloc_context3(pEncoder);
    if (st.pCodec == nullptr)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Alloc codec context failed");
        return false;
    }
    st.pCodec->codec_type = AVMEDIA_TYPE_VIDEO;
    st.pCodec->width = s32Width;
    st.pCodec->height = s32Height;
    st.pCodec->pix_fmt = AV_PIX_FMT_YUVJ420P;
    st.pCodec->time_base = AVRational{1, 25};
    st.s32Ret = avcodec_open2(st.pCodec, pEncoder, nullptr);
    if (st.s32Ret < 0)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Open codec failed: %s", ErrorText(st.s32Ret).szText);
        return false;
    }
    return true;
}

// Copies the planes into the frame, whose rows are longer than theirs.
static void CopyPicture(AVFrame *pFrame, const uint8_t *pu8Yuv)
{
    const size_t u32Width = static_cast<size_t>(pFrame->width);
    const size_t u32Height = static_cast<size_t>(pFrame->height);
    for (size_t i = 0; i < u32Height; ++i)
    {
        memcpy(pFrame->data[0] + i * static_cast<size_t>(pFrame->linesize[0]), pu8Yuv + i * u32Width, u32Width);
    }
    // Kept: a picture of one row has no chroma row, and the frame's stays as it was allocated.
    const size_t u32ChromaRows = u32Height > 1 ? u32Height / 2 : 0;
    const uint8_t *pu8U = pu8Yuv + u32Width * u32Height;
    const uint8_t *pu8V = pu8Yuv + u32Width * u32Height * 5 / 4;
    for (size_t i = 0; i < u32ChromaRows; ++i)
    {
        const size_t u32Offset = i * u32Width / 2;
        memcpy(pFrame->data[1] + i * static_cast<size_t>(pFrame->linesize[1]), pu8U + u32Offset, u32Width / 2);
        memcpy(pFrame->data[2] + i * static_cast<size_t>(pFrame->linesize[2]), pu8V + u32Offset, u32Width / 2);
    }
}

static bool MakeFrame(PICTURE_WRITER_S &st, const uint8_t *pu8Yuv)
{
    st.pFrame = av_frame_alloc();
    if (st.pFrame == nullptr)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Alloc frame failed");
        return false;
    }
    st.pFrame->format = st.pCodec->pix_fmt;
    st.pFrame->width = st.pCodec->width;
    st.pFrame->height = st.pCodec->height;
    st.s32Ret = av_frame_get_buffer(st.pFrame, FRAME_ALIGN);
    if (st.s32Ret < 0)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Get frame buffer failed: %s", ErrorText(st.s32Ret).szText);
        return false;
    }
    CopyPicture(st.pFrame, pu8Yuv);
    return true;
}

static bool AddStream(PICTURE_WRITER_S &st)
{
    st.pStream = avformat_new_stream(st.pFormat, nullptr);
    if (st.pStream == nullptr)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Create stream failed");
        return false;
    }
    st.pStream->time_base = st.pCodec->time_base;
    st.s32Ret = avcodec_parameters_from_context(st.pStream->codecpar, st.pCodec);
    if (st.s32Ret < 0)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Create stream failed"); // out of memory for the encoder's extradata
        return false;
    }
    return true;
}

static bool OpenFile(PICTURE_WRITER_S &st, const char *pszPath)
{
    // What cannot be taken away is not opened. FFmpeg's file protocol opens close-on-exec.
    st.s32Ret = QN_NEWFILE_MakeWay(pszPath) ? avio_open(&st.pFormat->pb, pszPath, AVIO_FLAG_WRITE) : AVERROR(EPERM);
    if (st.s32Ret < 0)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Open output failed: %s", ErrorText(st.s32Ret).szText);
        return false;
    }
    st.s32Ret = avformat_write_header(st.pFormat, nullptr);
    if (st.s32Ret < 0)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Write header failed: %s", ErrorText(st.s32Ret).szText);
        return false;
    }
    return true;
}

static bool WritePacket(PICTURE_WRITER_S &st)
{
    av_packet_rescale_ts(st.pPacket, st.pCodec->time_base, st.pStream->time_base);
    st.pPacket->stream_index = st.pStream->index;
    st.s32Ret = av_interleaved_write_frame(st.pFormat, st.pPacket);
    av_packet_unref(st.pPacket);
    if (st.s32Ret < 0)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Write frame failed: %s", ErrorText(st.s32Ret).szText);
        return false;
    }
    return true;
}

// Kept: the encoder is not told that the stream ends. It holds nothing back, so one picture in gives one packet out.
static bool Encode(PICTURE_WRITER_S &st)
{
    st.pPacket = av_packet_alloc();
    if (st.pPacket == nullptr)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Alloc packet failed");
        return false;
    }
    st.s32Ret = avcodec_send_frame(st.pCodec, st.pFrame);
    if (st.s32Ret < 0)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Send frame failed: %s", ErrorText(st.s32Ret).szText);
        return false;
    }
    while ((st.s32Ret = avcodec_receive_packet(st.pCodec, st.pPacket)) >= 0)
    {
        if (!WritePacket(st))
        {
            return false;
        }
    }
    if (st.s32Ret != AVERROR(EAGAIN) && st.s32Ret != AVERROR_EOF)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Receive packet failed: %s", ErrorText(st.s32Ret).szText);
        return false;
    }
    return true;
}

static bool FinishFile(PICTURE_WRITER_S &st)
{
    st.s32Ret = av_write_trailer(st.pFormat);
    if (st.s32Ret < 0)
    {
        QN_LOG_ERROR_AS(LOG_TAG, "Write trailer failed: %s", ErrorText(st.s32Ret).szText);
        return false;
    }
    return true;
}

// Every member may be null.
static void Release(PICTURE_WRITER_S &st)
{
    av_packet_free(&st.pPacket);
    avcodec_free_context(&st.pCodec);
    if (st.pFormat != nullptr)
    {
        (void)avio_closep(&st.pFormat->pb); // the trailer has been flushed, and a failed write has been seen there
    }
    avformat_free_context(st.pFormat);
    av_frame_free(&st.pFrame);
}

int32_t FFMUXER_SaveYuvToJpeg(const char *pszPath, const uint8_t *pu8Yuv, int32_t s32Width, int32_t s32Height)
{
    if (pu8Yuv == nullptr)
    {
        return -1;
    }
    const char *pszFile = pszPath != nullptr ? pszPath : ""; // FFmpeg takes no null path; an empty one does not open
    PICTURE_WRITER_S st;
    st.s32Ret = avformat_alloc_output_context2(&st.pFormat, nullptr, "mjpeg", pszFile);
    if (st.s32Ret < 0)
    {
        QN_LOG_ERROR("Create format context failed: %s", ErrorText(st.s32Ret).szText);
        return -1;
    }
    const bool bDone = OpenEncoder(st, s32Width, s32Height) && MakeFrame(st, pu8Yuv) && AddStream(st) &&
                       OpenFile(st, pszFile) && Encode(st) && FinishFile(st);
    Release(st);
    // Kept: a failure without a code of FFmpeg's returns what the call before it returned, which is no negative value.
    return bDone ? 0 : st.s32Ret;
}

} // namespace libquarrin
