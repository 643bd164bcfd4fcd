// A clip in memory that stands for sensor and encoder, so that the examples run anywhere. A product has its encoder
// instead; what is worth copying from here are the two functions on frames.
#ifndef EXAMPLES_CLIP_H
#define EXAMPLES_CLIP_H

#include <cstdint>
#include <string>
#include <vector>

#include <libquarrin.h>

struct Frame
{
    std::vector<uint8_t> data; ///< Annex B, four-byte start codes; a key frame begins with its parameter sets
    uint64_t pts = 0;          ///< in 1/90000 s
    bool key = false;
};

struct Clip
{
    libquarrin::QN_CODEC_TYPE_E codec = libquarrin::QN_CODEC_H264;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t fps = 0;
    std::vector<Frame> frames; ///< begin with a key frame; their pts are 0
    std::vector<uint8_t> sps;  ///< parameter sets as a session wants them
    std::vector<uint8_t> pps;

    /// The video parameters of a session that records it. They point into the clip; QN_RecordInit copies them.
    libquarrin::tagQN_STREAM_PARAM_S VideoParam();
};

/// Reads the video of a recording with the library's reader, which needs no card for that. What is wrong with it as a
/// sentence; empty when it is loaded.
std::string LoadClip(const std::string &path, Clip &clip);

/// Makes Annex B with four-byte start codes of a frame: Matroska and MP4 files keep the length of each NAL unit in
/// front of it, encoders write some start codes with three bytes.
std::vector<uint8_t> ToAnnexB(const uint8_t *data, size_t size);

/// Collects the parameter sets of a key frame: H.264 SPS and PPS, H.265 VPS with SPS, and PPS. False when one is
/// missing.
bool FindParameterSets(std::vector<uint8_t> &keyFrame, bool isH265, std::vector<uint8_t> &sps,
                       std::vector<uint8_t> &pps);

#endif
