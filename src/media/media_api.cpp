// The tables of media back ends, in slot order.
// Threads: any, constant data. Locks: none.

#include "libquarrin/media.h"

namespace libquarrin
{

const tagQN_MEDIA_API_S qn_media_api_ffmpeg = {
    FFMUXER_WriteOpen,    FFMUXER_WriteFrame,    FFMUXER_WriteClose,       FFMUXER_ReadOpen,
    FFMUXER_ReadMetadata, FFMUXER_ReadGetFrame,  FFMUXER_ReadReleaseFrame, FFMUXER_ReadSeek,
    FFMUXER_ReadClose,    FFMUXER_SaveYuvToJpeg, FFMUXER_GetWriteBytes,
};

const tagQN_MEDIA_API_S qn_media_api_wav = {
    WAV_WriteOpen, WAV_WriteFrame, WAV_WriteClose, nullptr, nullptr, nullptr,
    nullptr,       nullptr,        nullptr,        nullptr, nullptr,
};

const tagQN_MEDIA_API_S qn_media_api_wav_prealloc = {
    WAV_WriteOpenPreAlloc,
    WAV_WriteFrame,
    WAV_WriteClose,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

} // namespace libquarrin
