// FFmpeg's text of an error code.
// Threads: any. Locks: none.
#ifndef QUARRIN_MEDIA_ERROR_TEXT_H
#define QUARRIN_MEDIA_ERROR_TEXT_H

#include <cstddef>
#include <cstdint>

extern "C"
{
#include <libavutil/error.h>
}

namespace libquarrin
{

/// Room for a text. Not a string: memory may be just what is missing.
struct tagFF_ERROR_TEXT_S
{
    char szText[128];
};

/// The text; with its NUL it has room in so many bytes, 128 at most, and a longer one is cut.
inline tagFF_ERROR_TEXT_S QN_FF_ErrorText(int32_t s32Error, size_t bytes = sizeof(tagFF_ERROR_TEXT_S))
{
    tagFF_ERROR_TEXT_S stText = {};
    (void)av_strerror(s32Error, stText.szText, bytes); // fills in a generic text for a code it does not know
    return stText;
}

} // namespace libquarrin

#endif
