// The writer: any parameters, parameter sets with bits turned, and frames of real streams that are damaged or made up,
// into the four containers. What comes of it is read back.

#include "fuzz.h"

#include <algorithm>
#include <unistd.h>
#include <vector>

#include "support/streams.h"

using namespace libquarrin;

namespace
{

constexpr int32_t FRAMES = 24;

// A plausible value, or any.
uint32_t Value(FUZZ_INPUT &input, uint32_t u32Usual)
{
    switch (input.U8() % 8)
    {
    case 0:
        return input.U32();
    case 1:
        return input.U8();
    default:
        return u32Usual;
    }
}

// Turns some single bits of the first bytes, where a key frame has its parameter sets.
void Flip(FUZZ_INPUT &input, uint8_t *pu8Data, size_t size)
{
    constexpr size_t SETS_BYTES = 96;
    const size_t bits = std::min(size, SETS_BYTES) * 8;
    for (uint32_t u32Left = bits > 0 ? 1 + input.U8() % 4u : 0; u32Left > 0; --u32Left)
    {
        const size_t at = (static_cast<size_t>(input.U8()) << 8 | input.U8()) % bits;
        pu8Data[at / 8] = static_cast<uint8_t>(pu8Data[at / 8] ^ 0x80u >> at % 8);
    }
}

// The real set as it is or with some bits turned, or bytes of the input; they live as long as they are used.
tagQN_BYTES Set(FUZZ_INPUT &input, tagQN_BYTES stUsual, std::string &strOwn)
{
    switch (input.U8() % 4)
    {
    case 0:
        strOwn = input.Text();
        break;
    case 1:
        strOwn.assign(reinterpret_cast<const char *>(stUsual.pu8Data), stUsual.u32Len);
        Flip(input, reinterpret_cast<uint8_t *>(&strOwn[0]), strOwn.size());
        break;
    default:
        return stUsual;
    }
    return {reinterpret_cast<uint8_t *>(&strOwn[0]), static_cast<uint32_t>(strOwn.size())};
}

struct SETS_S
{
    std::string strSps;
    std::string strPps;
};

tagQN_STREAM_PARAM_S Video(FUZZ_INPUT &input, QN_CODEC_TYPE_E enCodec, SETS_S &stSets)
{
    const std::vector<TEST_FRAME_S> &vecFrames =
        enCodec == QN_CODEC_H265 ? TEST_EncodeH265(64, 64, 25, 3, 6) : TEST_EncodeH264(64, 64, 25, 3, 6);
    tagQN_STREAM_PARAM_S stParam = TEST_VideoParam(enCodec, vecFrames);
    stParam.bEnable = input.U8() % 8 != 0 ? 1 : 0;
    stParam.enCodec = static_cast<QN_CODEC_TYPE_E>(Value(input, static_cast<uint32_t>(enCodec)));
    stParam.u32Width = Value(input, stParam.u32Width);
    stParam.u32Height = Value(input, stParam.u32Height);
    stParam.u32Fps = Value(input, stParam.u32Fps);
    stParam.u32BitRate = Value(input, stParam.u32BitRate);
    stParam.u32TimeBaseNum = Value(input, 1);
    stParam.u32TimeBaseDen = Value(input, 1000);
    stParam.stSps = Set(input, stParam.stSps, stSets.strSps);
    stParam.stPps = Set(input, stParam.stPps, stSets.strPps);
    return stParam;
}

tagQN_STREAM_PARAM_S Audio(FUZZ_INPUT &input)
{
    tagQN_STREAM_PARAM_S stParam = TEST_AudioParam();
    stParam.bEnable = input.U8() % 8 != 0 ? 1 : 0;
    stParam.enCodec = static_cast<QN_CODEC_TYPE_E>(Value(input, 4));
    stParam.u32Width = Value(input, 48000);
    stParam.u32Fps = Value(input, 2);
    stParam.u32TimeBaseNum = Value(input, 1);
    stParam.u32TimeBaseDen = Value(input, 1000);
    return stParam;
}

// A frame of the stream as it is, damaged, cut, or of the input's own bytes.
std::vector<uint8_t> FrameBytes(FUZZ_INPUT &input, const std::vector<uint8_t> &vecReal, uint32_t u32How)
{
    std::vector<uint8_t> vecData = vecReal;
    switch (u32How % 4)
    {
    case 1:
        if ((u32How & 64) != 0)
        {
            Flip(input, vecData.data(), vecData.size());
            break;
        }
        for (uint32_t u32Left = input.U8() % 16; u32Left > 0; --u32Left)
        {
            const size_t at = (static_cast<size_t>(input.U8()) << 8 | input.U8()) % vecData.size();
            vecData[at] = input.U8();
        }
        break;
    case 2:
        vecData.resize(input.U8() % vecData.size());
        break;
    case 3:
    {
        const std::string strOwn = input.Text();
        vecData.assign(strOwn.begin(), strOwn.end());
        break;
    }
    default:
        break;
    }
    return vecData;
}

void WriteFrames(FUZZ_INPUT &input, void *pWriter, bool bH265)
{
    const std::vector<TEST_FRAME_S> &vecVideo =
        bH265 ? TEST_EncodeH265(64, 64, 25, 3, 6) : TEST_EncodeH264(64, 64, 25, 3, 6);
    const std::vector<TEST_FRAME_S> &vecAudio = TEST_EncodeAac(48000, 2, 6);
    uint64_t u64Pts = input.U8();
    for (size_t i = 0; i < FRAMES && !input.IsEmpty(); ++i)
    {
        const uint32_t u32How = input.U8();
        const bool bVideo = (u32How & 4) == 0;
        const TEST_FRAME_S &stFrame = bVideo ? vecVideo[i % 6] : vecAudio[i % 6];
        const std::vector<uint8_t> vecData = FrameBytes(input, stFrame.vecData, u32How);
        FUZZ_Check(FFMUXER_WriteFrame(pWriter, vecData.data(), static_cast<uint32_t>(vecData.size()), u64Pts,
                                      stFrame.bKey != ((u32How & 8) != 0), bVideo) == 0,
                   "a frame call on a writer succeeds");
        FUZZ_Check(FFMUXER_GetWriteBytes(pWriter) >= 0, "a writer knows its bytes");
        u64Pts = (u32How & 48) == 48 ? static_cast<uint64_t>(input.S64()) : u64Pts + 40;
    }
}

void ReadBack(const std::string &strPath, QN_FILE_FMT_E enFormat)
{
    tagQN_REPLAY_PARAM_S stParam = {};
    void *pReader = FFMUXER_ReadOpen(&stParam, strPath.c_str(), enFormat);
    if (pReader == nullptr)
    {
        return;
    }
    uint8_t *pu8Data = nullptr;
    uint32_t u32Size = 0;
    uint64_t u64Pts = 0;
    bool bKey = false;
    bool bVideo = false;
    while (FFMUXER_ReadGetFrame(pReader, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo) == 0)
    {
        FUZZ_Check(FFMUXER_ReadReleaseFrame(pReader, pu8Data) == 0, "a frame can be released");
    }
    FUZZ_Check(FFMUXER_ReadClose(pReader) == 0, "a reader can be closed");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t size)
{
    static const std::string strPath = FUZZ_Scratch() + "/clip";
    FUZZ_ListenToFFmpeg();
    FUZZ_INPUT input(pu8Data, size);
    const uint32_t u32Kind = input.U8();
    const bool bH265 = (u32Kind & 4) != 0;
    SETS_S stSets;
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = static_cast<QN_FILE_FMT_E>(u32Kind % 4);
    stParam.stVideo = Video(input, bH265 ? QN_CODEC_H265 : QN_CODEC_H264, stSets);
    stParam.stAudio = Audio(input);
    void *pWriter = FFMUXER_WriteOpen(&stParam, strPath.c_str());
    FUZZ_Check((pWriter != nullptr) == (access(strPath.c_str(), F_OK) == 0), "a file comes of a writer alone");
    if (pWriter == nullptr)
    {
        return 0;
    }
    WriteFrames(input, pWriter, bH265);
    FUZZ_Check(FFMUXER_WriteClose(pWriter) == 0, "a writer can be closed");
    if ((u32Kind & 8) != 0)
    {
        ReadBack(strPath, stParam.enFormat);
    }
    FUZZ_Check(unlink(strPath.c_str()) == 0, "a closed file is there");
    return 0;
}
