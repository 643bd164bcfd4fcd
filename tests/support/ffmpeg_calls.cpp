#include "support/ffmpeg_calls.h"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <utility>

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "support/call_limit.h"
#include "support/failing_new.h"

namespace
{

struct CALLS_STATE_S
{
    std::mutex mutex;
    std::vector<std::string> vecOrder;
    std::map<std::string, int32_t> mapFailures;
    std::map<std::string, std::function<void()>> mapLooks;
    FFMPEG_SEEK_S stSeek;
    std::string strFormatAsked;
    int32_t s32Paint = -1; // -1: none
};

CALLS_STATE_S &State()
{
    static CALLS_STATE_S *pState = new CALLS_STATE_S(); // outlives every thread of the process
    return *pState;
}

bool IsLibrary(const void *pCaller)
{
    Dl_info stInfo{};
    return dladdr(pCaller, &stInfo) != 0 && stInfo.dli_fname != nullptr &&
           strstr(stInfo.dli_fname, "libquarrin.so") != nullptr;
}

// Notes a call. True when it is to fail; *ps32Result is the result then.
bool Fails(const char *pszFunction, const void *pCaller, int32_t *ps32Result = nullptr)
{
    if (!IsLibrary(pCaller))
    {
        return false;
    }
    const FAKES_OWN_NEW own;
    const std::string strFunction = pszFunction;
    std::function<void()> fnLook;
    {
        const std::lock_guard<std::mutex> lock(State().mutex);
        State().vecOrder.push_back(strFunction);
        std::swap(fnLook, State().mapLooks[strFunction]);
    }
    if (fnLook)
    {
        fnLook();
    }
    const std::lock_guard<std::mutex> lock(State().mutex);
    const auto failure = State().mapFailures.find(strFunction);
    if (failure == State().mapFailures.end())
    {
        return false;
    }
    if (ps32Result != nullptr)
    {
        *ps32Result = failure->second;
    }
    State().mapFailures.erase(failure);
    return true;
}

// FFmpeg's own function behind the one here.
template <typename FUNCTION> FUNCTION *Real(FUNCTION *, const char *pszName)
{
    return reinterpret_cast<FUNCTION *>(dlsym(RTLD_NEXT, pszName));
}

} // namespace

void FFMPEG_CALLS_Reset()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().vecOrder.clear();
    State().mapFailures.clear();
    State().mapLooks.clear();
    State().stSeek = {};
    State().strFormatAsked.clear();
    State().s32Paint = -1;
}

void FFMPEG_CALLS_FailNext(const std::string &strFunction, int32_t s32Result)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().mapFailures[strFunction] = s32Result;
}

void FFMPEG_CALLS_LookAt(const std::string &strFunction, std::function<void()> fnLook)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().mapLooks[strFunction] = std::move(fnLook);
}

void FFMPEG_CALLS_PaintFrames(uint8_t u8Byte)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().s32Paint = u8Byte;
}

int32_t FFMPEG_CALLS_Count(const std::string &strFunction)
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    return static_cast<int32_t>(std::count(State().vecOrder.begin(), State().vecOrder.end(), strFunction));
}

std::vector<std::string> FFMPEG_CALLS_Order()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    return State().vecOrder;
}

FFMPEG_SEEK_S FFMPEG_CALLS_Seek()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    return State().stSeek;
}

std::string FFMPEG_CALLS_FormatAsked()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    return State().strFormatAsked;
}

extern "C"
{

    AVFormatContext *avformat_alloc_context(void)
    {
        static const auto pfnReal = Real(&avformat_alloc_context, "avformat_alloc_context");
        return Fails("avformat_alloc_context", __builtin_return_address(0)) ? nullptr : pfnReal();
    }

    const AVInputFormat *av_find_input_format(const char *pszName)
    {
        static const auto pfnReal = Real(&av_find_input_format, "av_find_input_format");
        if (IsLibrary(__builtin_return_address(0)))
        {
            const FAKES_OWN_NEW own;
            const std::lock_guard<std::mutex> lock(State().mutex);
            State().strFormatAsked = pszName;
        }
        return Fails("av_find_input_format", __builtin_return_address(0)) ? nullptr : pfnReal(pszName);
    }

    int avformat_open_input(AVFormatContext **ppContext, const char *pszUrl, const AVInputFormat *pFormat,
                            AVDictionary **ppOptions)
    {
        static const auto pfnReal = Real(&avformat_open_input, "avformat_open_input");
        const CALL_LIMIT limit("avformat_open_input");
        (void)Fails("avformat_open_input", __builtin_return_address(0)); // counted alone
        return pfnReal(ppContext, pszUrl, pFormat, ppOptions);
    }

    int avformat_find_stream_info(AVFormatContext *pContext, AVDictionary **ppOptions)
    {
        static const auto pfnReal = Real(&avformat_find_stream_info, "avformat_find_stream_info");
        const CALL_LIMIT limit("avformat_find_stream_info");
        int32_t s32Result = 0;
        return Fails("avformat_find_stream_info", __builtin_return_address(0), &s32Result)
                   ? s32Result
                   : pfnReal(pContext, ppOptions);
    }

    void av_dump_format(AVFormatContext *pContext, int s32Index, const char *pszUrl, int s32IsOutput)
    {
        static const auto pfnReal = Real(&av_dump_format, "av_dump_format");
        (void)Fails("av_dump_format", __builtin_return_address(0)); // counted alone
        pfnReal(pContext, s32Index, pszUrl, s32IsOutput);
    }

    void avformat_close_input(AVFormatContext **ppContext)
    {
        static const auto pfnReal = Real(&avformat_close_input, "avformat_close_input");
        const CALL_LIMIT limit("avformat_close_input");
        (void)Fails("avformat_close_input", __builtin_return_address(0)); // counted alone
        pfnReal(ppContext);
    }

    AVPacket *av_packet_alloc(void)
    {
        static const auto pfnReal = Real(&av_packet_alloc, "av_packet_alloc");
        return Fails("av_packet_alloc", __builtin_return_address(0)) ? nullptr : pfnReal();
    }

    int av_read_frame(AVFormatContext *pContext, AVPacket *pPacket)
    {
        static const auto pfnReal = Real(&av_read_frame, "av_read_frame");
        const CALL_LIMIT limit("av_read_frame");
        int32_t s32Result = 0;
        return Fails("av_read_frame", __builtin_return_address(0), &s32Result) ? s32Result : pfnReal(pContext, pPacket);
    }

    int av_seek_frame(AVFormatContext *pContext, int s32Stream, int64_t s64Time, int s32Flags)
    {
        static const auto pfnReal = Real(&av_seek_frame, "av_seek_frame");
        const CALL_LIMIT limit("av_seek_frame");
        int32_t s32Result = 0;
        const bool bLibrary = IsLibrary(__builtin_return_address(0));
        if (!Fails("av_seek_frame", __builtin_return_address(0), &s32Result))
        {
            s32Result = pfnReal(pContext, s32Stream, s64Time, s32Flags);
        }
        if (bLibrary)
        {
            const std::lock_guard<std::mutex> lock(State().mutex);
            State().stSeek = {s32Stream, s64Time, s32Flags, s32Result};
        }
        return s32Result;
    }

    int avformat_flush(AVFormatContext *pContext)
    {
        static const auto pfnReal = Real(&avformat_flush, "avformat_flush");
        int32_t s32Result = 0;
        return Fails("avformat_flush", __builtin_return_address(0), &s32Result) ? s32Result : pfnReal(pContext);
    }

    int avformat_alloc_output_context2(AVFormatContext **ppContext, const AVOutputFormat *pFormat,
                                       const char *pszFormat, const char *pszFile)
    {
        static const auto pfnReal = Real(&avformat_alloc_output_context2, "avformat_alloc_output_context2");
        int32_t s32Result = 0;
        return Fails("avformat_alloc_output_context2", __builtin_return_address(0), &s32Result)
                   ? s32Result
                   : pfnReal(ppContext, pFormat, pszFormat, pszFile);
    }

    const AVCodec *avcodec_find_encoder(enum AVCodecID enId)
    {
        static const auto pfnReal = Real(&avcodec_find_encoder, "avcodec_find_encoder");
        return Fails("avcodec_find_encoder", __builtin_return_address(0)) ? nullptr : pfnReal(enId);
    }

    AVCodecContext *avcodec_alloc_context3(const AVCodec *pCodec)
    {
        static const auto pfnReal = Real(&avcodec_alloc_context3, "avcodec_alloc_context3");
        return Fails("avcodec_alloc_context3", __builtin_return_address(0)) ? nullptr : pfnReal(pCodec);
    }

    int avcodec_open2(AVCodecContext *pContext, const AVCodec *pCodec, AVDictionary **ppOptions)
    {
        static const auto pfnReal = Real(&avcodec_open2, "avcodec_open2");
        int32_t s32Result = 0;
        return Fails("avcodec_open2", __builtin_return_address(0), &s32Result) ? s32Result
                                                                               : pfnReal(pContext, pCodec, ppOptions);
    }

    AVFrame *av_frame_alloc(void)
    {
        static const auto pfnReal = Real(&av_frame_alloc, "av_frame_alloc");
        return Fails("av_frame_alloc", __builtin_return_address(0)) ? nullptr : pfnReal();
    }

    int av_frame_get_buffer(AVFrame *pFrame, int s32Align)
    {
        static const auto pfnReal = Real(&av_frame_get_buffer, "av_frame_get_buffer");
        const bool bLibrary = IsLibrary(__builtin_return_address(0));
        int32_t s32Result = 0;
        if (Fails("av_frame_get_buffer", __builtin_return_address(0), &s32Result))
        {
            return s32Result;
        }
        s32Result = pfnReal(pFrame, s32Align);
        const std::lock_guard<std::mutex> lock(State().mutex);
        for (int32_t i = 0; bLibrary && State().s32Paint >= 0 && i < AV_NUM_DATA_POINTERS && pFrame->buf[i]; ++i)
        {
            memset(pFrame->buf[i]->data, State().s32Paint, pFrame->buf[i]->size);
        }
        return s32Result;
    }

    AVStream *avformat_new_stream(AVFormatContext *pContext, const AVCodec *pCodec)
    {
        static const auto pfnReal = Real(&avformat_new_stream, "avformat_new_stream");
        return Fails("avformat_new_stream", __builtin_return_address(0)) ? nullptr : pfnReal(pContext, pCodec);
    }

    int avcodec_parameters_from_context(AVCodecParameters *pParameters, const AVCodecContext *pContext)
    {
        static const auto pfnReal = Real(&avcodec_parameters_from_context, "avcodec_parameters_from_context");
        int32_t s32Result = 0;
        return Fails("avcodec_parameters_from_context", __builtin_return_address(0), &s32Result)
                   ? s32Result
                   : pfnReal(pParameters, pContext);
    }

    int avio_open(AVIOContext **ppIo, const char *pszUrl, int s32Flags)
    {
        static const auto pfnReal = Real(&avio_open, "avio_open");
        int32_t s32Result = 0;
        return Fails("avio_open", __builtin_return_address(0), &s32Result) ? s32Result
                                                                           : pfnReal(ppIo, pszUrl, s32Flags);
    }

    int avformat_write_header(AVFormatContext *pContext, AVDictionary **ppOptions)
    {
        static const auto pfnReal = Real(&avformat_write_header, "avformat_write_header");
        const CALL_LIMIT limit("avformat_write_header");
        int32_t s32Result = 0;
        return Fails("avformat_write_header", __builtin_return_address(0), &s32Result) ? s32Result
                                                                                       : pfnReal(pContext, ppOptions);
    }

    int avcodec_send_frame(AVCodecContext *pContext, const AVFrame *pFrame)
    {
        static const auto pfnReal = Real(&avcodec_send_frame, "avcodec_send_frame");
        int32_t s32Result = 0;
        return Fails("avcodec_send_frame", __builtin_return_address(0), &s32Result) ? s32Result
                                                                                    : pfnReal(pContext, pFrame);
    }

    int avcodec_receive_packet(AVCodecContext *pContext, AVPacket *pPacket)
    {
        static const auto pfnReal = Real(&avcodec_receive_packet, "avcodec_receive_packet");
        int32_t s32Result = 0;
        return Fails("avcodec_receive_packet", __builtin_return_address(0), &s32Result) ? s32Result
                                                                                        : pfnReal(pContext, pPacket);
    }

    int av_interleaved_write_frame(AVFormatContext *pContext, AVPacket *pPacket)
    {
        static const auto pfnReal = Real(&av_interleaved_write_frame, "av_interleaved_write_frame");
        const CALL_LIMIT limit("av_interleaved_write_frame");
        int32_t s32Result = 0;
        return Fails("av_interleaved_write_frame", __builtin_return_address(0), &s32Result)
                   ? s32Result
                   : pfnReal(pContext, pPacket);
    }

    int av_write_trailer(AVFormatContext *pContext)
    {
        static const auto pfnReal = Real(&av_write_trailer, "av_write_trailer");
        const CALL_LIMIT limit("av_write_trailer");
        int32_t s32Result = 0;
        return Fails("av_write_trailer", __builtin_return_address(0), &s32Result) ? s32Result : pfnReal(pContext);
    }

    int avio_closep(AVIOContext **ppIo)
    {
        static const auto pfnReal = Real(&avio_closep, "avio_closep");
        const CALL_LIMIT limit("avio_closep");
        int32_t s32Result = 0;
        return Fails("avio_closep", __builtin_return_address(0), &s32Result) ? s32Result : pfnReal(ppIo);
    }

} // extern "C"
