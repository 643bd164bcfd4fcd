// FFmpeg's text of an error code.
// Threads: any. Locks: none.
#ifndef QUARRIN_MEDIA_ERROR_TEXT_H
#define QUARRIN_MEDIA_ERROR_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

extern "C"
{
#include <libavutil/error.h>
}

namespace libquarrin
{

/// The text; with its NUL it has room in so many bytes, and a longer one is cut.
inline std::string QN_FF_ErrorText(int32_t s32Error, size_t bytes = 128)
{
    std::string strText(bytes, '\0');
    (void)av_strerror(s32Error, &strText[0], bytes); // fills in a generic text for a code it does not know
    return strText.c_str();
}

} // namespace libquarrin

#endif
