// Small real recordings, for the seeds and for the replays.
#ifndef QUARRIN_TESTS_FUZZ_CLIPS_H
#define QUARRIN_TESTS_FUZZ_CLIPS_H

#include <string>

#include "libquarrin.h"

/// Writes H.264 or H.265 with AAC, frames 400 ms apart.
void FUZZ_WriteClip(const std::string &strPath, libquarrin::QN_FILE_FMT_E enFormat, libquarrin::QN_CODEC_TYPE_E enCodec,
                    int32_t s32Frames);

#endif
