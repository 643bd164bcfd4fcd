// Short real streams, encoded once per process, and media files read back packet by packet.
#ifndef QUARRIN_TESTS_STREAMS_H
#define QUARRIN_TESTS_STREAMS_H

#include <cstdint>
#include <string>
#include <vector>

#include "libquarrin.h"

/// One encoded frame.
struct TEST_FRAME_S
{
    std::vector<uint8_t> vecData; ///< video: an Annex B access unit, four-byte start codes only
    bool bKey = false;            ///< video: the frame begins with its parameter sets
};

/// Video without B-frames: a moving gradient with a key frame every s32Gop frames, parameter sets on each of them.
/// Width and height are even and 64 at least.
const std::vector<TEST_FRAME_S> &TEST_EncodeH264(int32_t s32Width = 64, int32_t s32Height = 64, int32_t s32Fps = 25,
                                                 int32_t s32Gop = 5, int32_t s32Frames = 15);
const std::vector<TEST_FRAME_S> &TEST_EncodeH265(int32_t s32Width = 64, int32_t s32Height = 64, int32_t s32Fps = 25,
                                                 int32_t s32Gop = 5, int32_t s32Frames = 15);

/// A tone, 1024 samples a frame, every frame a key frame; with an ADTS header on each frame, or without.
const std::vector<TEST_FRAME_S> &TEST_EncodeAac(int32_t s32SampleRate = 48000, int32_t s32Channels = 2,
                                                int32_t s32Frames = 20, bool bAdts = true);

/// Video parameters for the frames: size, rate, time base 1/1000, parameter sets of the first frame (H.265: VPS and SPS
/// in stSps). The sets point into the frames, which stay as long as the process.
libquarrin::tagQN_STREAM_PARAM_S TEST_VideoParam(libquarrin::QN_CODEC_TYPE_E enCodec,
                                                 const std::vector<TEST_FRAME_S> &vecFrames, int32_t s32Width = 64,
                                                 int32_t s32Height = 64, int32_t s32Fps = 25);

/// AAC parameters, time base 1/1000.
libquarrin::tagQN_STREAM_PARAM_S TEST_AudioParam(int32_t s32SampleRate = 48000, int32_t s32Channels = 2);

/// One packet of a file.
struct TEST_PACKET_S
{
    int32_t s32Stream = 0;
    int64_t s64Pts = 0; ///< in the time base of its stream
    int64_t s64Dts = 0;
    bool bKey = false;
    int32_t s32Size = 0;
    std::vector<uint8_t> vecBytes;
};

/// One stream of a file.
struct TEST_MEDIA_STREAM_S
{
    bool bVideo = false;
    bool bAudio = false;
    int32_t s32CodecId = 0; ///< AVCodecID
    int32_t s32Width = 0;
    int32_t s32Height = 0;
    int32_t s32Format = -1; ///< AVPixelFormat or AVSampleFormat
    int32_t s32SampleRate = 0;
    int32_t s32Channels = 0;
    uint64_t u64ChannelMask = 0; ///< of a native layout
    int64_t s64BitRate = 0;
    std::vector<uint8_t> vecExtradata;
    int32_t s32TimeBaseNum = 0;
    int32_t s32TimeBaseDen = 0;
    int32_t s32Decoded = 0; ///< frames that libavcodec decodes without an error
    int32_t s32DecodeErrors = 0;
};

/// A file.
struct TEST_MEDIA_S
{
    bool bOpened = false;  ///< false: libavformat could not open it, nothing else is filled
    std::string strFormat; ///< name of the demuxer
    std::vector<TEST_MEDIA_STREAM_S> vecStreams;
    std::vector<TEST_PACKET_S> vecPackets; ///< in file order

    /// The packets of one stream.
    std::vector<TEST_PACKET_S> Of(int32_t s32Stream) const;
    /// Index of the first video or audio stream; -1 none.
    int32_t VideoStream() const;
    int32_t AudioStream() const;
};

/// Reads a whole file with libavformat. With bProbe as a player does: libavformat looks into the packets for what the
/// headers lack, and makes frames of them. Without it the headers and the packets are those of the file itself (MPEG-TS
/// has next to no headers). bDecode decodes every stream too.
TEST_MEDIA_S TEST_ReadMedia(const std::string &strPath, bool bProbe = true, bool bDecode = false);

#endif
