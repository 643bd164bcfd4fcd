// Parameter records that a host fills, and the metadata that the reader fills.
#ifndef LIBQUARRIN_PARAMS_H
#define LIBQUARRIN_PARAMS_H

#include <string>

#include "libquarrin/types.h"

namespace libquarrin
{

/// Number of volumes of a handle.
constexpr int32_t QN_VOLUME_COUNT = 3;

/// One volume: a folder directly below the mount point, with its quota.
struct tagQN_VOLUME_PARAM_S
{
    tagBU_BOOL bEnable = 0;       ///< the volume is in use; a disabled one is refused
    std::string pszFolder;        ///< folder name below the mount point
    uint32_t u32QuotaType = 0;    ///< 1: u32QuotaPercent counts; any other value: u32QuotaBytes counts
    uint32_t u32QuotaBytes = 0;   ///< quota in bytes, below 4 GiB; a larger one is given in per cent
    uint32_t u32QuotaPercent = 0; ///< quota in per cent of the file system's total size, 0 to 100
    uint32_t u32ReserveBytes = 0; ///< bytes that are kept free below the quota
    bool bAutoDelete = false;     ///< quota reached: delete the oldest files (true) or declare the storage full (false)
    uint32_t u32Reserved = 0;     ///< copied, not used
};

/// What QN_Init needs to know of one removable device. Copied into the handle.
struct tagQN_STORAGE_PARAM_S
{
    std::string strDevice; ///< block device node, for example "/dev/mmcblk1"; its last component is matched to uevents
    int32_t s32PartitionNo = 0; ///< partition to mount: device, "p" and this number; see storage.h for USB disks
    std::string pszMountPoint;  ///< directory to mount on; an unmount removes it with all that is below it
    tagQN_VOLUME_PARAM_S astVolume[QN_VOLUME_COUNT]; ///< indexed by QN_VOLUME_ID_E
};

/// One elementary stream of a recording. Twelve words.
struct tagQN_STREAM_PARAM_S
{
    tagBU_BOOL bEnable;      ///< the stream is present
    QN_CODEC_TYPE_E enCodec; ///< video: H.264 or H.265; audio: AAC
    uint32_t u32Width;       ///< video: width in pixels; audio: sample rate in Hz
    uint32_t u32Height;      ///< video: height in pixels
    uint32_t u32Fps;         ///< video: whole frames per second, not 0; audio: channels, 2 is stereo, all else mono
    uint32_t u32BitRate;     ///< video: bit rate in bit/s; 0 when unknown
    tagQN_BYTES stSps;       ///< video: parameter sets as QN_GetH26xInfo gives them; leave zero when video is off
    tagQN_BYTES stPps;       ///< video: the picture parameter set; leave zero when video is off
    uint32_t u32TimeBaseNum; ///< numerator of the time base, in seconds, of the host's pts
    uint32_t u32TimeBaseDen; ///< denominator of that time base, for example 1000 or 90000
};

/// One recording. 27 words; plain data, value-initialise it and fill what is needed.
struct tagQN_RECORD_PARAM_S
{
    QN_FILE_FMT_E enFormat;       ///< container, 0 to 3: Matroska, MPEG-TS, MP4, MOV
    tagQN_STREAM_PARAM_S stVideo; ///< the video stream
    tagQN_STREAM_PARAM_S stAudio; ///< the audio stream
    tagBU_BOOL bAutoSplit;        ///< begin a new file every u32SplitSeconds
    uint32_t u32SplitSeconds;     ///< recorded seconds after which the next key frame begins a new file
};

/// Parameters of a replay. No function reads them; they are copied and handed to the back end's read-open.
struct tagQN_REPLAY_PARAM_S
{
    uint32_t au32Reserved[24]; ///< for back ends of the host's own
};

/// Parameters of a still picture of packed RGB bytes. Six words.
struct tagQN_PHOTO_PARAM_S
{
    uint32_t u32Width;       ///< width in pixels
    uint32_t u32Height;      ///< height in pixels
    uint32_t u32Depth;       ///< bits per pixel, 24
    uint32_t u32Pitch;       ///< bytes from the start of one row to the start of the next
    uint32_t u32PixelFormat; ///< the host's code; printed, otherwise unused: pixels are always read as R, G, B bytes
    uint32_t u32Quality;     ///< JPEG quality, 0 to 100
};

/// Stream parameters of an open file: 24 words, a video block and an audio block. Reserved words keep the caller's
/// contents, and so do the words of a stream that the file does not have.
struct tagQN_METADATA_S
{
    uint32_t bHasAudio;            ///< 1 when audio was chosen at stream index 1 or more; 0 otherwise
    uint32_t u32VideoCodec;        ///< 0 H.264, 1 any other
    uint32_t u32Width;             ///< coded width in pixels
    uint32_t u32Height;            ///< coded height in pixels
    uint32_t u32FrameRate;         ///< average frame rate, cut to a whole number; untouched when it is unknown
    uint32_t u32VideoBitRate;      ///< bit/s, low 32 bits
    uint32_t au32VideoReserved[4]; ///< never written
    uint32_t u32VideoTimeBaseNum;  ///< numerator of the video stream's time base, in seconds
    uint32_t u32VideoTimeBaseDen;  ///< denominator of it
    uint32_t u32AudioReserved;     ///< never written
    uint32_t u32AudioCodec;        ///< the H.264 test of u32VideoCodec, so always 1
    uint32_t u32SampleRate;        ///< Hz
    uint32_t u32AudioBitRate;      ///< bit/s, low 32 bits
    uint32_t u32Channels;          ///< number of audio channels
    uint32_t au32AudioReserved[5]; ///< never written
    uint32_t u32AudioTimeBaseNum;  ///< numerator of the audio stream's time base, in seconds
    uint32_t u32AudioTimeBaseDen;  ///< denominator of it
};

} // namespace libquarrin

#endif
