// Stands between the library and FFmpeg: counts the library's calls, lets one fail, looks at the process at one.
// Calls of FFmpeg itself and of the tests pass through uncounted. Every call that reads or writes a file, whoever makes
// it, has a limit of time.
#ifndef QUARRIN_TESTS_FFMPEG_CALLS_H
#define QUARRIN_TESTS_FFMPEG_CALLS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// Forgets counts, failures, looks and paint.
void FFMPEG_CALLS_Reset();

/// Lets the library's next call of a function fail: with s32Result where it returns a code, with null elsewhere.
void FFMPEG_CALLS_FailNext(const std::string &strFunction, int32_t s32Result = 0);

/// Calls fnLook before the library's next call of a function.
void FFMPEG_CALLS_LookAt(const std::string &strFunction, std::function<void()> fnLook);

/// Fills the buffers of every frame that the library gets with one byte; otherwise they hold what the heap held.
void FFMPEG_CALLS_PaintFrames(uint8_t u8Byte);

/// How often the library has called a function since the reset.
int32_t FFMPEG_CALLS_Count(const std::string &strFunction);

/// The functions that the library has called since the reset, in order; those alone that this file stands before.
std::vector<std::string> FFMPEG_CALLS_Order();

/// One av_seek_frame of the library.
struct FFMPEG_SEEK_S
{
    int32_t s32Stream = 0;
    int64_t s64Time = 0;
    int32_t s32Flags = 0;
    int32_t s32Result = 0;
};

/// The latest seek.
FFMPEG_SEEK_S FFMPEG_CALLS_Seek();

/// Name of the input format that was asked for last.
std::string FFMPEG_CALLS_FormatAsked();

#endif
