// The clip. See the header.

#include "clip.h"

#include <memory>

using namespace libquarrin;

// NAL unit types: ISO/IEC 14496-10, table 7-1, and ISO/IEC 23008-2, table 7-1.
constexpr int32_t H264_SPS = 7;
constexpr int32_t H264_PPS = 8;
constexpr int32_t H265_VPS = 32;
constexpr int32_t H265_SPS = 33;
constexpr int32_t H265_PPS = 34;

static void AppendUnit(std::vector<uint8_t> &out, const uint8_t *unit, size_t size)
{
    while (size > 0 && unit[size - 1] == 0)
    {
        size--; // no unit ends with 0: it is the first byte of the next start code
    }
    if (size > 0)
    {
        out.insert(out.end(), {0, 0, 0, 1});
        out.insert(out.end(), unit, unit + size);
    }
}

// True when the frame is a chain of units behind their lengths.
static bool FromLengths(const uint8_t *data, size_t size, std::vector<uint8_t> &out)
{
    size_t at = 0;
    while (size - at > 4)
    {
        const size_t length =
            size_t{data[at]} << 24 | size_t{data[at + 1]} << 16 | size_t{data[at + 2]} << 8 | size_t{data[at + 3]};
        if (length < 2 || length > size - at - 4) // 1 is a start code
        {
            return false;
        }
        AppendUnit(out, data + at + 4, length);
        at += 4 + length;
    }
    return at == size;
}

std::vector<uint8_t> ToAnnexB(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> out;
    if (FromLengths(data, size, out))
    {
        return out;
    }
    out.clear();
    size_t begin = size; // of the unit; none yet
    for (size_t at = 0; at + 3 <= size; at++)
    {
        if (data[at] == 0 && data[at + 1] == 0 && data[at + 2] == 1)
        {
            AppendUnit(out, data + begin, begin < at ? at - begin : 0);
            begin = at + 3;
        }
    }
    AppendUnit(out, data + begin, size - begin);
    return out;
}

bool FindParameterSets(std::vector<uint8_t> &keyFrame, bool isH265, std::vector<uint8_t> &sps,
                       std::vector<uint8_t> &pps)
{
    std::vector<std::pair<unsigned char *, int>> units; // point into the frame, start codes included
    SPLIT_H26X_NALUS(keyFrame.data(), static_cast<uint32_t>(keyFrame.size()), units);
    bool hasVps = !isH265;
    bool hasSps = false;
    for (const auto &[unit, size] : units)
    {
        const uint32_t length = static_cast<uint32_t>(size);
        const int32_t type = isH265 ? GET_H265_NAL_TYPE(unit, length) : GET_H264_NAL_TYPE(unit, length);
        const bool isVps = isH265 && type == H265_VPS;
        const bool isSps = type == (isH265 ? H265_SPS : H264_SPS);
        if (isVps || isSps)
        {
            sps.insert(sps.end(), unit, unit + size);
            hasVps = hasVps || isVps;
            hasSps = hasSps || isSps;
        }
        else if (type == (isH265 ? H265_PPS : H264_PPS))
        {
            pps.insert(pps.end(), unit, unit + size);
        }
    }
    return hasVps && hasSps && !pps.empty();
}

tagQN_STREAM_PARAM_S Clip::VideoParam()
{
    tagQN_STREAM_PARAM_S video = {};
    video.bEnable = 1;
    video.enCodec = codec;
    video.u32Width = width;
    video.u32Height = height;
    video.u32Fps = fps;
    video.stSps = {sps.data(), static_cast<uint32_t>(sps.size())};
    video.stPps = {pps.data(), static_cast<uint32_t>(pps.size())};
    video.u32TimeBaseNum = 1;
    video.u32TimeBaseDen = 90000;
    return video;
}

static void ReadFrames(void *reader, Clip &clip)
{
    uint8_t *data = nullptr;
    uint32_t size = 0;
    uint64_t pts = 0;
    bool key = false;
    bool video = false;
    while (FFMUXER_ReadGetFrame(reader, &data, &size, &pts, &key, &video) == 0)
    {
        if (video && (key || !clip.frames.empty()))
        {
            clip.frames.push_back({ToAnnexB(data, size), 0, key});
        }
        (void)FFMUXER_ReadReleaseFrame(reader, data); // it is the frame that is out
    }
}

std::string LoadClip(const std::string &path, Clip &clip)
{
    const std::string extension = path.substr(path.rfind('.') + 1);
    const std::unique_ptr<void, int32_t (*)(void *)> reader(
        FFMUXER_ReadOpen(nullptr, path.c_str(), QN_STORAGE_FileExt2FmtType(extension.c_str())), FFMUXER_ReadClose);
    if (reader == nullptr)
    {
        return path + " cannot be read as a ." + extension + " file";
    }
    tagQN_METADATA_S metadata = {};
    (void)FFMUXER_ReadMetadata(reader.get(), &metadata); // refuses null pointers only
    clip.codec = metadata.u32VideoCodec == 0 ? QN_CODEC_H264 : QN_CODEC_H265;
    clip.width = metadata.u32Width;
    clip.height = metadata.u32Height;
    clip.fps = metadata.u32FrameRate != 0 ? metadata.u32FrameRate : 25;
    ReadFrames(reader.get(), clip);
    if (clip.width == 0 || clip.frames.empty())
    {
        return path + " has no H.264 or H.265 video in it";
    }
    if (!FindParameterSets(clip.frames[0].data, clip.codec == QN_CODEC_H265, clip.sps, clip.pps))
    {
        return path + " has no parameter sets in its first key frame";
    }
    return "";
}
